// Files larger than 4 GiB: a sparse host file with the trailer written at its
// end. The 64-bit queries give exact positions, the 32-bit records keep the
// low words, and the places that have always worked in 32 bits still do.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

constexpr int64_t k4G = int64_t{1} << 32;

const std::vector<Entry> kEntries = {
    {11, "first", "payload of the first entry", "sub-1"},
    {12, "second", "2nd", ""},
};

// A sparse file of `host` bytes followed by `tail`, plus optional bytes
// written inside the host area. False when the filesystem refuses.
bool makeSparse(const std::string &path, int64_t host, const Bytes &tail,
                int64_t marker_at = -1, const std::string &marker = "") {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    bool ok = ::ftruncate64(fd, host) == 0 &&
              ::pwrite64(fd, tail.data(), tail.size(), host) ==
                  static_cast<ssize_t>(tail.size());
    if (ok && marker_at >= 0)
        ok = ::pwrite64(fd, marker.data(), marker.size(), marker_at) ==
             static_cast<ssize_t>(marker.size());
    ::close(fd);
    if (!ok) ::unlink(path.c_str());
    return ok;
}

int64_t blockStart(int64_t host, size_t k) {
    int64_t pos = host;
    for (size_t i = 0; i < k; ++i) pos += tb::blockLength(kEntries[i]);
    return pos;
}
int64_t payloadPos(int64_t host, size_t k) {
    const Entry &e = kEntries[k];
    return blockStart(host, k) + 8 + (e.hasSub() ? 4 : 0) +
           static_cast<int64_t>(e.name.size() + e.sub.size());
}

class LargeFile : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("big.jpg");
    void TearDown() override {
        ::unlink(path.c_str());
        EXPECT_FALSE(tu::exists(path));
    }
};

#define MAKE_OR_SKIP(...)                                                        \
    do {                                                                         \
        if (!makeSparse(__VA_ARGS__))                                            \
            GTEST_SKIP() << "the filesystem refuses a sparse file beyond 4 GiB"; \
    } while (0)

}  // namespace

TEST_F(LargeFile, PositionsPastFourGigabytes) {
    const int64_t host = k4G + (1 << 20) + 3;
    MAKE_OR_SKIP(path, host, tb::trailer(kEntries));
    const int64_t size = host + static_cast<int64_t>(tb::trailer(kEntries).size());

    EXPECT_EQ(getSignature(path.c_str()), SIGNATURE_YAX);
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->yax_info->file_size, size);
    EXPECT_EQ(d->yax_info->data_start_position, host);

    for (uint32_t k = 0; k < 2; ++k) {
        const Entry &e = kEntries[k];
        YAXOFFSET64 *o64 = getYAXInFileByName64(d, e.name.c_str());
        YAXOFFSET *o32 = getYAXInFileByIndex(d, k);
        ASSERT_TRUE(o64 && o32);
        EXPECT_EQ(o64->offset, payloadPos(host, k));
        EXPECT_EQ(o64->length, static_cast<int64_t>(e.payload.size()));
        EXPECT_EQ(o32->offset, static_cast<uint32_t>(payloadPos(host, k) - k4G));
        EXPECT_EQ(o32->length, e.payload.size());
        destroyYAXOFFSET64(o64);
        destroyYAXOFFSET(o32);

        // The payload read positions with all 64 bits.
        unsigned char *data = nullptr;
        ASSERT_EQ(readDataOfIndex(d->yax_info, k, &data, nullptr), 1);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(data), e.payload.size()), e.payload);
        _qfree(data);
    }
    YAXOFFSET64 *s64 = getYAXSubInfoInFileByIndex64(d, 0);
    YAXOFFSET *s32 = getYAXSubInfoInFileByName(d, "first");
    ASSERT_TRUE(s64 && s32);
    EXPECT_EQ(s64->offset, blockStart(host, 0) + 12 + 5);
    EXPECT_EQ(s64->length, 5);
    EXPECT_EQ(s32->offset, static_cast<uint32_t>(s64->offset));
    destroyYAXOFFSET64(s64);
    destroyYAXOFFSET(s32);
    destroyYAXDATA(d);
}

TEST_F(LargeFile, ExtractionSeeksWithTheLowWord) {
    // Extraction has always positioned with a 32-bit value; payloads past
    // 4 GiB are read through the 64-bit queries instead. A marker at the low
    // word's position shows where the copy came from.
    const int64_t host = k4G + 4096;
    const int64_t low = payloadPos(host, 1) - k4G;
    MAKE_OR_SKIP(path, host, tb::trailer(kEntries), low, "LOW");
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, 1);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->data_length, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), 3), "LOW");
    EXPECT_EQ(u->data_type, 12u);
    destroyYAXDATA_UNIT(u);
    destroyYAXDATA(d);
}

TEST_F(LargeFile, BoxProbeUsesThirtyTwoBitArithmetic) {
    // The "yaxd" probe before block 0 is computed in 32 bits: past 4 GiB it
    // looks at the wrong place and the box head is not seen.
    const Bytes t = tb::trailer(kEntries);
    const Bytes box = tb::Builder().u32be(static_cast<uint32_t>(t.size() + 8)).str("yaxd").done();
    const int64_t host = k4G + 8192;
    MAKE_OR_SKIP(path, host, box + t);
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->yax_info->data_start_position, host + 8);
    YAXOFFSET64 *o = getYAXInFileByIndex64(d, 0);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->offset, payloadPos(host + 8, 0));  // payload positions are unaffected
    destroyYAXOFFSET64(o);
    destroyYAXDATA(d);
}

TEST_F(LargeFile, NameSeekLandingOnFourGigabytesCountsAsFailed) {
    // Block 0 starts 4 bytes before 4 GiB: its name length field sits at
    // exactly 4 GiB, whose low word is 0, the old failure test.
    const int64_t host = k4G - 4;
    MAKE_OR_SKIP(path, host, tb::trailer(kEntries));
    std::string out = tu::capture([&] { EXPECT_EQ(checkYAXInFile(path.c_str()), nullptr); });
    EXPECT_EQ(out, tu::errLine("YAX::_getNameOfData", "File System Error 0\n ") +
                       tu::errLine("YAX::getAllNameOfDataList", "0th data has no name!"));
}
