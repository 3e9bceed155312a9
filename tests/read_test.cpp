// Entry reading on the file and the buffer flavour: names from the block
// heads, the located positions of sub-information and payload and the bytes
// read there, the refusals and their lines, and the name search of a query
// record. Bad name and sub-information lengths and wrapping offsets are in
// the malformed-input suite.
#include <gtest/gtest.h>
#include <unistd.h>

#include <tuple>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

constexpr int64_t kHost = 120;
const std::vector<Entry> kThree = {
    {7, "alpha", "payload-one", ""}, {0, "beta", "xy", "SUBINFO"}, {9, "gamma", "3333", "s"}};

std::string nameErr(const std::string &m) { return tu::errLine("YAX::_getNameOfData", m); }
std::string allErr(const std::string &m) { return tu::errLine("YAX::getAllNameOfDataList", m); }
std::string readErr(const std::string &m) { return tu::errLine("YAXDecoder::readDataOfIndex", m); }

// A parsed and listed record over a file (param false) or buffer holding
// host + `tail`; names read are freed here as no query record owns them.
class Read : public ::testing::TestWithParam<bool> {
protected:
    tu::TempDir dir;
    YAXBUFFER *h = nullptr;
    YaxInfo *info = nullptr;
    bool buf = GetParam();
    void open(const Bytes &tail) {
        const Bytes file = tb::fakeImage(kHost) + tail;
        h = _qbopen(static_cast<uint32_t>(file.size()));
        _qbwrite(file.data(), static_cast<uint32_t>(file.size()), h);
        tu::writeFile(dir.path("f.jpg"), file);
        info = buf ? ParseYAX_Buffer(h, SIGNATURE_YAX) : ParseYAX(dir.path("f.jpg").c_str(), SIGNATURE_YAX);
        ASSERT_EQ(buf ? getYAXListBuffer(info) : getYAXList(info), 1);
    }
    void TearDown() override {
        for (uint32_t i = 0; info && info->meta_data && i < info->meta_count; ++i)
            if (info->meta_data[i]) _qfree(info->meta_data[i]->name);
        buf ? DestroyYAX_Buffer(info) : DestroyYAX(info);
        _qbclose(h);
    }
    // The lines of a name read (k >= 0) or of reading all names (k < 0).
    std::string name(YaxInfo *i, int k, int want) {
        return tu::capture([&] {
            EXPECT_EQ(k < 0 ? (buf ? getAllNameOfDataListBuffer(i) : getAllNameOfDataList(i))
                            : (buf ? _getNameOfDataBuffer(i, k) : _getNameOfData(i, k)), want);
        });
    }
};

}  // namespace

TEST_P(Read, NamesPositionsAndBytesOfEveryEntry) {
    open(tb::trailer(kThree));
    int64_t block = kHost;
    for (uint32_t k = 0; k < 3; ++k) {  // names are read on demand by the offset functions
        const Entry &e = kThree[k];
        const int64_t sub_at = block + 8 + (e.hasSub() ? 4 : 0) + int64_t(e.name.size());
        int64_t pos = -1, len = -1;
        ASSERT_EQ(readDataOfIndexOffset(info, k, &pos, &len), 1) << k;
        EXPECT_EQ(pos, sub_at + int64_t(e.sub.size()));
        EXPECT_EQ(len, int64_t(e.payload.size()));
        EXPECT_STREQ(info->meta_data[k]->name, e.name.c_str());
        EXPECT_EQ(readSubDataInfoOfDataOffset(info, k, &pos, &len), e.hasSub() ? 1 : 0);
        if (e.hasSub()) {
            EXPECT_EQ(std::make_pair(pos, len), std::make_pair(sub_at, int64_t(e.sub.size())));
        }
        unsigned char *data = nullptr, *sub = nullptr;  // sub-information alone for the last
        ASSERT_EQ(readDataOfIndex(info, k, k == 2 ? nullptr : &data, e.hasSub() ? &sub : nullptr), 1);
        if (k < 2) {
            EXPECT_EQ(std::string(reinterpret_cast<char *>(data), e.payload.size()), e.payload);
        }
        EXPECT_EQ(std::string(reinterpret_cast<char *>(sub), e.sub.size()), e.sub);
        _qfree(data);
        _qfree(sub);
        block += tb::blockLength(e);
    }
}

