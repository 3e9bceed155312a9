// TonePhoto entries: name-list payloads, the Vono block behind the trailer,
// the sound + list adds, legacy conversion and the name-list readers. Whole
// files are compared with bytes built by tests/builder.hpp.
#include <cstring>
#include <functional>
#include <optional>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

using namespace at;
using Names = std::vector<std::string>;
using tu::errLine;

namespace {

const std::string kMeta = "TonePhoto_Meta_Info";
uint32_t sz(const std::string &s) { return static_cast<uint32_t>(s.size()); }
Entry sound(const std::string &name, const std::string &bytes) { return {256, name, bytes, ""}; }
Entry listEntry(const Bytes &p) { return {2048, kMeta, std::string(p.begin(), p.end()), ""}; }
const Bytes kHead = tb::Builder().str("VONO").u32(105).done();
const Bytes kTail = tb::Builder().u32(20).str("VONOBS").done();
struct Tone : ApiTest {};
Bytes contents(FILE *fp) {
    Bytes b(std::ftell(fp));
    std::rewind(fp);
    b.resize(std::fread(b.data(), 1, b.size(), fp));
    return std::fclose(fp), b;
}

}  // namespace

TEST(TonePayload, ListFromScratchAndTheVonoBlockWriters) {
    unsigned char out[64];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(makeSecondVonoHeader(out, "TonePhoto_000", 13, "rain", 4), 37u);
    EXPECT_EQ(Bytes(out, out + 38), tb::toneList({"TonePhoto_000", "rain"}) + Bytes{0xEE});

    // a record's count and first pair; the header size stays 20 whatever the
    // count, and a record without a table writes the empty block's zero pair
    FILE *fp = tmpfile();
    uint32_t table[4] = {100, 250, 300, 400};
    VonoInfo two{0, 0, 0, 0, 2, 0, 0, nullptr, nullptr, table}, none{};
    writeVonoDataHeader(fp, &two), writeVonoDataHeader(fp, &none), writeVonoDataHeader(fp, nullptr);
    EXPECT_EQ(contents(fp), kHead + tb::Builder().u32(2).u32(100).u32(250).done() + kTail + kHead +
                                      Bytes(12, 0) + kTail);

    // The buffer flavour hands its tail marker to the file writer: the
    // marker never lands and the block counts as not written.
    YAXBUFFER *buf = _qbopen(64);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(buf, 700, 900), 0); }),
              errLine("YAXSystemFile::_qfwrite", "write ret != write size_of_byte  ==> fail(-1 != 6)"));
    EXPECT_EQ(Bytes(qbgetBuffer(buf), qbgetBuffer(buf) + qbgetWriteSize(buf)),
              kHead + tb::Builder().u32(1).u32(700).u32(900).u32(20).done());
    _qbclose(buf);
    buf = _qbopen(10);  // too small for the words: fails before the marker, silently
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(buf, 1, 2), 0); }), "");
    _qbclose(buf);
}

