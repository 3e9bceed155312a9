// Parsing and listing a trailer: record fields, the rows, the data start with
// and without an MP4 box or a legacy audio block, and every failure's log line,
// on the file and the buffer flavour.
#include <gtest/gtest.h>

#include <cstring>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

const std::vector<Entry> kTwo = {
    {7, "alpha", "payload-one", ""},
    {0, "beta", "xy", "SUBINFO"},
};

YAXBUFFER *toBuffer(const Bytes &b) {
    YAXBUFFER *h = _qbopen(static_cast<uint32_t>(b.size()));
    if (h != nullptr && !b.empty()) _qbwrite(b.data(), static_cast<uint32_t>(b.size()), h);
    return h;
}

// Runs parse + list on both flavours and hands each listed record to `check`.
// `sig` is the parse's signature argument.
template <typename Check>
void onBoth(const Bytes &file, int sig, Check check) {
    tu::TempDir dir;
    std::string p = dir.path("f.jpg");
    tu::writeFile(p, file);
    YaxInfo *fi = ParseYAX(p.c_str(), sig);
    ASSERT_NE(fi, nullptr);
    ASSERT_EQ(getYAXList(fi), 1);
    check(fi);
    DestroyYAX(fi);

    YAXBUFFER *h = toBuffer(file);
    YaxInfo *bi = ParseYAX_Buffer(h, sig);
    ASSERT_NE(bi, nullptr);
    EXPECT_EQ(bi->handle, h);
    EXPECT_EQ(bi->fp, nullptr);
    ASSERT_EQ(getYAXListBuffer(bi), 1);
    check(bi);
    DestroyYAX_Buffer(bi);
    _qbclose(h);
}

// Parse (and list when parse succeeds) on both flavours; returns the two
// captured outputs, which must match.
std::string parseLog(const Bytes &file, int sig, bool expect_record, bool list = false,
                     int expect_list = 0) {
    tu::TempDir dir;
    std::string p = dir.path("f.jpg");
    tu::writeFile(p, file);
    std::string out_file = tu::capture([&] {
        YaxInfo *i = ParseYAX(p.c_str(), sig);
        EXPECT_EQ(i != nullptr, expect_record);
        if (i && list) {
            EXPECT_EQ(getYAXList(i), expect_list);
        }
        DestroyYAX(i);
    });
    YAXBUFFER *h = toBuffer(file);
    std::string out_buf = tu::capture([&] {
        YaxInfo *i = ParseYAX_Buffer(h, sig);
        EXPECT_EQ(i != nullptr, expect_record);
        if (i && list) {
            EXPECT_EQ(getYAXListBuffer(i), expect_list);
        }
        DestroyYAX_Buffer(i);
    });
    _qbclose(h);
    EXPECT_EQ(out_file, out_buf);
    return out_file;
}

std::string parseErr(const std::string &m) { return tu::errLine("YAX::ParseYAX_FP", m); }
std::string listErr(const std::string &m) { return tu::errLine("YAX::ParseYAXList", m); }

}  // namespace

TEST(Parse, RecordAndRowsOfAWellFormedTrailer) {
    const Bytes host = tb::fakeImage(300);
    const auto rows = tb::rowsFor(kTwo);
    const Bytes file = host + tb::trailer(kTwo);
    onBoth(file, SIGNATURE_YAX, [&](YaxInfo *i) {
        EXPECT_EQ(i->valid, 1u);
        EXPECT_EQ(i->file_size, static_cast<int64_t>(file.size()));
        EXPECT_EQ(i->header_offset, 12u + 24u + 8u);
        EXPECT_EQ(i->version, 105u);
        EXPECT_EQ(i->meta_count, 2u);
        EXPECT_EQ(i->cur_index, 0u);
        EXPECT_EQ(i->data_start_position, 300);
        for (uint32_t k = 0; k < 2; ++k) {
            ASSERT_NE(i->meta_data[k], nullptr);
            EXPECT_EQ(i->meta_data[k]->meta_type, rows[k].meta_type);
            EXPECT_EQ(i->meta_data[k]->offset, rows[k].offset);
            EXPECT_EQ(i->meta_data[k]->length, rows[k].length);
            EXPECT_EQ(i->meta_data[k]->name, nullptr);  // names come later
            EXPECT_EQ(i->meta_data[k]->sub_info_length, 0u);
        }
        EXPECT_EQ(i->meta_data[0]->has_sub_info, 0u);
        EXPECT_EQ(i->meta_data[1]->has_sub_info, 1u);
    });
}

