// Trailer writers: field bytes in both flavours, the block's leading fields,
// headers from a YaxInfo (count word two higher), the fast add's header, and
// the "Invalid_Data" filler pieces.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Builder;
using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

constexpr uint32_t kFillerMeta = 0x7FFEu << 16;

// Bytes a file writer leaves in a fresh file.
Bytes fileBytes(const std::function<void(FILE *)> &fn) {
    tu::TempDir dir;
    std::string path = dir.path("w.bin");
    FILE *fp = _qfopen(path.c_str(), "w+b");
    EXPECT_NE(fp, nullptr);
    fn(fp);
    _qfclose(fp);
    return tu::readFile(path);
}

// Bytes a buffer writer leaves in a fresh buffer stream of `capacity`.
Bytes bufferBytes(uint32_t capacity, const std::function<void(YAXBUFFER *)> &fn) {
    YAXBUFFER *h = _qbopen(capacity);
    EXPECT_NE(h, nullptr);
    fn(h);
    Bytes out(h->buffer, h->buffer + h->write_size);
    _qbclose(h);
    return out;
}

// A YaxInfo assembled by hand: rows as given, no stream yet.
struct HandInfo {
    YaxInfo info{};
    std::vector<YaxEntry> rows;
    std::vector<YaxEntry *> ptrs;
    explicit HandInfo(const std::vector<tb::Row> &table) {
        for (const tb::Row &r : table) {
            YaxEntry e{};
            e.meta_type = r.meta_type;
            e.offset = r.offset;
            e.length = r.length;
            rows.push_back(e);
        }
        for (YaxEntry &e : rows) ptrs.push_back(&e);
        info.meta_count = static_cast<uint32_t>(rows.size());
        info.meta_data = ptrs.empty() ? nullptr : ptrs.data();
    }
};

const std::vector<tb::Row> kThreeRows = {{1u << 16, 300, 100}, {0x28000, 200, 150}, {3u << 16, 50, 50}};

}  // namespace

TEST(FieldWriters, BothFlavoursWriteTheSameBytes) {
    YaxEntry row{};
    row.meta_type = 0x00058000;
    row.offset = 0x01020304;
    row.length = 77;
    std::vector<int> results;
    Bytes from_file = fileBytes([&](FILE *fp) {
        results = {_writeYAX_MP4S(fp),    _writeYAX_TOTALSIZE(fp, 0x0A0B0C0D),
                   _writeYAX_QTSS(fp),    _writeYAX_QVER(fp),
                   _writeYAX_QCnt(fp, 7), _writeYAX_QDR(fp, &row),
                   _writeYAX_QTHO(fp, 3), _writeYAX_QTS(fp)};
    });
    Bytes from_buffer = bufferBytes(64, [&](YAXBUFFER *h) {
        _writeYAX_MP4S_Buffer(h);
        _writeYAX_TOTALSIZE_Buffer(h, 0x0A0B0C0D);
        _writeYAX_QTSS_Buffer(h);
        _writeYAX_QVER_Buffer(h);
        _writeYAX_QCnt_Buffer(h, 7);
        EXPECT_EQ(_writeYAX_QDR_Buffer(h, &row), 1);
        _writeYAX_QTHO_Buffer(h, 3);
        _writeYAX_QTS_Buffer(h);
    });
    Bytes want = Builder()
                     .str("yaxd")
                     .u32be(0x0A0B0C0D)
                     .str("YAXH")
                     .u32(105)
                     .u32(7)
                     .u32(0x00058000)
                     .u32(0x01020304)
                     .u32(77)
                     .u32(48)
                     .str("YAXT")
                     .done();
    EXPECT_EQ(from_file, want);
    EXPECT_EQ(from_buffer, want);
    EXPECT_EQ(results, (std::vector<int>{4, 4, 4, 4, 4, 1, 4, 4}));
    EXPECT_EQ(_calculateYAX_QTHO(0), 12u);
    EXPECT_EQ(_calculateYAX_QTHO(5), 72u);
}

TEST(FieldWriters, FailuresReportThePrimitiveButRowsAlwaysOne) {
    tu::TempDir dir;
    std::string path = dir.path("ro.bin");
    tu::writeFile(path, Bytes{1, 2, 3});
    FILE *ro = _qfopen(path.c_str(), "rb");
    ASSERT_NE(ro, nullptr);
    YaxEntry row{};
    EXPECT_EQ(_writeYAX_QVER(ro), -1);
    EXPECT_EQ(_writeYAX_QTHO(ro, 1), -1);
    EXPECT_EQ(_writeYAX_QDR(ro, &row), 1);
    EXPECT_EQ(_writeYAX_QTSS(nullptr), -1);
    _qfclose(ro);

    YAXBUFFER *full = _qbopen(2);
    EXPECT_EQ(_writeYAX_QTS_Buffer(full), 0);
    EXPECT_EQ(_writeYAX_QDR_Buffer(full, &row), 1);
    EXPECT_EQ(full->write_size, 0);
    _qbclose(full);
}