TEST_F(Tone, AddRefusalsAndFailedWritesWithTheirLines) {
    const std::string first = "YAXEncoder::NewAddVonoDataInFirstTime", fp = first + "FP";
    const std::string add = "YAXEncoder::NewAddVonoData", tag = "YAXInternal::_writeDataTagInfo";
    const char *f = (put(host()), file.c_str());
    FILE *atStart = _qfopen(f, "r+b"), *readOnly = _qfopen(f, "rb");
    _qlseek64(readOnly, 0, SEEK_END);
    YaxInfo noFile{};
#define CALL(x) [&] { return x; }
    // one argument check per flavour: the stream flavour's messages keep their
    // trailing blank, the add says NULL in upper case
    const std::pair<std::function<int()>, std::string> cases[] = {
        {CALL(NewAddVonoDataInFirstTime(f, 1, 1, "a", 1, nullptr, 5, "m", 1)),
         errLine(first, "vono_data null")},
        {CALL(NewAddVonoDataInFirstTime("/none/p.jpg", 1, 1, "a", 1, "d", 1, "m", 1)),
         errLine(first, "file open error")},
        {CALL(NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, "d", 0, "m", 1)),
         errLine(fp, "vono_data == VELTA_YAX_NULL || vono_data_size <= 0 ")},
        {CALL(NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, "d", 1, "m", 1)),
         errLine(fp, "fp == VELTA_YAX_NULL ")},
        // at 0 there is nothing to append to; on a read-only stream the first block head fails
        {CALL(NewAddVonoDataInFirstTimeFP(atStart, 1, 1, "a", 1, "d", 1, "m", 1)),
         errLine(fp, "File Search Error")},
        {CALL(NewAddVonoDataInFirstTimeFP(readOnly, 1, 1, "a", 1, "d", 1, "m", 1)),
         errLine(tag, "File Write Error") + errLine(fp, "File _writeDataTagInfo Error")},
        {CALL(NewAddVonoData(&noFile, 1, 1, "a", 1, nullptr, 5, "m", 1)), errLine(add, "vono_data NULL")},
        {CALL(NewAddVonoData(nullptr, 1, 1, "a", 1, "d", 1, "m", 1)), errLine(add, "yax_info NULL")},
        {CALL(NewAddVonoData(&noFile, 1, 1, "a", 1, "d", 1, "m", 1)), errLine(add, "yax_info->fp NULL")},
    };
    for (const auto &[call, line] : cases) {
        int r = -1;
        EXPECT_EQ(tu::capture([&] { r = call(); }), line);
        EXPECT_EQ(r, 0) << line;
    }
    _qfclose(atStart), _qfclose(readOnly);
    EXPECT_EQ(now(), host());
    expectAlone();
}

TEST_F(Tone, AddToAnExistingTrailerOverwritesHeaderTailAndVonoBlock) {
    const std::string snd("\x01\x02\x03\x00\x05sound-bytes", 16);
    const Bytes p2 = tb::toneList({"TonePhoto_000", "rain"});
    const Entry a{7, "alpha", "AAAA", "sub"}, b = sound("TonePhoto_000", "old-sound");
    put(host() + tb::trailer({a, b}) + vono1(1, 2));
    YaxInfo *info = ParseYAX(file.c_str(), SIGNATURE_VONO_YAX);
    ASSERT_EQ(getYAXList(info), 1);
    const uint32_t old0 = info->meta_data[0]->offset;
    EXPECT_EQ(NewAddVonoData(info, 2048, 256, "rain", 4, snd.data(), sz(snd), p2.data(), u32size(p2)), 1);
    // the record's offsets follow the header back
    const Entry rain = sound("rain", snd), list = listEntry(p2);
    EXPECT_EQ(info->meta_data[0]->offset, old0 + tb::blockLength(rain) + tb::blockLength(list));
    DestroyYAX(info);
    const uint32_t start = u32size(host() + tb::block(a) + tb::block(b)) + 8 + 4;
    EXPECT_EQ(now(), host() + tb::trailer({a, b, rain, list}) + vono1(start, start + sz(snd)));
}

TEST(ToneAdd, CustomRowsMoveTheTailRowsUpAndTheMovedRowsDown) {
    YaxEntry e[3] = {};  // offsets 1000, 900, 800; lengths 10, 11, 12; types 1, 2, 3
    for (uint32_t i = 0; i < 3; ++i)
        e[i].offset = 1000 - 100 * i, e[i].length = 10 + i, e[i].meta_type = (i + 1) << 16;
    YaxEntry *rows[3] = {&e[0], &e[1], &e[2]};
    YaxInfo info{};
    info.fp = tmpfile(), info.meta_count = 3, info.meta_data = rows;
    EXPECT_EQ(writeCustomQDR(&info, 2, 0, 50, 7), 1);  // row 2 grows, then rows 0, 1 shrink
    EXPECT_EQ(writeCustomQDR(&info, 1, 1, 5, 5), 1);   // from == first: rows 1, 2 only
    EXPECT_EQ(e[0].offset, 1000u);  // the table itself is left alone
    EXPECT_EQ(contents(info.fp), tb::Builder()
                                      .u32(3 << 16).u32(850).u32(12).u32(1 << 16).u32(993).u32(10)
                                      .u32(2 << 16).u32(893).u32(11).u32(2 << 16).u32(905).u32(11)
                                      .u32(3 << 16).u32(805).u32(12).done());
}

