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
        EXPECT_EQ(tu::capture([&, call = call] { r = call(); }), line);
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

// ---- the sound API ----

namespace {

struct SoundApi : Tone {
    const uint32_t P = u32size(host());
    int save(const std::string &name, const std::string &data) {
        return saveVonoToImageFile(file.c_str(), data.data(), sz(data), name.c_str(), sz(name));
    }
    // the file as expected, the image decoding, nothing left beside it
    void expectFile(const Bytes &want, const std::string &what) {
        const Bytes got = now();
        size_t at = 0;
        while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
        EXPECT_EQ(got == want ? std::string() : std::to_string(at) + " of " + std::to_string(got.size()) +
                                                   " / " + std::to_string(want.size()),
                  "")
            << what << ": first difference at";
        expectAlone();
        // the image decodes to the same pixels as the bare one
        if (got.size() >= host().size() && Bytes(got.begin(), got.begin() + host().size()) == host()) {
            EXPECT_EQ(pixels(file), pixels(hostFile())) << what;
        }
    }
    // What the decoder makes of a file (empty where it is absent).
    static std::string pixels(const std::string &path) {
        std::string out;
        if (access("/usr/bin/djpeg", X_OK) != 0) return out;
        if (FILE *p = popen(("/usr/bin/djpeg '" + path + "' 2>/dev/null").c_str(), "r")) {
            char buf[4096];
            for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
            EXPECT_EQ(pclose(p), 0) << path;
        }
        return out;
    }
    static std::string hostFile() { return std::string(YAX_TEST_DATA) + "/sample.jpg"; }
};

Entry user(const std::string &name, const std::string &payload) { return {1, name, payload, ""}; }
Entry toneList(const Names &names) { return listEntry(tb::toneList(names)); }
// The empty legacy block: count 0 with one zero pair.
Bytes emptyVono(uint32_t start = 0, uint32_t end = 0) {
    Bytes b = vono1(start, end);
    b[8] = 0;
    return b;
}
// Where the payload of `entries[k]` starts in host + trailer(entries).
uint32_t payloadAt(uint32_t host_size, const std::vector<Entry> &entries, size_t k) {
    uint32_t at = host_size;
    for (size_t i = 0; i < k; ++i) at += tb::blockLength(entries[i]);
    return at + 8 + sz(entries[k].name);
}

}  // namespace

TEST_F(SoundApi, SaveIntoEachKindOfFile) {
    const Entry r = sound("r", "X"), k = user("k", "");
    const Bytes plain = host() + tb::trailer({r, toneList({"r"})}) + vono1(P + 9, P + 10);
    const uint32_t q = P + tb::blockLength(k);
    struct Case {
        const char *what;
        Bytes before;
        std::string name, data;
        Bytes after;
    } cases[] = {
        {"plain image, 1-byte name and sound", host(), "r", "X", plain},
        // a name longer than the 1000 bytes a list buffer once had
        {"plain image, 1024-byte name", host(), std::string(1024, 'n'), "X",
         host() + tb::trailer({sound(std::string(1024, 'n'), "X"), toneList({std::string(1024, 'n')})}) +
             vono1(P + 8 + 1024, P + 8 + 1025)},
        // the old sound becomes "TonePhoto_000", the list names both
        {"legacy block with a sound", host() + tb::bytes("old!") + vono1(P, P + 4), "rain", "RAIN",
         host() + tb::trailer({toneSound("old!"), toneList({"TonePhoto_000", "rain"}), sound("rain", "RAIN")}) +
             vono1(P + 21, P + 25)},
        // the list names "TonePhoto_000", the entry the caller's name; the empty block stays
        {"legacy block without a sound", host() + emptyVono(), "r", "X",
         host() + emptyVono() + tb::trailer({r, toneList({"TonePhoto_000"})}) + vono1(P + 39, P + 40)},
        {"trailer", host() + tb::trailer({k}), "s", "S",
         host() + tb::trailer({k, sound("s", "S"), toneList({"s"})}) + vono1(q + 9, q + 10)},
        {"trailer with an entry of that name", host() + tb::trailer({k, user("s", "old")}), "s", "S",
         host() + tb::trailer({k, sound("s", "S"), toneList({"s"})}) + vono1(q + 9, q + 10)},
        // the only entry had the name: the image is bare after its delete
        {"trailer of that name alone", host() + tb::trailer({user("r", "old")}), "r", "X", plain},
        // a new name: the list is replaced (and moves behind), the sound appended
        {"trailer and legacy block", plain, "t", "TT",
         host() + tb::trailer({r, toneList({"r", "t"}), sound("t", "TT")}) + vono1(P + 9, P + 10)},
        // a listed name: only its sound is replaced; the end record is not followed
        {"trailer and legacy block, listed name", plain, "r", "ZZ",
         host() + tb::trailer({toneList({"r"}), sound("r", "ZZ")}) + vono1(P + 9, P + 10)},
    };
    for (const Case &c : cases) {
        put(c.before);
        EXPECT_EQ(save(c.name, c.data), 1) << c.what;
        expectFile(c.after, c.what);
    }
}

