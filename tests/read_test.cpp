// Entry reading: names and sub-information lengths from the block heads, the
// located positions of sub-information and payload, the bytes read from them,
// and the name search of a query record; on the file and the buffer flavour.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

constexpr size_t kHost = 120;

const std::vector<Entry> kThree = {
    {7, "alpha", "payload-one", ""},
    {0, "beta", "xy", "SUBINFO"},
    {9, "gamma", "3333", "s"},
};

// A parsed and listed record over a file or a buffer holding `file`.
struct Opened {
    tu::TempDir dir;
    YAXBUFFER *h = nullptr;
    YaxInfo *info = nullptr;
    bool buffer;

    Opened(const Bytes &file, bool use_buffer) : buffer(use_buffer) {
        if (buffer) {
            h = _qbopen(static_cast<uint32_t>(file.size()));
            _qbwrite(file.data(), static_cast<uint32_t>(file.size()), h);
            info = ParseYAX_Buffer(h, SIGNATURE_YAX);
            if (info) {
                EXPECT_EQ(getYAXListBuffer(info), 1);
            }
        } else {
            std::string p = dir.path("f.jpg");
            tu::writeFile(p, file);
            info = ParseYAX(p.c_str(), SIGNATURE_YAX);
            if (info) {
                EXPECT_EQ(getYAXList(info), 1);
            }
        }
    }
    ~Opened() {
        if (info && info->meta_data) {
            for (uint32_t i = 0; i < info->meta_count; ++i)
                if (info->meta_data[i]) _qfree(info->meta_data[i]->name);
        }
        if (buffer) {
            DestroyYAX_Buffer(info);
            _qbclose(h);
        } else {
            DestroyYAX(info);
        }
    }
    int name(uint32_t i) { return buffer ? _getNameOfDataBuffer(info, i) : _getNameOfData(info, i); }
    int allNames() { return buffer ? getAllNameOfDataListBuffer(info) : getAllNameOfDataList(info); }
};

std::string nameErr(const std::string &m) { return tu::errLine("YAX::_getNameOfData", m); }
std::string allErr(const std::string &m) { return tu::errLine("YAX::getAllNameOfDataList", m); }
std::string readErr(const std::string &m) { return tu::errLine("YAXDecoder::readDataOfIndex", m); }
std::string idxErr(const std::string &m) { return tu::errLine("YAXAPIs::_getIndexOfName", m); }

// Absolute position of entry k's block in host + trailer(entries).
int64_t blockStart(const std::vector<Entry> &entries, size_t k) {
    int64_t pos = kHost;
    for (size_t i = 0; i < k; ++i) pos += tb::blockLength(entries[i]);
    return pos;
}

class Both : public ::testing::TestWithParam<bool> {};

}  // namespace

TEST_P(Both, NamesAndSubInfoLengthsComeFromTheBlockHeads) {
    Opened o(tb::fakeImage(kHost) + tb::trailer(kThree), GetParam());
    ASSERT_NE(o.info, nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(o.allNames(), 1); }), "");
    for (uint32_t k = 0; k < 3; ++k) {
        const YaxEntry *e = o.info->meta_data[k];
        EXPECT_STREQ(e->name, kThree[k].name.c_str());
        EXPECT_EQ(e->name_length, kThree[k].name.size());
        EXPECT_EQ(e->sub_info_length, kThree[k].sub.size());
    }
    // A second read replaces the name with a fresh copy.
    char *before = o.info->meta_data[1]->name;
    std::string keep(before);
    _qfree(before);
    o.info->meta_data[1]->name = static_cast<char *>(_qmalloc(2));
    EXPECT_EQ(o.name(1), 1);
    EXPECT_EQ(keep, o.info->meta_data[1]->name);
}