TEST(TagInfo, LeadingFieldsWithAndWithoutSubInfo) {
    tb::Entry with{9, "key", "", "SUB!"};
    Bytes want_with = tb::block(with);  // no payload: leading fields only
    Bytes got = fileBytes([&](FILE *fp) {
        EXPECT_EQ(_writeDataTagInfo(fp, 9, 1, "key", 3, "SUB!", 4), 1);
    });
    EXPECT_EQ(got, want_with);
    Bytes got_buf = bufferBytes(64, [&](YAXBUFFER *h) {
        EXPECT_EQ(_writeDataTagInfoBuffer(h, 9, 1, "key", 3, "SUB!", 4), 1);
    });
    EXPECT_EQ(got_buf, want_with);

    // a sub-information pointer with length 0: an 8-byte prefix and the name
    Bytes empty_sub = fileBytes([&](FILE *fp) {
        EXPECT_EQ(_writeDataTagInfo(fp, 2, 0, "ab", 2, "x", 0), 1);
    });
    EXPECT_EQ(empty_sub, Builder().u32(2u << 16).u32(2).str("ab").done());
    Bytes empty_sub_buf = bufferBytes(64, [&](YAXBUFFER *h) {
        EXPECT_EQ(_writeDataTagInfoBuffer(h, 2, 0, "ab", 2, nullptr, 0), 1);
    });
    EXPECT_EQ(empty_sub_buf, empty_sub);

    // the sub-information bytes follow the name whatever the flag says
    Bytes flag_clear = fileBytes([&](FILE *fp) { _writeDataTagInfo(fp, 2, 0, "ab", 2, "zz", 2); });
    EXPECT_EQ(flag_clear, Builder().u32(2u << 16).u32(2).str("abzz").done());
}

TEST(TagInfo, FailureLogsTheFileTagInBothFlavours) {
    const std::string line = tu::errLine("YAXInternal::_writeDataTagInfo", "File Write Error");
    tu::TempDir dir;
    std::string path = dir.path("ro.bin");
    tu::writeFile(path, Bytes{7});
    FILE *ro = _qfopen(path.c_str(), "rb");
    int r = -5;
    EXPECT_EQ(tu::capture([&] { r = _writeDataTagInfo(ro, 1, 0, "n", 1, nullptr, 0); }), line);
    EXPECT_EQ(r, 0);
    _qfclose(ro);

    // room for the two words but not the name: the buffer twin says the same
    YAXBUFFER *h = _qbopen(9);
    EXPECT_EQ(tu::capture([&] { r = _writeDataTagInfoBuffer(h, 1, 0, "name", 4, nullptr, 0); }),
              line);
    EXPECT_EQ(r, 0);
    _qbclose(h);

    // a missing name for a non-empty name length is a failed write, not a crash
    h = _qbopen(64);
    EXPECT_EQ(tu::capture([&] { r = _writeDataTagInfoBuffer(h, 1, 0, nullptr, 4, nullptr, 0); }),
              line);
    EXPECT_EQ(r, 0);
    _qbclose(h);
}

TEST(BlockWriters, WholeBlockAndThreeWords) {
    int r = 0;
    Bytes got = fileBytes([&](FILE *fp) { r = writeYAXData(fp, 4, 1, "nm", 2, "s", 1, "payload", 7); });
    EXPECT_EQ(got, tb::block(Entry{4, "nm", "payload", "s"}));
    EXPECT_EQ(r, 7);
    // three words whatever happens to them
    Bytes words = bufferBytes(8, [&](YAXBUFFER *h) { EXPECT_EQ(_writeDataHeaderInfo_Buffer(h, 1, 2, 3), 1); });
    EXPECT_EQ(words, Builder().u32(1).u32(2).done());
}

TEST(HeaderFromInfo, CountWordIsTwoHigherThanTheRows) {
    HandInfo hand(kThreeRows);
    // rows and header size for three rows, count word 5
    Bytes want = tb::header(kThreeRows, 105, 5);
    int r = 0;
    Bytes got = fileBytes([&](FILE *fp) {
        hand.info.fp = fp;
        r = _writeYAXHeader(&hand.info);
    });
    EXPECT_EQ(r, 4);
    EXPECT_EQ(got, want);
    ASSERT_EQ(want.size(), 12u + 36u + 8u);
    EXPECT_EQ(want[want.size() - 8], 48);

    Bytes got_buf = bufferBytes(128, [&](YAXBUFFER *h) {
        hand.info.fp = nullptr;
        hand.info.handle = h;
        r = _writeYAXHeaderBuffer(&hand.info);
    });
    EXPECT_EQ(r, 4);
    EXPECT_EQ(got_buf, want);

    // the tail does not fit: 0, and the buffer keeps what went before it
    Bytes cut = bufferBytes(static_cast<uint32_t>(want.size() - 1), [&](YAXBUFFER *h) {
        hand.info.handle = h;
        r = _writeYAXHeaderBuffer(&hand.info);
    });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(cut, Bytes(want.begin(), want.end() - 4));

    EXPECT_EQ(_writeYAXHeader(nullptr), 0);
    HandInfo none({});
    EXPECT_EQ(_writeYAXHeader(&none.info), 0);  // no stream
}