// ---- name lists in files ----

class ToneFile : public Tone {
protected:
    YAXDATA *yd = nullptr;
    unsigned char out[1000];

    // Two sounds behind an image, then the list entry when one is given.
    void make(const std::optional<Bytes> &list) {
        destroyYAXDATA(yd);
        std::vector<Entry> entries = {sound("a", "AAAA"), sound("rain", "RRRRRR")};
        if (list) entries.push_back(listEntry(*list));
        put(tb::fakeImage(256) + tb::trailer(entries));
        yd = checkYAXInFile(file.c_str());
        std::memset(out, 0xEE, sizeof out);
    }
    // What the readers find: the lookup's result and names, the count; the
    // name list agrees with the lookup.
    std::tuple<int, Names, int> names() {
        const int lookup = getTonePhotoInFile(yd);
        Names got(yd->tonephoto_name_list, yd->tonephoto_name_list + yd->tonephoto_count);
        char **list = &yd->filename;
        uint32_t count = 9;
        EXPECT_EQ(getTonePhotoNameList(yd, &list, &count), got.empty() ? 0 : 1);
        EXPECT_EQ(Names(list, list + count), got);
        for (uint32_t i = 0; i < count; ++i) _qfree(list[i]);
        _qfree(list);
        return {lookup, got, getVonoCntInFile(yd)};
    }
    void TearDown() override { destroyYAXDATA(yd); }
};

TEST_F(ToneFile, MinusAlwaysDropsTheLastNameAndAddAppendsOne) {
    make(tb::toneList({"a", "bb", "ccc"}, 7, 9));
    for (const char *name : {"a", "bb", "ccc", "none"}) {
        EXPECT_EQ(makeMinusVonoHeader(out, yd->yax_info, 2, 0, name), 23u) << name;
        EXPECT_EQ(Bytes(out, out + 24), tb::toneList({"a", "bb"}, 7, 9) + Bytes{0xEE});
    }
    EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 2, 0, "rain", 4), 16u + 12u + 6u + 4u);
    EXPECT_EQ(Bytes(out, out + 39), tb::toneList({"a", "bb", "ccc", "rain"}, 7, 9) + Bytes{0xEE});
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 3, 0, "x", 1), 0u); }),
              "error!!!!!!!!\n");  // not a list
    make(tb::toneList({}, 1, 0));
    EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 2, 0, "rain", 4), 20u);
    EXPECT_EQ(Bytes(out, out + 20), tb::toneList({"rain"}));
    // an empty list loses "one" name: all-ones count, result 8
    EXPECT_EQ(makeMinusVonoHeader(out, yd->yax_info, 2, 0, "a"), 8u);
    EXPECT_EQ(Bytes(out, out + 12), tb::Builder().u32(1).u32(0).u32(0xFFFFFFFFu).done());
}