TEST_P(Both, PositionsLengthsAndBytesOfEveryEntry) {
    const Bytes file = tb::fakeImage(kHost) + tb::trailer(kThree);
    Opened o(file, GetParam());
    ASSERT_NE(o.info, nullptr);
    // Names are read on demand by the offset functions.
    for (uint32_t k = 0; k < 3; ++k) {
        const Entry &e = kThree[k];
        const int64_t head = 8 + (e.hasSub() ? 4 : 0) + static_cast<int64_t>(e.name.size());
        int64_t pos = -1, len = -1;
        ASSERT_EQ(readDataOfIndexOffset(o.info, k, &pos, &len), 1) << k;
        EXPECT_EQ(pos, blockStart(kThree, k) + head + static_cast<int64_t>(e.sub.size()));
        EXPECT_EQ(len, static_cast<int64_t>(e.payload.size()));
        EXPECT_STREQ(o.info->meta_data[k]->name, e.name.c_str());

        unsigned char *data = nullptr, *sub = nullptr;
        if (e.hasSub()) {
            ASSERT_EQ(readSubDataInfoOfDataOffset(o.info, k, &pos, &len), 1);
            EXPECT_EQ(pos, blockStart(kThree, k) + head);
            EXPECT_EQ(len, static_cast<int64_t>(e.sub.size()));
            ASSERT_EQ(readDataOfIndex(o.info, k, &data, &sub), 1);
            EXPECT_EQ(std::string(reinterpret_cast<char *>(sub), e.sub.size()), e.sub);
        } else {
            EXPECT_EQ(readSubDataInfoOfDataOffset(o.info, k, &pos, &len), 0);
            ASSERT_EQ(readDataOfIndex(o.info, k, &data, nullptr), 1);
        }
        EXPECT_EQ(std::string(reinterpret_cast<char *>(data), e.payload.size()), e.payload);
        _qfree(data);
        _qfree(sub);
    }
    // Only the sub-information wanted: the payload output is not touched.
    unsigned char *sub = nullptr;
    ASSERT_EQ(readDataOfIndex(o.info, 2, nullptr, &sub), 1);
    EXPECT_EQ(sub[0], 's');
    _qfree(sub);
}

TEST_P(Both, EmptyPayloadsAndMissingSubInfoAreRefused) {
    const std::vector<Entry> entries = {{1, "empty", "", ""}, {2, "plain", "abc", ""}};
    Opened o(tb::fakeImage(kHost) + tb::trailer(entries), GetParam());
    ASSERT_NE(o.info, nullptr);
    int64_t pos = -1, len = -1;
    EXPECT_EQ(readDataOfIndexOffset(o.info, 0, &pos, &len), 0);
    EXPECT_EQ(pos, 0);
    EXPECT_EQ(len, 0);
    unsigned char *data = nullptr, *sub = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(o.info, 0, &data, nullptr), 0); }),
              readErr("Data readDataOfIndexOffset Fail"));
    EXPECT_EQ(data, nullptr);
    // Asking for sub-information an entry does not have fails the whole call.
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(o.info, 1, &data, &sub), 0); }),
              readErr("SubData readDataOfIndexOffset Fail"));
    EXPECT_EQ(data, nullptr);
    // An index equal to the count is refused everywhere.
    EXPECT_EQ(readDataOfIndexOffset(o.info, 2, &pos, &len), 0);
    EXPECT_EQ(readSubDataInfoOfDataOffset(o.info, 2, &pos, &len), 0);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(o.name(2), 0); }), nameErr("index false"));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(o.info, 2, &data, nullptr), 0); }),
              readErr("Data readDataOfIndexOffset Fail"));
}

TEST_P(Both, NameLengthLimitsAndZeroSubInfo) {
    const std::string n1024(1024, 'n');
    std::vector<Entry> ok = {{1, n1024, "p", ""}};
    {
        Opened o(tb::fakeImage(kHost) + tb::trailer(ok), GetParam());
        ASSERT_NE(o.info, nullptr);
        EXPECT_EQ(o.allNames(), 1);
        EXPECT_EQ(o.info->meta_data[0]->name_length, 1024u);
    }
    std::vector<Entry> two = {{1, "fine", "p", ""}, {1, std::string(1025, 'n'), "p", ""}};
    {
        Opened o(tb::fakeImage(kHost) + tb::trailer(two), GetParam());
        ASSERT_NE(o.info, nullptr);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(o.allNames(), 0); }),
                  nameErr("name length is wrong : 1025byte") + allErr("1th data has no name!"));
        EXPECT_EQ(o.info->meta_data[1]->name, nullptr);
    }
    // A block claiming a zero-length name.
    Bytes zero_name = tb::Builder().u32(1u << 16).u32(0).str("payload").done();
    {
        Opened o(tb::fakeImage(kHost) + zero_name +
                     tb::header({{1u << 16, static_cast<uint32_t>(zero_name.size()),
                                  static_cast<uint32_t>(zero_name.size())}}),
                 GetParam());
        ASSERT_NE(o.info, nullptr);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(o.name(0), 0); }),
                  nameErr("name length is wrong : 0byte"));
    }
    // Bit 15 set and a zero sub-information length.
    Bytes zero_sub = tb::Builder().u32((1u << 16) | 0x8000).u32(1).u32(0).str("kpayload").done();
    {
        Opened o(tb::fakeImage(kHost) + zero_sub +
                     tb::header({{(1u << 16) | 0x8000, static_cast<uint32_t>(zero_sub.size()),
                                  static_cast<uint32_t>(zero_sub.size())}}),
                 GetParam());
        ASSERT_NE(o.info, nullptr);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(o.name(0), 0); }),
                  nameErr("sub data read size <= 0"));
        EXPECT_EQ(o.info->meta_data[0]->name, nullptr);
    }
}