TEST(FastAddHeader, ReplaceFirstPutsFillerAndNewRowsFirst) {
    // one old row: it is skipped, the filler row and the new row replace it;
    // the filler row carries the new entry's sub-information flag
    HandInfo one({{kFillerMeta, 200, 200}});
    Bytes got = fileBytes([&](FILE *fp) {
        one.info.fp = fp;
        EXPECT_EQ(writeYAXHeader(&one.info, 2, 1, 200, 80, 120, 120, 6, 1), 4);
    });
    std::vector<tb::Row> want_rows = {{kFillerMeta | 0x8000, 200, 80}, {(6u << 16) | 0x8000, 120, 120}};
    EXPECT_EQ(got, tb::header(want_rows));

    // several old rows: rows 1.. follow the two new ones
    HandInfo three(kThreeRows);
    got = fileBytes([&](FILE *fp) {
        three.info.fp = fp;
        writeYAXHeader(&three.info, 4, 1, 300, 30, 270, 70, 8, 0);
    });
    want_rows = {{kFillerMeta, 300, 30}, {8u << 16, 270, 70}, kThreeRows[1], kThreeRows[2]};
    EXPECT_EQ(got, tb::header(want_rows));

    // without replace_first the new row goes last; `count` is written as given
    got = fileBytes([&](FILE *fp) {
        three.info.fp = fp;
        writeYAXHeader(&three.info, 77, 0, 999, 999, 40, 40, 8, 0);
    });
    want_rows = kThreeRows;
    want_rows.push_back({8u << 16, 40, 40});
    EXPECT_EQ(got, tb::header(want_rows, 105, 77));
}

// (row 0 retyped in place is pinned by the fast add's exact-fit test)
TEST(FastAddHeader, DummyHeaderOfAnEmptyTable) {
    HandInfo empty({});
    Bytes got = fileBytes([&](FILE *fp) {
        empty.info.fp = fp;
        writeDummyYAXHeader(&empty.info, 1, 0);
    });
    EXPECT_EQ(got, tb::header({}, 105, 0));
}

TEST(Filler, BlocksAndOneEntryTrailersOfExactSize) {
    EXPECT_EQ(fileBytes([](FILE *fp) { writeDummyYAXData(fp, 20); }), tb::fillerBlock(20));
    EXPECT_EQ(fileBytes([](FILE *fp) { writeDummyYAXData(fp, 77); }), tb::fillerBlock(77));
    // more zeros than one scratch piece
    EXPECT_EQ(fileBytes([](FILE *fp) { writeDummyYAXData(fp, 200003); }), tb::fillerBlock(200003));
    // below the head's size: the head alone, nothing else
    EXPECT_EQ(fileBytes([](FILE *fp) { writeDummyYAXData(fp, 3); }), tb::fillerBlock(20));

    // a 20-byte block and 32 bytes of header and tail; the row has the flag,
    // the block does not
    Bytes got = fileBytes([](FILE *fp) { writeDummyYAXDataHeader(fp, 52, 1); });
    EXPECT_EQ(got, tb::fillerBlock(20) + tb::header({{kFillerMeta | 0x8000, 20, 20}}));
    got = fileBytes([](FILE *fp) { writeDummyYAXDataHeader(fp, 100000, 0); });
    ASSERT_EQ(got.size(), 100000u);
    EXPECT_EQ(got, tb::fillerBlock(99968) + tb::header({{kFillerMeta, 99968, 99968}}));
}

TEST(Generators, RecordsForOutsideCallers) {
    tu::TempDir dir;
    std::string path = dir.path("g.bin");
    tu::writeFile(path, Bytes(1234, 1));
    FILE *fp = _qfopen(path.c_str(), "rb");
    YaxInfo *info = _generateYAXHeader(fp);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->file_size, 1234);
    EXPECT_EQ(info->version, 105u);
    EXPECT_EQ(info->valid, 0u);
    _qfree(info);
    _qfclose(fp);

    const std::string payload(300, 'p');
    YaxEntry *e = _generateYAXData(payload.data(), 300, 3, 1);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(e->data), e->data_length), payload);
    EXPECT_EQ(e->meta_type, (3u << 16) | 0x8000);
    _qfree(e->data);
    _qfree(e);
    EXPECT_EQ(_generateYAXData(payload.data(), 0, 1, 0), nullptr);
}