TEST(Parse, LegacyAudioTailAndMp4BoxMoveTheTrailerPositions) {
    const Bytes host = tb::fakeImage(200);
    const Bytes vono = tb::vonoBlock({{10, 90}});  // one sound: length word 20
    ASSERT_EQ(vono.size(), 30u);
    // The audio tail steps the tail distance to L + 18 = 38.
    onBoth(host + tb::trailer(kTwo) + vono, SIGNATURE_VONO, [&](YaxInfo *i) {
        EXPECT_EQ(i->header_offset, 36u + 38u);
        EXPECT_EQ(i->data_start_position, 200);
    });
    // Code 4 steps over the audio tail the same way.
    onBoth(host + tb::trailer(kTwo) + vono, SIGNATURE_VONO_YAX,
           [&](YaxInfo *i) { EXPECT_EQ(i->header_offset, 74u); });
    // A box head in front of block 0: the data start is the box size word.
    const Bytes trailer = tb::trailer(kTwo);
    Bytes box = tb::Builder().u32be(static_cast<uint32_t>(trailer.size() + 8)).str("yaxd").done();
    onBoth(host + box + trailer, SIGNATURE_YAX, [&](YaxInfo *i) {
        EXPECT_EQ(i->data_start_position, 200);
        EXPECT_EQ(i->fp ? checkSignatureMP4Tag(i) : checkSignatureMP4TagBuffer(i), 1);
    });
    // The same trailer without the box starts 8 bytes later.
    onBoth(host + Bytes(8, 0) + trailer, SIGNATURE_YAX,
           [&](YaxInfo *i) { EXPECT_EQ(i->data_start_position, 208); });
}

TEST(Parse, TailAndHeaderFailuresAndTheirLines) {
    const Bytes host = tb::fakeImage(100);
    Bytes good = host + tb::trailer(kTwo);

    Bytes bad_tail = good;
    bad_tail[bad_tail.size() - 1] = 'X';
    EXPECT_EQ(parseLog(bad_tail, SIGNATURE_YAX, false), "");  // silent

    // header size 12: a header without rows
    Bytes empty_hdr = host + tb::Builder().str("YAXH").u32(105).u32(0).u32(12).str("YAXT").done();
    EXPECT_EQ(parseLog(empty_hdr, SIGNATURE_YAX, false), parseErr("file has no suond OFFS"));

    // header size beyond the file
    Bytes huge = host + tb::Builder().u32(0x7FFFFFFF).str("YAXT").done();
    EXPECT_EQ(parseLog(huge, SIGNATURE_YAX, false), parseErr("file has no suond OFFS"));

    Bytes bad_head = good;
    bad_head[good.size() - 44] = 'Q';  // "YAXH" -> "QAXH"
    EXPECT_EQ(parseLog(bad_head, SIGNATURE_YAX, false), parseErr("file has no suond FSIG"));

    // Version 205 is still read; 206 is too new.
    Bytes v205 = host + tb::trailer(kTwo, 205);
    EXPECT_EQ(parseLog(v205, SIGNATURE_YAX, true), "");
    Bytes v206 = host + tb::trailer(kTwo, 206);
    EXPECT_EQ(parseLog(v206, SIGNATURE_YAX, false),
              parseErr("the source file has YAX data but current YAX version is too old to "
                       "parse the source file"));
}