TEST_F(ToneFile, ReadersOnGoodMissingEmptyAndOverrunningLists) {
    make(tb::toneList({"a", std::string("ra\0in", 5)}));
    ASSERT_EQ(yd->tonephoto_count, 2u);  // filled by the check function
    EXPECT_EQ(names(), std::make_tuple(1, Names{"a", "ra"}, 2));
    YAXDATA_UNIT *meta = extractYAXDataFromFilebyName(yd, kMeta.c_str(), 19);
    char *name = nullptr;
    EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 2) * 2 + getTonePhotoNameByIndex(meta, &name, 0), 1);
    EXPECT_STREQ(name, "a");
    _qfree(name);
    // names compare as zero-terminated strings, case-sensitive
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "ra") * 2 + isIdenticalNameInMetaInfo(meta, "A"), 2);
    destroyYAXDATA_UNIT(meta);

    make(std::nullopt);
    EXPECT_EQ(names(), std::make_tuple(-1, Names{}, -1));
    // an empty list, then lists whose count, a length or a wrapping length
    // reach past the payload, and one without a count: no names; the
    // overrunning ones are refused by the edits and the name readers too
    const auto head = [] { return tb::Builder().u32(1).u32(0); };
    for (const Bytes &b : {tb::toneList({}), head().u32(0x40000001u).u32(4).str("rain").done(),
                           head().u32(1).u32(5).str("rain").done(),
                           head().u32(2).u32(4).u32(0xFFFFFFFDu).str("rain").done(), head().done()}) {
        make(b);
        EXPECT_EQ(names(), std::make_tuple(0, Names{}, 0));
        if (b == tb::toneList({})) continue;
        meta = extractYAXDataFromFilebyName(yd, kMeta.c_str(), 19);
        EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 0) + isIdenticalNameInMetaInfo(meta, "rain"), 0);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 2, 0, "x", 1), 0u); }),
                  "error!!!!!!!!\n");
        EXPECT_EQ(makeMinusVonoHeader(out, yd->yax_info, 2, 0, "a") + out[0], 0xEEu);
        destroyYAXDATA_UNIT(meta);
    }

    // a list added beside an older one is not the one found
    make(tb::toneList({"a"}));
    const Bytes newer = tb::toneList({"a", "snow"});
    EXPECT_EQ(NewAddVonoData(yd->yax_info, 2048, 256, "snow", 4, "SNOW", 4, newer.data(), u32size(newer)), 1);
    destroyYAXDATA(yd);
    yd = checkYAXInFile(file.c_str());
    EXPECT_EQ(yd->count, 5u);
    EXPECT_EQ(names(), std::make_tuple(1, Names{"a"}, 1));
}

// The legacy sound becomes the first pair, by path and on a stream (which
// writes from the old sound's start over what lies behind it).
TEST_F(Tone, ConvertLegacySoundAndRefusalsThatTouchNothing) {
    const std::string snd("legacy\0sound\xff\x01 bytes", 21);
    const uint32_t p = u32size(host()), s = sz(snd);
    // image, sound block (8 + 13 + s), list block (8 + 19 + 29), 2 rows, tail, Vono block
    const Bytes converted = host() + tb::trailer({toneSound(snd), toneMeta()}) + vono1(p + 21, p + 21 + s);
    for (bool stream : {false, true}) {
        put(host() + tb::bytes(snd) + vono1(p, p + s));
        FILE *fp = stream ? _qfopen(file.c_str(), "r+b") : nullptr;
        VonoInfo *vono = stream ? _checkAudioInImageFP(fp) : _checkAudioInImageFile(file.c_str());
        EXPECT_EQ(stream ? _convertVonoToTonePhoto(&vono) : convertVonoToTonePhoto(&vono, file.c_str()), 1);
        stream ? DestroyVonoFP(vono) + _qfclose(fp) : DestroyVono(vono);
        EXPECT_EQ(now(), converted) << stream;
        expectAlone();
        expectDecodes();
    }
    // a first sound that fails the range test: the file stays as it is
    const Bytes bad = host() + tb::bytes(snd) + vono1(p, p);
    put(bad);
    VonoInfo *vono = _checkAudioInImageFile(file.c_str());
    EXPECT_EQ(convertVonoToTonePhoto(&vono, file.c_str()), 0);
    DestroyVono(vono);
    EXPECT_EQ(now(), bad);
}