TEST_F(SoundApi, SaveRefusalsInOrderAndTheSizeLimit) {
    const std::string tag = "YAXAPIs::saveVonoToImageFile";
    const char *f = (put(host()), file.c_str());
    const struct {
        const char *path;
        const char *data;
        uint32_t len;
        const char *name;
        uint32_t name_len;
        std::string line;
    } cases[] = {
        {nullptr, nullptr, 0, nullptr, 0, errLine(tag, "file name null")},
        {f, nullptr, 1, "a", 1, errLine(tag, "audioStream null")},
        {f, "d", 0, "a", 1, errLine(tag, "audioStream null")},
        {f, "d", 0xFFF00001u, nullptr, 0, errLine(tag, "Too big file to add")},
        {f, "d", 1, nullptr, 1, errLine(tag, "vono name is null or vono_name_len is 0")},
        {f, "d", 1, "a", 0, errLine(tag, "vono name is null or vono_name_len is 0")},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(saveVonoToImageFile(c.path, c.data, c.len, c.name, c.name_len), 0); }),
                  c.line);
    }
    // the largest size passes the first test (and meets the name test here)
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(saveVonoToImageFile(f, "d", 0xFFF00000u, nullptr, 0), 0); }),
              errLine(tag, "vono name is null or vono_name_len is 0"));
    expectFile(host(), "refused");
    // an ending that cannot be read counts as done
    EXPECT_EQ(saveVonoToImageFile(dir.path("none.jpg").c_str(), "d", 1, "a", 1), 1);
    // a trailer whose last block reaches into the header: the add would write over it
    const Entry k = user("k", "K");
    Bytes into = host() + tb::block(k) + tb::header({{1u << 16, 11, 19}});
    put(into);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(save("s", "S"), 0); }),
              errLine("YAXEncoder::NewAddVonoData", "a block of the entry table runs into the header"));
    EXPECT_EQ(now(), into);
    // a legacy block that is not accepted (version below 105, no sounds) has no defined work
    const Bytes old = host() + tb::vonoBlock({}, 104, 13);
    put(old);
    EXPECT_EQ(save("a", "b"), 0);
    EXPECT_EQ(now(), old);
}