TEST(Parse, SeekFailuresNameTheirPosition) {
    tu::TempDir dir;
    std::string p = dir.path("tiny");
    tu::writeFile(p, tb::bytes("YAXT"));
    // 10 bytes before the end of a 4-byte file: the refused seek reports -1.
    std::string out = tu::capture([&] { EXPECT_EQ(ParseYAX(p.c_str(), SIGNATURE_VONO), nullptr); });
    EXPECT_EQ(out, tu::errLine("_qlseek", "errno : 22") + parseErr("File Search Error -1"));

    YAXBUFFER *h = toBuffer(tb::bytes("YAXT"));
    out = tu::capture([&] { EXPECT_EQ(ParseYAX_Buffer(h, SIGNATURE_VONO_YAX), nullptr); });
    EXPECT_EQ(out, parseErr("File Search Error -1"));
    // A plain 8-byte tail at the very start: position 0 counts as a failure.
    _qbclose(h);
    h = toBuffer(tb::Builder().u32(20).str("YAXT").done());
    out = tu::capture([&] { EXPECT_EQ(ParseYAX_Buffer(h, SIGNATURE_YAX), nullptr); });
    EXPECT_EQ(out, parseErr("File Search Error"));
    _qbclose(h);

    // An empty buffer has no end to seek from.
    h = _qbopen(16);
    out = tu::capture([&] { EXPECT_EQ(ParseYAX_Buffer(h, SIGNATURE_YAX), nullptr); });
    EXPECT_EQ(out, parseErr("File Search Error"));
    _qbclose(h);

    out = tu::capture([&] { EXPECT_EQ(ParseYAX(dir.path("missing").c_str(), 3), nullptr); });
    EXPECT_EQ(out, tu::errLine("YAX::ParseYAX", "File Open Error"));
    EXPECT_EQ(ParseYAX_FP(nullptr, 3), nullptr);
    EXPECT_EQ(ParseYAX_Buffer(nullptr, 3), nullptr);
}

TEST(List, CountZeroAndTheTwiceCountedRowBound) {
    const Bytes host = tb::fakeImage(100);
    // A well-formed header claiming zero rows (header size 24, one row's room).
    Bytes zero = host + tb::header({{1u << 16, 20, 20}}, 105, 0);
    EXPECT_EQ(parseLog(zero, SIGNATURE_YAX, true, true, 0), listErr("there is no data"));

    // One 20-byte block: header_offset 32, so the file must hold
    // 32 + 12 + 20 = 64 bytes; with the 52 bytes of the trailer itself the
    // host needs 12 bytes although the rows fit in far less.
    const std::vector<Entry> one = {{1, "k", "0123456789a", ""}};
    ASSERT_EQ(tb::trailer(one).size(), 52u);
    EXPECT_EQ(parseLog(tb::fakeImage(11) + tb::trailer(one), SIGNATURE_YAX, true, true, 0),
              listErr("header is bigger then file -> that's not true!!"));
    EXPECT_EQ(parseLog(tb::fakeImage(12) + tb::trailer(one), SIGNATURE_YAX, true, true, 1), "");

    // A count of 0xFFFFFFFF is refused by the same bound, before any allocation.
    Bytes allones = host + tb::header({{1u << 16, 20, 20}}, 105, 0xFFFFFFFF);
    EXPECT_EQ(parseLog(allones, SIGNATURE_YAX, true, true, 0),
              listErr("header is bigger then file -> that's not true!!"));
}

TEST(List, RowWithOffsetZeroStopsTheFileListButNotTheBufferList) {
    const Bytes host = tb::fakeImage(100);
    auto rows = tb::rowsFor(kTwo);
    rows[1].offset = 0;
    Bytes file = host + tb::block(kTwo[0]) + tb::block(kTwo[1]) + tb::header(rows);

    tu::TempDir dir;
    std::string p = dir.path("f.jpg");
    tu::writeFile(p, file);
    YaxInfo *i = ParseYAX(p.c_str(), SIGNATURE_YAX);
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXList(i), 0); }),
              listErr("YAX_info->meta_data[i] is NULL!!"));
    EXPECT_EQ(i->meta_data, nullptr);  // released, and safe to destroy
    EXPECT_EQ(DestroyYAX(i), 1);

    // The buffer list has never looked at a row's result: the row stays empty.
    YAXBUFFER *h = toBuffer(file);
    i = ParseYAX_Buffer(h, SIGNATURE_YAX);
    ASSERT_NE(i, nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXListBuffer(i), 1); }), "");
    EXPECT_EQ(i->meta_count, 2u);
    EXPECT_NE(i->meta_data[0], nullptr);
    EXPECT_EQ(i->meta_data[1], nullptr);
    EXPECT_EQ(i->data_start_position, 100);
    DestroyYAX_Buffer(i);
    _qbclose(h);
}

