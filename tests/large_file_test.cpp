// Files larger than 4 GiB: a sparse host with the trailer written at its end.
// The 64-bit queries give exact positions, the 32-bit records keep the low
// words, and the places that have always worked in 32 bits still do.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::operator+;

namespace {

constexpr int64_t k4G = int64_t{1} << 32;
const std::vector<tb::Entry> kEntries = {{11, "first", "payload of the first entry", "sub-1"},
                                     {12, "second", "2nd", ""}};
const Bytes kTrailer = tb::trailer(kEntries);

using Span = std::pair<int64_t, int64_t>;
template <typename O, typename D>
Span span(O *o, D destroy) {
    Span v = o ? Span(o->offset, o->length) : Span(-1, -1);
    destroy(o);
    return v;
}

class LargeFile : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("big.jpg");
    // `host` sparse bytes, then `tail`, then `marker` written at `at` inside the host.
    bool make(int64_t host, const Bytes &tail, int64_t at = 0, const std::string &marker = "") {
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        bool ok = fd >= 0 && ::ftruncate64(fd, host) == 0 &&
                  ::pwrite64(fd, tail.data(), tail.size(), host) == ssize_t(tail.size()) &&
                  ::pwrite64(fd, marker.data(), marker.size(), at) == ssize_t(marker.size());
        if (fd >= 0) ::close(fd);
        return ok;
    }
};

#define MAKE_OR_SKIP(...) if (!make(__VA_ARGS__)) GTEST_SKIP() << "no sparse file beyond 4 GiB"

}  // namespace

TEST_F(LargeFile, PositionsPastFourGigabytesAndTheThirtyTwoBitPlaces) {
    // The trailer sits in an MP4 box. The box probe before block 0 computes
    // in 32 bits and misses the head past 4 GiB: the data start is the box's
    // payload; payload positions are unaffected. Extraction has always
    // positioned with a 32-bit value: a marker at the low word's position
    // shows where its copy comes from.
    const Bytes box = tb::Builder().u32be(uint32_t(kTrailer.size() + 8)).str("yaxd").done();
    const int64_t start = k4G + (1 << 20) + 3, host = start + 8;
    const int64_t second = host + tb::blockLength(kEntries[0]) + 8 + 6;  // its payload
    MAKE_OR_SKIP(start, box + kTrailer, second - k4G, "LOW");
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->yax_info->file_size, host + int64_t(kTrailer.size()));
    EXPECT_EQ(d->yax_info->data_start_position, host);
    EXPECT_EQ(span(getYAXInFileByName64(d, "second"), destroyYAXOFFSET64),
              Span(second, 3));
    EXPECT_EQ(span(getYAXInFileByIndex(d, 1), destroyYAXOFFSET),
              Span(uint32_t(second), 3));  // the low word
    EXPECT_EQ(span(getYAXSubInfoInFileByIndex64(d, 0), destroyYAXOFFSET64), Span(host + 17, 5));
    unsigned char *data = nullptr;  // the decoder reads with all 64 bits
    ASSERT_EQ(readDataOfIndex(d->yax_info, 0, &data, nullptr), 1);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(data), 26), kEntries[0].payload);
    _qfree(data);
    YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, 1);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), u->data_length), "LOW");
    destroyYAXDATA_UNIT(u);
    destroyYAXDATA(d);
}

TEST_F(LargeFile, NameSeekLandingOnFourGigabytesCountsAsFailed) {
    // Block 0's name length field sits at exactly 4 GiB, whose low word is 0.
    MAKE_OR_SKIP(k4G - 4, kTrailer);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkYAXInFile(path.c_str()), nullptr); }),
              tu::errLine("YAX::_getNameOfData", "File System Error 0\n ") +
                  tu::errLine("YAX::getAllNameOfDataList", "0th data has no name!"));
}