TEST_P(Both, NameReadRefusalsInOrder) {
    Opened o(tb::fakeImage(kHost) + tb::trailer(kThree), GetParam());
    ASSERT_NE(o.info, nullptr);
    const std::string no_stream = GetParam() ? "handle NULL" : "fp NULL";
    auto name = [&](YaxInfo *i, uint32_t k) {
        return tu::capture([&] {
            EXPECT_EQ(GetParam() ? _getNameOfDataBuffer(i, k) : _getNameOfData(i, k), 0);
        });
    };
    auto all = [&](YaxInfo *i) {
        return tu::capture([&] {
            EXPECT_EQ(GetParam() ? getAllNameOfDataListBuffer(i) : getAllNameOfDataList(i), 0);
        });
    };
    EXPECT_EQ(name(nullptr, 0), nameErr("YAX_info NULL"));
    EXPECT_EQ(all(nullptr), allErr("YAX_info NULL!"));

    YaxInfo copy = *o.info;
    copy.fp = nullptr;
    copy.handle = nullptr;
    EXPECT_EQ(name(&copy, 0), nameErr(no_stream));
    EXPECT_EQ(all(&copy), allErr(no_stream));
    copy = *o.info;
    copy.file_size = 0;
    EXPECT_EQ(name(&copy, 0), nameErr("file_size <= 0"));
    EXPECT_EQ(all(&copy), allErr("file_size <= 0"));
    copy = *o.info;
    copy.meta_data = nullptr;
    EXPECT_EQ(name(&copy, 0), nameErr("meta_data NULL"));
    EXPECT_EQ(all(&copy), allErr("meta_data NULL"));
    copy = *o.info;
    copy.meta_count = 0;
    EXPECT_EQ(all(&copy), allErr("meta_count <= 0"));

    YaxEntry *e = o.info->meta_data[0];
    const uint32_t saved = e->offset;
    e->offset = 0;
    EXPECT_EQ(name(o.info, 0), nameErr("start_offset <= 0"));
    EXPECT_EQ(all(o.info), nameErr("start_offset <= 0") + allErr("0th data has no name!"));
    // header_offset + offset beyond 32 bits
    e->offset = 0xFFFFFFFFu - o.info->header_offset + 1;
    EXPECT_EQ(name(o.info, 0),
              nameErr("data_start_position is larger than header_offset, abnormal operation"));
    // A block 4 bytes before the start: the name length field would be at 0,
    // which counts as a failed seek.
    e->offset = static_cast<uint32_t>(o.info->file_size) - o.info->header_offset + 4;
    EXPECT_EQ(name(o.info, 0), nameErr("File System Error 0\n "));
    e->offset = saved;
    EXPECT_EQ(o.name(0), 1);
}