TEST(List, RefusesUnusableRecordsAndCanBeRepeated) {
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(getYAXList(nullptr), 0); }), listErr("Wrong YAX_info"));
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(getYAXListBuffer(nullptr), 0); }),
              listErr("Wrong YAX_info"));
    YaxInfo rec{};
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXList(&rec), 0); }),
              listErr("YAX validation failed"));
    rec.valid = 1;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXList(&rec), 0); }), listErr("File doesn't exist"));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXListBuffer(&rec), 0); }),
              listErr("File doesn't exist"));

    // Listing again from the count field replaces the table.
    tu::TempDir dir;
    std::string p = dir.path("f.jpg");
    Bytes file = tb::fakeImage(100) + tb::trailer(kTwo);
    tu::writeFile(p, file);
    YaxInfo *i = ParseYAX(p.c_str(), SIGNATURE_YAX);
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(getYAXList(i), 1);
    ASSERT_EQ(_qlseek64(i->fp, static_cast<int64_t>(file.size()) - 44 + 8, SEEK_SET),
              static_cast<int64_t>(file.size()) - 36);
    ASSERT_EQ(getYAXList(i), 1);
    EXPECT_EQ(i->meta_count, 2u);
    EXPECT_EQ(i->meta_data[1]->offset, tb::rowsFor(kTwo)[1].offset);
    EXPECT_EQ(DestroyYAX(i), 1);
}

TEST(Release, NamesOutliveTheTableAndStreamsFollowTheDestroyFlavour) {
    tu::TempDir dir;
    std::string p = dir.path("f.jpg");
    tu::writeFile(p, tb::fakeImage(100) + tb::trailer(kTwo));
    FILE *fp = _qfopen(p.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    YaxInfo *i = ParseYAX_FP(fp, SIGNATURE_YAX);
    ASSERT_NE(i, nullptr);
    ASSERT_EQ(getYAXList(i), 1);

    // Releasing rows leaves a name alone: whoever took it over frees it.
    char *name = static_cast<char *>(_qmalloc(6));
    std::memcpy(name, "alpha", 6);
    i->meta_data[0]->name = name;
    _destroyYAXDataList(i);
    EXPECT_EQ(i->meta_data, nullptr);
    EXPECT_EQ(i->meta_count, 2u);
    EXPECT_STREQ(name, "alpha");
    _qfree(name);

    EXPECT_EQ(DestroyYAX_FP(i), 1);
    // The caller's stream is still open and usable.
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_SET), 0);
    unsigned char two[2] = {};
    EXPECT_EQ(_qfread(two, 2, fp), 2);
    EXPECT_EQ(two[0], 0xFF);
    EXPECT_EQ(_qfclose(fp), 0);

    // A buffer stream stays its caller's whichever flavour releases the parse.
    const Bytes file = tb::fakeImage(100) + tb::trailer(kTwo);
    YAXBUFFER *h = toBuffer(file);
    for (int (*release)(YaxInfo *) : {DestroyYAX, DestroyYAX_FP, DestroyYAX_Buffer}) {
        YaxInfo *b = ParseYAX_Buffer(h, SIGNATURE_YAX);
        ASSERT_NE(b, nullptr);
        ASSERT_EQ(getYAXListBuffer(b), 1);
        EXPECT_EQ(release(b), 1);
        EXPECT_EQ(qbgetWriteSize(h), static_cast<int32_t>(file.size()));
        EXPECT_EQ(getSignatureBuffer(h), static_cast<unsigned>(SIGNATURE_YAX));
    }
    _qbclose(h);

    EXPECT_EQ(DestroyYAX(nullptr), 0);
    EXPECT_EQ(DestroyYAX_FP(nullptr), 0);
    EXPECT_EQ(DestroyYAX_Buffer(nullptr), 0);
    _destroyYAXDataList(nullptr);
    _destroyYAXData(nullptr);
}