TEST_P(Read, RefusalsAndTheirLines) {
    open(tb::trailer({{1, "empty", "", ""}, {2, std::string(1024, 'n'), "abc", ""}}));
    EXPECT_EQ(name(info, -1, 1), "");  // 1024 is the longest name
    int64_t pos = -1, len = -1;
    EXPECT_EQ(readDataOfIndexOffset(info, 0, &pos, &len), 0);  // empty payload
    EXPECT_EQ(std::make_pair(pos, len), std::make_pair(int64_t(0), int64_t(0)));
    unsigned char *data = nullptr, *sub = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(info, 0, &data, nullptr), 0); }),
              readErr("Data readDataOfIndexOffset Fail"));
    // Asking for sub-information an entry does not have fails the whole call.
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(info, 1, &data, &sub), 0); }),
              readErr("SubData readDataOfIndexOffset Fail"));
    // An index equal to the count is refused.
    EXPECT_EQ(name(info, 2, 0), nameErr("index false"));

    // The name read's refusals, in their order.
    EXPECT_EQ(name(nullptr, 0, 0) + name(nullptr, -1, 0),
              nameErr("YAX_info NULL") + allErr("YAX_info NULL!"));
    YaxInfo c = *info;
    c.fp = nullptr, c.handle = nullptr;
    EXPECT_EQ(name(&c, 0, 0) + name(&c, -1, 0),
              nameErr(buf ? "handle NULL" : "fp NULL") + allErr(buf ? "handle NULL" : "fp NULL"));
    c = *info, c.file_size = 0;
    EXPECT_EQ(name(&c, 0, 0) + name(&c, -1, 0), nameErr("file_size <= 0") + allErr("file_size <= 0"));
    c = *info, c.meta_data = nullptr;
    EXPECT_EQ(name(&c, 0, 0) + name(&c, -1, 0), nameErr("meta_data NULL") + allErr("meta_data NULL"));
    c = *info, c.meta_count = 0;
    EXPECT_EQ(name(&c, -1, 0), allErr("meta_count <= 0"));
    info->meta_data[0]->offset = 0;
    EXPECT_EQ(name(info, -1, 0), nameErr("start_offset <= 0") + allErr("0th data has no name!"));
    // A block 4 bytes before the start: the name length field would be at 0,
    // which counts as a failed seek.
    info->meta_data[0]->offset = uint32_t(info->file_size) - info->header_offset + 4;
    EXPECT_EQ(name(info, 0, 0), nameErr("File System Error 0\n "));
}

// A table longer than one batch of rows, whose name heads straddle the
// read window's edges (names of 1 to 1024 bytes, with and without
// sub-information, tiny and larger payloads): every row and name as built,
// and a file's offset left just behind the last name, where reading each
// field on its own leaves it.
TEST_P(Read, LongTableRowsAndNamesAcrossBatchesAndWindows) {
    std::vector<Entry> entries;
    const size_t lengths[] = {1, 7, 300, 1024, 2, 1023};
    for (uint32_t i = 0; i < 1100; ++i) {
        std::string n = std::to_string(i) + std::string(lengths[i % 6], 'n');
        n.resize(lengths[i % 6]);
        n[0] = char('a' + i % 26);
        entries.push_back({i % 5, n, std::string(i % 7 == 0 ? 700 : 1, 'p'), i % 3 ? "" : "s"});
    }
    open(tb::trailer(entries));
    ASSERT_EQ(info->meta_count, 1100u);
    const auto rows = tb::rowsFor(entries);
    for (uint32_t i = 0; i < 1100; ++i) {
        const YaxEntry *e = info->meta_data[i];
        ASSERT_NE(e, nullptr) << i;
        EXPECT_EQ(std::make_tuple(e->meta_type, e->offset, e->length),
                  std::make_tuple(rows[i].meta_type, rows[i].offset, rows[i].length)) << i;
    }
    EXPECT_EQ(name(info, -1, 1), "");
    for (uint32_t i = 0; i < 1100; ++i)
        ASSERT_EQ(std::string(info->meta_data[i]->name, info->meta_data[i]->name_length), entries[i].name) << i;
    if (!buf) {
        int64_t last = kHost;
        for (size_t i = 0; i + 1 < entries.size(); ++i) last += tb::blockLength(entries[i]);
        const Entry &e = entries.back();
        EXPECT_EQ(lseek64(fileno(info->fp), 0, SEEK_CUR),
                  last + 8 + (e.hasSub() ? 4 : 0) + int64_t(e.name.size()));
    }
}

INSTANTIATE_TEST_SUITE_P(Flavours, Read, ::testing::Values(false, true),
                         [](const auto &p) { return p.param ? "Buffer" : "File"; });

// The record-level lines of the search are in the query suite.
TEST(IndexOfName, FirstOfTwoExactMatchesAndItsLines) {
    char a[] = "Alpha", b[] = "beta";
    char *names[] = {a, b, b};
    YAXDATA d{};
    d.type = 1, d.count = 3, d.YAX_name_list = names;
    const std::string tag = "YAXAPIs::_getIndexOfName";
    std::vector<uint32_t> found;  // in order: a braced list is evaluated left to right
    EXPECT_EQ(tu::capture([&] {
                  found = {_getIndexOfName(&d, "beta"), _getIndexOfName(&d, "alpha"),
                           _getIndexOfName(&d, nullptr), _getIndexOfName(nullptr, "x")};
              }),
              tu::errLine(tag, "name null") + tu::errLine(tag, "YAXdata null"));
    EXPECT_EQ(found, std::vector<uint32_t>({1, -1u, -1u, -1u}));  // the lower of two; case counts
}
