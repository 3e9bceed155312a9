// Trailer writers: field bytes in both flavours, the block's leading fields,
// headers from a YaxInfo (count word two higher), the fast add's header, and
// the "Invalid_Data" filler pieces.
#include <gtest/gtest.h>

#include <functional>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Builder;
using tb::Bytes;
using tb::operator+;

namespace {

constexpr uint32_t kFiller = 0x7FFEu << 16;
const std::vector<tb::Row> kThree = {{1u << 16, 300, 100}, {0x28000, 200, 150}, {3u << 16, 50, 50}};

// Bytes a writer leaves in a fresh file, or in a fresh buffer stream of `capacity`.
Bytes inFile(const std::function<void(FILE *)> &fn, const char *mode = "w+b") {
    tu::TempDir dir;
    tu::writeFile(dir.path("w.bin"), {});
    FILE *fp = _qfopen(dir.path("w.bin").c_str(), mode);
    fn(fp), _qfclose(fp);
    return tu::readFile(dir.path("w.bin"));
}
Bytes inBuf(uint32_t capacity, const std::function<void(YAXBUFFER *)> &fn) {
    YAXBUFFER *h = _qbopen(capacity);
    fn(h);
    Bytes out(h->buffer, h->buffer + h->write_size);
    return _qbclose(h), out;
}

// A YaxInfo assembled by hand: rows as given, no stream yet.
struct HandInfo {
    YaxInfo info{};
    std::vector<YaxEntry> rows;
    std::vector<YaxEntry *> ptrs;
    explicit HandInfo(const std::vector<tb::Row> &t) : rows(t.size()) {
        for (size_t i = 0; i < t.size(); ++i)
            rows[i].meta_type = t[i].meta_type, rows[i].offset = t[i].offset, rows[i].length = t[i].length;
        for (YaxEntry &row : rows) ptrs.push_back(&row);
        info.meta_count = uint32_t(rows.size()), info.meta_data = ptrs.empty() ? nullptr : ptrs.data();
    }
};

}  // namespace

// Both flavours write the same bytes; the row writer answers 1 whatever
// happens to its words, the others the primitive's result.
TEST(FieldWriters, BothFlavoursWriteTheSameBytes) {
    YaxEntry row{};
    row.meta_type = 0x00058000, row.offset = 0x01020304, row.length = 77;
    std::vector<int> results;
    const Bytes want = Builder().str("yaxd").u32be(0x0A0B0C0D).str("YAXH").u32(105).u32(7)
                           .u32(0x00058000).u32(0x01020304).u32(77).u32(48).str("YAXT").done();
    EXPECT_EQ(inFile([&](FILE *fp) {
                  results = {_writeYAX_MP4S(fp), _writeYAX_TOTALSIZE(fp, 0x0A0B0C0D), _writeYAX_QTSS(fp),
                             _writeYAX_QVER(fp), _writeYAX_QCnt(fp, 7), _writeYAX_QDR(fp, &row),
                             _writeYAX_QTHO(fp, 3), _writeYAX_QTS(fp)};
              }), want);
    EXPECT_EQ(results, (std::vector<int>{4, 4, 4, 4, 4, 1, 4, 4}));
    EXPECT_EQ(inBuf(64, [&](auto *h) {
                  _writeYAX_MP4S_Buffer(h), _writeYAX_TOTALSIZE_Buffer(h, 0x0A0B0C0D);
                  _writeYAX_QTSS_Buffer(h), _writeYAX_QVER_Buffer(h), _writeYAX_QCnt_Buffer(h, 7);
                  _writeYAX_QDR_Buffer(h, &row), _writeYAX_QTHO_Buffer(h, 3), _writeYAX_QTS_Buffer(h);
              }), want);
    // a read-only stream, no stream; a buffer too small for a word
    inFile([&](FILE *f) {
        results = {_writeYAX_QVER(f), _writeYAX_QTHO(f, 1), _writeYAX_QDR(f, &row), _writeYAX_QTSS(nullptr)};
    }, "rb");
    EXPECT_EQ(results, (std::vector<int>{-1, -1, 1, -1}));
    EXPECT_EQ(inBuf(2, [&](auto *h) { results = {_writeYAX_QTS_Buffer(h), _writeYAX_QDR_Buffer(h, &row)}; }),
              Bytes{});
    EXPECT_EQ(results, (std::vector<int>{0, 1}));
}