// A listed sound "TonePhoto_000" with a user entry in front of it and one
// sound behind it; the end record points at "TonePhoto_000".
TEST_F(SoundApi, DeleteByNameMovesTheEndRecordOnlyForEntriesInFrontOfTheFirstSound) {
    const std::vector<Entry> all = {user("k", "K"), toneSound("old!"), sound("b", "BB"),
                                    toneList({"TonePhoto_000", "b"})};
    const uint32_t at = payloadAt(P, all, 1);
    for (size_t gone : {0, 2}) {
        put(host() + tb::trailer(all) + vono1(at, at + 4));
        YAXDATA *yd = checkYAXInFile(file.c_str());
        EXPECT_EQ(deleteTonePhotoDataFromFilebyName(&yd, all[gone].name.c_str(), sz(all[gone].name), 2), 1);
        destroyYAXDATA(yd);
        std::vector<Entry> kept = all;
        kept.erase(kept.begin() + gone);
        const uint32_t back = gone == 0 ? tb::blockLength(all[0]) : 0;  // sound_moved
        expectFile(host() + tb::trailer(kept) + vono1(at - back, at + 4 - back), all[gone].name);
        // the end record now points at the same sound bytes
        const Bytes b = now();
        EXPECT_EQ(std::string(b.begin() + (at - back), b.begin() + (at - back + 4)), "old!");
    }
    // fewer than two sounds: no end record; unknown name, null handle: 0
    put(host() + tb::trailer(all) + vono1(at, at + 4));
    YAXDATA *yd = checkYAXInFile(file.c_str());
    EXPECT_EQ(deleteTonePhotoDataFromFilebyName(&yd, "nope", 4, 2) + deleteTonePhotoDataFromFilebyName(nullptr, "b", 1, 2), 0);
    EXPECT_EQ(deleteTonePhotoDataFromFilebyName(&yd, "b", 1, 0), 1);
    destroyYAXDATA(yd);
    expectFile(host() + tb::trailer({all[0], all[1], all[3]}), "n = 0");
    EXPECT_EQ(deleteTonePhotoDataFromFilebyIndex(), 0);  // a placeholder

    // a legacy tail whose record cannot be read: both deletes by name refuse
    // rather than drop it
    Bytes bad = host() + tb::trailer(all) + vono1(at, at + 4);
    bad[bad.size() - 30] = 'X';  // "XONO"
    put(bad);
    yd = checkYAXInFile(file.c_str());
    ASSERT_NE(yd, nullptr);
    const std::string line = "the legacy audio record behind the trailer cannot be read";
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteTonePhotoDataFromFilebyName(&yd, "b", 1, 2), 0); }),
              errLine("Vono::ParseVono", "file has no suond FSIG") +
                  errLine("VonoAPIs::deleteTonePhotoDataFromFilebyName", line));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "b", 1), 0); }),
              errLine("Vono::ParseVono", "file has no suond FSIG") +
                  errLine("YAXAPIs::deleteYAXDataFromFilebyName", line));
    destroyYAXDATA(yd);
    EXPECT_EQ(now(), bad);
}

TEST_F(SoundApi, DeleteOneTheLastAndAllSounds) {
    // three sounds saved one after the other into the image
    put(host());
    ASSERT_EQ(save("TonePhoto_000", "S0") + save("b", "B") + save("c", "CCC"), 3);
    const Entry t0 = sound("TonePhoto_000", "S0"), b = sound("b", "B"), c = sound("c", "CCC");
    const Bytes three = host() + tb::trailer({t0, b, toneList({"TonePhoto_000", "b", "c"}), c}) +
                        vono1(P + 21, P + 23);
    expectFile(three, "three saves");

    // The list always loses its last name, whichever sound goes: "c" is
    // still listed after "b" went, and "b" is listed no more.
    EXPECT_EQ(deleteVonoFromImageFile(file.c_str(), "b"), 1);
    expectFile(host() + tb::trailer({t0, c, toneList({"TonePhoto_000", "b"})}) + vono1(P + 21, P + 23),
               "one of three");
    YAXDATA *yd = checkYAXInFile(file.c_str());
    EXPECT_EQ(Names(yd->tonephoto_name_list, yd->tonephoto_name_list + yd->tonephoto_count),
              (Names{"TonePhoto_000", "b"}));
    destroyYAXDATA(yd);

    // the only sound: its entry, then the list; the emptied file keeps an end
    // record with no sounds, positions as they were
    put(host() + tb::trailer({t0, toneList({"TonePhoto_000"})}) + vono1(P + 21, P + 23));
    EXPECT_EQ(deleteVonoFromImageFile(file.c_str(), "TonePhoto_000"), 1);
    expectFile(host() + emptyVono(P + 21, P + 23), "the last sound");

    // all sounds, and every other entry with them: the bare image
    for (const Bytes &b : {three, host() + tb::trailer({user("k", ""), t0, toneList({"TonePhoto_000"})}) +
                                      vono1(P + 9 + 21, P + 9 + 23)}) {
        put(b);
        EXPECT_EQ(deleteAllVonoFromImageFile(file.c_str()), 1);
        expectFile(host(), "all");
    }
    for (const Bytes &b : {host(), host() + tb::trailer({user("k", "")}), host() + tb::bytes("s") + vono1(P, P + 1)}) {
        put(b);
        EXPECT_EQ(deleteAllVonoFromImageFile(file.c_str()), 0);  // signatures 1 to 3
        EXPECT_EQ(now(), b);
    }
    EXPECT_EQ(deleteAllVonoFromImageFile(dir.path("none.jpg").c_str()), 1);
    // deleting by name from a legacy block drops the legacy sound; from a trailer alone: 0
    put(host() + tb::bytes("s") + vono1(P, P + 1));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteVonoFromImageFile(file.c_str(), "x"), 1); }), "meta null\n");
    EXPECT_EQ(now(), host());
    put(host() + tb::trailer({sound("a", "A"), toneList({"a"})}));
    EXPECT_EQ(deleteVonoFromImageFile(file.c_str(), "a"), 0);
}