TEST_P(Both, LocatedRangesMustStayInsideTheFile) {
    auto rows = tb::rowsFor(kThree);
    const Bytes blocks = tb::block(kThree[0]) + tb::block(kThree[1]) + tb::block(kThree[2]);
    rows[2].length += 1000;  // payload would run past the end of the file
    Opened o(tb::fakeImage(kHost) + blocks + tb::header(rows), GetParam());
    ASSERT_NE(o.info, nullptr);
    int64_t pos = -1, len = -1;
    EXPECT_EQ(readDataOfIndexOffset(o.info, 2, &pos, &len), 0);
    EXPECT_EQ(pos, 0);
    EXPECT_EQ(len, 0);
    // Its sub-information is still inside and can be located.
    EXPECT_EQ(readSubDataInfoOfDataOffset(o.info, 2, &pos, &len), 1);
    EXPECT_EQ(len, 1);
    // A sub-information length that runs past the end fails both functions.
    o.info->meta_data[1]->sub_info_length = 0x7FFFFFFF;
    o.info->meta_data[1]->name_length = 4;
    EXPECT_EQ(readSubDataInfoOfDataOffset(o.info, 1, &pos, &len), 0);
    EXPECT_EQ(readDataOfIndexOffset(o.info, 1, &pos, &len), 0);
    EXPECT_EQ(len, 0);
    unsigned char *sub = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(o.info, 1, nullptr, &sub), 0); }),
              readErr("SubData readDataOfIndexOffset Fail"));
    EXPECT_EQ(sub, nullptr);

    // A block said to start before the file: nothing is located, and the
    // length in the row never sizes a copy.
    ASSERT_EQ(readDataOfIndexOffset(o.info, 0, &pos, &len), 1);  // names read
    YaxEntry *e = o.info->meta_data[0];
    e->offset += kHost + 8;
    e->length = 0x7FFFFFFF;
    pos = len = -1;
    EXPECT_EQ(readDataOfIndexOffset(o.info, 0, &pos, &len), 0);
    EXPECT_EQ(pos, 0);
    EXPECT_EQ(len, 0);
    unsigned char *data = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(o.info, 0, &data, nullptr), 0); }),
              readErr("Data readDataOfIndexOffset Fail"));
    EXPECT_EQ(data, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Flavours, Both, ::testing::Values(false, true),
                         [](const auto &p) { return p.param ? "Buffer" : "File"; });

TEST(ReadData, RefusesRecordsWithoutStream) {
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(readDataOfIndex(nullptr, 0, nullptr, nullptr), 0); }),
              readErr("YAX_info NULL"));
    YaxInfo rec{};
    rec.valid = 1;
    unsigned char *data = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(readDataOfIndex(&rec, 0, &data, nullptr), 0); }),
              readErr("fp null"));
    int64_t pos = 5, len = 5;
    EXPECT_EQ(readDataOfIndexOffset(nullptr, 0, &pos, &len), 0);
    EXPECT_EQ(readDataOfIndexOffset(&rec, 0, &pos, &len), 0);
    EXPECT_EQ(pos, 5);  // early refusals leave the outputs alone
}

TEST(IndexOfName, WalkFirstMatchAndItsLines) {
    char a[] = "Alpha", b[] = "beta", c[] = "beta";
    char *names[] = {a, b, c, nullptr};
    YAXDATA d{};
    d.type = 1;
    d.count = 3;
    d.YAX_name_list = names;
    EXPECT_EQ(_getIndexOfName(&d, "beta"), 1u);  // the lower of two
    EXPECT_EQ(_getIndexOfName(&d, "Alpha"), 0u);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_getIndexOfName(&d, "alpha"), 0xFFFFFFFFu); }), "");
    EXPECT_EQ(_getIndexOfName(&d, "bet"), 0xFFFFFFFFu);

    d.count = 4;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_getIndexOfName(&d, "zeta"), 0xFFFFFFFFu); }),
              idxErr("3 YAX_name null"));
    d.count = 0;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_getIndexOfName(&d, "beta"), 0xFFFFFFFFu); }), "");

    EXPECT_EQ(tu::capture([&] { _getIndexOfName(&d, nullptr); }), idxErr("name null"));
    EXPECT_EQ(tu::capture([&] { _getIndexOfName(nullptr, "x"); }), idxErr("YAXdata null"));
    d.type = 0;
    EXPECT_EQ(tu::capture([&] { _getIndexOfName(&d, "x"); }), idxErr("type null"));
    d.type = 1;
    d.YAX_name_list = nullptr;
    EXPECT_EQ(tu::capture([&] { _getIndexOfName(&d, "x"); }), idxErr("YAX_name_list null"));
}