TEST(BlockWriters, LeadingFieldsWholeBlocksAndFailures) {
    const Bytes with = tb::block(tb::Entry{9, "key", "", "SUB!"});
    const Bytes plain = Builder().u32(2u << 16).u32(2).str("ab").done();
    EXPECT_EQ(inFile([](FILE *fp) { EXPECT_EQ(_writeDataTagInfo(fp, 9, 1, "key", 3, "SUB!", 4), 1); }), with);
    const auto tagged = [](auto *h) { EXPECT_EQ(_writeDataTagInfoBuffer(h, 9, 1, "key", 3, "SUB!", 4), 1); };
    EXPECT_EQ(inBuf(64, tagged), with);
    // sub-information of length 0 writes nothing; its bytes follow the name whatever the flag says
    EXPECT_EQ(inFile([](FILE *fp) { _writeDataTagInfo(fp, 2, 0, "ab", 2, "x", 0); }), plain);
    EXPECT_EQ(inBuf(64, [](auto *h) { _writeDataTagInfoBuffer(h, 2, 0, "ab", 2, nullptr, 0); }), plain);
    EXPECT_EQ(inFile([](FILE *fp) { _writeDataTagInfo(fp, 2, 0, "ab", 2, "zz", 2); }),
              plain + tb::bytes("zz"));
    // a read-only stream, a buffer with room for the two words only, a missing name: one line, result 0
    const std::string line = tu::errLine("YAXInternal::_writeDataTagInfo", "File Write Error");
    int r = -5;
    const auto fails = [&](const std::function<void()> &call) {
        EXPECT_EQ(tu::capture(call), line);
        EXPECT_EQ(r, 0);
    };
    fails([&] { inFile([&](FILE *ro) { r = _writeDataTagInfo(ro, 1, 0, "n", 1, nullptr, 0); }, "rb"); });
    fails([&] { inBuf(9, [&](auto *h) { r = _writeDataTagInfoBuffer(h, 1, 0, "name", 4, nullptr, 0); }); });
    fails([&] { inBuf(64, [&](auto *h) { r = _writeDataTagInfoBuffer(h, 1, 0, nullptr, 4, nullptr, 0); }); });
    // a whole block answers the payload's length; the row words answer 1 whatever happens to them
    EXPECT_EQ(inFile([&](FILE *fp) { r = writeYAXData(fp, 4, 1, "nm", 2, "s", 1, "payload", 7); }),
              tb::block(tb::Entry{4, "nm", "payload", "s"}));
    EXPECT_EQ(r, 7);
    EXPECT_EQ(inBuf(8, [&](auto *h) { EXPECT_EQ(_writeDataHeaderInfo_Buffer(h, 1, 2, 3), 1); }),
              Builder().u32(1).u32(2).done());
}

// Rows and header size for three rows, but a count word of five.
TEST(HeaderFromInfo, CountWordIsTwoHigherThanTheRows) {
    HandInfo hi(kThree);
    const Bytes want = tb::header(kThree, 105, 5);
    std::vector<int> r;
    EXPECT_EQ(inFile([&](FILE *fp) { hi.info.fp = fp, r.push_back(_writeYAXHeader(&hi.info)); }), want);
    hi.info.fp = nullptr;
    const auto toBuf = [&](auto *h) { hi.info.handle = h, r.push_back(_writeYAXHeaderBuffer(&hi.info)); };
    EXPECT_EQ(inBuf(128, toBuf), want);
    // the tail does not fit: 0, and the buffer keeps what went before it
    EXPECT_EQ(inBuf(uint32_t(want.size() - 1), toBuf), Bytes(want.begin(), want.end() - 4));
    HandInfo none({});
    r.push_back(_writeYAXHeader(&none.info));  // no stream
    EXPECT_EQ(r, (std::vector<int>{4, 4, 0, 0}));
}

// The fast add's header: the filler row (with the new entry's sub-information
// flag) and the new row replace row 0; without replace_first the new row
// goes last; `count` is written as given.
TEST(FastAddHeader, RowsForEachPlacement) {
    HandInfo one({{kFiller, 200, 200}}), three(kThree), empty({});
    auto header = [](HandInfo &h, auto fn) { return inFile([&](FILE *fp) { h.info.fp = fp, fn(); }); };
    EXPECT_EQ(header(one, [&] { EXPECT_EQ(writeYAXHeader(&one.info, 2, 1, 200, 80, 120, 120, 6, 1), 4); }),
              tb::header({{kFiller | 0x8000, 200, 80}, {(6u << 16) | 0x8000, 120, 120}}));
    EXPECT_EQ(header(three, [&] { writeYAXHeader(&three.info, 4, 1, 300, 30, 270, 70, 8, 0); }),
              tb::header({{kFiller, 300, 30}, {8u << 16, 270, 70}, kThree[1], kThree[2]}));
    EXPECT_EQ(header(three, [&] { writeYAXHeader(&three.info, 77, 0, 999, 999, 40, 40, 8, 0); }),
              tb::header({kThree[0], kThree[1], kThree[2], {8u << 16, 40, 40}}, 105, 77));
    EXPECT_EQ(header(empty, [&] { writeDummyYAXHeader(&empty.info, 1, 0); }), tb::header({}, 105, 0));
}

// Filler blocks of exact size (the head alone below its own size, more zeros
// than one scratch piece), and one-filler trailers whose row has the flag
// while the block does not.
TEST(Filler, BlocksAndOneEntryTrailersOfExactSize) {
    for (uint32_t s : {20u, 77u, 200003u, 3u})
        EXPECT_EQ(inFile([&](FILE *fp) { writeDummyYAXData(fp, s); }), tb::fillerBlock(s < 20 ? 20 : s)) << s;
    EXPECT_EQ(inFile([](FILE *fp) { writeDummyYAXDataHeader(fp, 52, 1); }),
              tb::fillerBlock(20) + tb::header({{kFiller | 0x8000, 20, 20}}));
    EXPECT_EQ(inFile([](FILE *fp) { writeDummyYAXDataHeader(fp, 100000, 0); }),
              tb::fillerBlock(99968) + tb::header({{kFiller, 99968, 99968}}));
}