// Lists whose count or lengths reach past their payload: refused with a
// line, nothing changed (the sanitizer run checks that nothing reads past).
TEST_F(SoundApi, OverrunningListsAreRefusedBeforeAnyWrite) {
    const auto head = [] { return tb::Builder().u32(1).u32(0); };
    const std::string line = "the name list does not fit its entry";
    for (const Bytes &list : {head().u32(3).u32(1).done(), head().u32(1).u32(9).str("a").done(), head().done(),
                              tb::Bytes{1, 0, 0}}) {
        const Bytes f = host() + tb::trailer({sound("a", "A"), listEntry(list)}) + vono1(P + 9, P + 10);
        put(f);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteVonoFromImageFile(file.c_str(), "a"), 0); }),
                  errLine("VonoAPIs::deleteVonoFromImageFile", line));
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteAllVonoFromImageFile(file.c_str()), 0); }),
                  errLine("VonoAPIs::deleteAllVonoFromImageFile", line));
        const std::string dst = dir.path("dst.jpg");
        tu::writeFile(dst, host());
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(copyTonePhotoData(file.c_str(), dst.c_str()), 0); }),
                  errLine("VonoAPIs::copyTonePhotoData", line));
        EXPECT_EQ(tu::readFile(dst), host());
        std::remove(dst.c_str());
        EXPECT_EQ(now(), f);
    }
}

// A listed name that is empty: the copy would write its block with a name of
// length 0, which no reader takes, and the copied table would not parse. The
// lookup as a C string finds the entry whose 1-byte name is a zero byte.
TEST_F(SoundApi, CopyRefusesAnEmptyListedName) {
    const Bytes list = tb::Builder().u32(1).u32(0).u32(2).u32(1).u32(0).str("a").done();
    const Bytes f = host() + tb::trailer({sound("a", "A"), Entry{256, std::string(1, '\0'), "z", ""}, listEntry(list)}) +
                    vono1(P + 9, P + 10);
    put(f);
    const std::string dst = dir.path("dst.jpg");
    tu::writeFile(dst, host());
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(copyTonePhotoData(file.c_str(), dst.c_str()), 0); }),
              errLine("VonoAPIs::copyTonePhotoData", "a listed sound's name is empty"));
    EXPECT_EQ(tu::readFile(dst), host());
    EXPECT_EQ(now(), f);
}

TEST_F(SoundApi, CopyAppendsTheSetBehindTheDestination) {
    // smallest entries: 1-byte names, an empty sound; a user entry is not copied
    const Entry a = sound("a", "A"), e = sound("e", ""), k = user("k", "");
    const Entry list = toneList({"a", "e"});
    tu::TempDir other;
    const std::string src = other.path("src.jpg");
    tu::writeFile(src, host() + tb::trailer({k, a, e, list}) + vono1(1, 2));
    for (const Bytes &before : {host(), host() + tb::trailer({k})}) {
        put(before);
        EXPECT_EQ(copyTonePhotoData(src.c_str(), file.c_str()), 1);
        const uint32_t d = u32size(before);
        expectFile(before + tb::trailer({a, e, list}) + vono1(d + 9, d + 10), "copy");
    }
    // refusals: no list, a listed name without its entry, an unwritable destination
    const Bytes kept = now();
    for (const Bytes &s : {host() + tb::trailer({a}), host() + tb::trailer({a, toneList({"a", "x"})})}) {
        tu::writeFile(src, s);
        tu::capture([&] { EXPECT_EQ(copyTonePhotoData(src.c_str(), file.c_str()), 0); });
        EXPECT_EQ(now(), kept);
    }
    EXPECT_EQ(copyTonePhotoData(src.c_str(), dir.path("no/dir.jpg").c_str()), 0);
    EXPECT_EQ(copyTonePhotoData(dir.path("none.jpg").c_str(), file.c_str()), 0);

    // copyVonoData converts a legacy source in place, then saves each listed sound
    tu::writeFile(src, host() + tb::bytes("old!") + vono1(P, P + 4));
    put(host());
    EXPECT_EQ(copyVonoData(src.c_str(), file.c_str()), 1);
    const Bytes converted = host() + tb::trailer({toneSound("old!"), toneMeta()}) + vono1(P + 21, P + 25);
    EXPECT_EQ(tu::readFile(src), converted);
    expectFile(converted, "copyVonoData");
    // two listed sounds, saved one after the other
    tu::writeFile(src, host() + tb::trailer({user("k", ""), toneSound("S0"), sound("b", "B"),
                                             toneList({"TonePhoto_000", "b"})}) + vono1(1, 2));
    put(host());
    EXPECT_EQ(copyVonoData(src.c_str(), file.c_str()), 1);
    expectFile(host() + tb::trailer({toneSound("S0"), toneList({"TonePhoto_000", "b"}), sound("b", "B")}) +
                   vono1(P + 21, P + 23),
               "copyVonoData, two sounds");
    // nothing listed to copy: 0
    tu::writeFile(src, host() + tb::trailer({user("k", "")}));
    EXPECT_EQ(copyVonoData(src.c_str(), file.c_str()), 0);
}

TEST_F(SoundApi, ChecksAndTheStreamRecord) {
    const Bytes legacy = host() + tb::bytes("SND") + vono1(P, P + 3);
    put(legacy);
    VonoInfo *v = checkVonoInFile(file.c_str());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(std::make_tuple(v->count, v->offsets[0], v->offsets[1]), std::make_tuple(1u, P, P + 3));
    DestroyVono(v);
    FILE *fp = _qfopen(file.c_str(), "rb");
    v = checkVonoInFP(fp);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->fp, fp);
    DestroyVonoFP(v);
    _qfclose(fp);
    // the buffer check never gives a record
    YAXBUFFER *buf = _qbopen(u32size(legacy));
    _qbwrite(legacy.data(), u32size(legacy), buf);
    EXPECT_EQ(checkVonoInBuffer(buf), nullptr);
    _qbclose(buf);
    // a trailer alone, or a plain image: null
    for (const Bytes &b : {host(), host() + tb::trailer({user("k", "")})}) {
        put(b);
        EXPECT_EQ(checkVonoInFile(file.c_str()), nullptr);
    }
    destroyVONOOFFSET(nullptr);

    put(host() + tb::trailer({sound("a", std::string("\0\1", 2)), toneList({"a"})}) + vono1(P + 9, P + 11));
    YAXDATA *yd = checkYAXInFile(file.c_str());
    EXPECT_EQ(getAudioStreamBuffer(nullptr, "a", 1), nullptr);
    YAXAUDIOSTREAM *s = getAudioStreamBuffer(yd, "a", 1), *none = getAudioStreamBuffer(yd, "b", 1);
    ASSERT_NE(s, nullptr);
    ASSERT_NE(s->unit, nullptr);
    EXPECT_EQ(Bytes(s->unit->data, s->unit->data + s->length), (Bytes{0, 1}));
    EXPECT_EQ(std::make_tuple(none->length, none->unit), std::make_tuple(0u, nullptr));
    destroyAudioStreamBuffer(s), destroyAudioStreamBuffer(none), destroyAudioStreamBuffer(nullptr);
    destroyYAXDATA(yd);
}

// Entries and sounds edited in turn, the file checked after each step.
TEST_F(SoundApi, MixedEditsWithSounds) {
    const Entry k = user("k", "twelve bytes"), s = sound("s", "S"), l = toneList({"s"}), z{2, "z", "Z", ""};
    const uint32_t F = tb::blockLength(k), q = P + F, Ls = tb::blockLength(s), Ll = tb::blockLength(l);
    const uint32_t filler = 0x7FFEu << 16;
    put(host());
    ASSERT_EQ(saveYAXDataToFile(file.c_str(), "k", 1, nullptr, 0, k.payload.data(), 12, 1, 0), 1);
    expectFile(host() + tb::trailer({k}), "entry");
    EXPECT_EQ(save("s", "S"), 1);
    const Bytes snd = vono1(q + 9, q + 10);
    expectFile(host() + tb::trailer({k, s, l}) + snd, "sound");
    // the fast delete keeps the length: the end record stays behind the new tail
    EXPECT_EQ(deleteFastAYAXData(file.c_str(), "k"), 1);
    expectFile(host() + tb::fillerBlock(F) + tb::block(s) + tb::block(l) +
                   tb::header({{filler, F + Ls + Ll, F}, {256 << 16, Ls + Ll, Ls}, {2048 << 16, Ll, Ll}}) + snd,
               "fast delete");
    // the sound, then its list; each delete pulls the end record back, as
    // no "TonePhoto_000" is listed
    EXPECT_EQ(deleteVonoFromImageFile(file.c_str(), "s"), 1);
    const Bytes moved = vono1(q + 9 - Ls - Ll, q + 10 - Ls - Ll);
    expectFile(host() + tb::fillerBlock(F) + tb::header({{filler, F, F}}) + moved, "sound delete");
    ASSERT_EQ(saveYAXDataToFile(file.c_str(), "z", 1, nullptr, 0, "Z", 1, 2, 0), 1);
    const uint32_t Lz = tb::blockLength(z);
    expectFile(host() + tb::fillerBlock(F) + tb::block(z) + tb::header({{filler, F + Lz, F}, {2 << 16, Lz, Lz}}) + moved,
               "save");
}

// Several edits as one: put back on yaxEndEdit(.., 0) in the safe-edit mode,
// kept on 1; the default mode only hands the result through.
TEST_F(SoundApi, EditGroupsPutSeveralEditsBack) {
    const Bytes start = host() + tb::trailer({user("k", "K")});
    for (int safe : {1, 0}) {
        yaxSetSafeEdit(safe);
        for (int keep : {0, 1}) {
            put(start);
            YaxEditGroup *g = yaxBeginEdit(file.c_str());
            ASSERT_NE(g, nullptr);
            ASSERT_EQ(save("s", "S"), 1);
            YAXDATA *yd = checkYAXInFile(file.c_str());
            ASSERT_EQ(deleteYAXDataFromFilebyName(&yd, "k", 1), 1);
            destroyYAXDATA(yd);
            EXPECT_EQ(yaxEndEdit(g, keep), keep);
            const Bytes both = host() + tb::trailer({sound("s", "S"), toneList({"s"})}) + vono1(P + 9, P + 10);
            EXPECT_EQ(now(), safe && !keep ? start : both) << safe << keep;
            expectAlone();
        }
    }
    yaxSetSafeEdit(0);
    EXPECT_EQ(yaxEndEdit(nullptr, 1), 0);
    YaxEditGroup *none = yaxBeginEdit(dir.path("none.jpg").c_str());  // nothing to save
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(yaxEndEdit(none, 1), 1);
}
