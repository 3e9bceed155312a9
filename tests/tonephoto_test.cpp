// TonePhoto entries: name-list payloads, the Vono block behind the trailer,
// the sound + list adds, legacy conversion and the name-list readers. Whole
// files are compared with bytes built by tests/builder.hpp.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;

namespace {

const std::string kMeta = "TonePhoto_Meta_Info";
const std::string kFirstFp = "YAXEncoder::NewAddVonoDataInFirstTimeFP";
const std::string kAdd = "YAXEncoder::NewAddVonoData";

Bytes outBytes(const unsigned char *p, uint32_t n) { return Bytes(p, p + n); }
uint32_t size32(const Bytes &b) { return static_cast<uint32_t>(b.size()); }
uint32_t size32(const std::string &s) { return static_cast<uint32_t>(s.size()); }
Bytes vono1(uint32_t start, uint32_t end) { return tb::vonoBlock({{start, end}}); }
tb::Entry sound(const std::string &name, const std::string &bytes) { return {256, name, bytes, ""}; }
tb::Entry listEntry(const Bytes &p) { return {2048, kMeta, std::string(p.begin(), p.end()), ""}; }
tb::Entry list(const std::vector<std::string> &names) { return listEntry(tb::toneList(names)); }

}  // namespace

TEST(TonePayload, ListsFromScratchAndTheVonoRecordWriter) {
    unsigned char out[64];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(makeSecondVonoHeader(out, "TonePhoto_000", 13, "rain", 4), 37u);
    EXPECT_EQ(outBytes(out, 38), tb::toneList({"TonePhoto_000", "rain"}) + Bytes{0xEE});
    EXPECT_EQ(getVonoHeaderCount(out), 2u);
    EXPECT_EQ(makeFirstVonoHeader(nullptr, "a", 1), 0u);

    // a record's count and first pair; the header size stays 20 whatever the count
    tu::TempDir dir;
    const std::string path = dir.path("v.bin");
    tu::writeFile(path, {});
    FILE *fp = _qfopen(path.c_str(), "r+b");
    uint32_t table[4] = {100, 250, 300, 400};
    VonoInfo two{};
    two.count = 2;
    two.offsets = table;
    VonoInfo none{};
    writeVonoDataHeader(fp, &two);
    writeVonoDataHeader(fp, &none);  // no table: the empty block's zero pair
    writeVonoDataHeader(fp, nullptr);
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path),
              tb::Builder().str("VONO").u32(105).u32(2).u32(100).u32(250).u32(20).str("VONOBS")
                  .str("VONO").u32(105).u32(0).u32(0).u32(0).u32(20).str("VONOBS").done());
}

TEST(TonePayload, BufferVonoWriterLosesItsTailMarkerToTheFileWriter) {
    YAXBUFFER *buf = _qbopen(64);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(buf, 700, 900), 0); }),
              tu::errLine("YAXSystemFile::_qfwrite",
                          "write ret != write size_of_byte  ==> fail(-1 != 6)"));
    ASSERT_EQ(qbgetWriteSize(buf), 24);
    EXPECT_EQ(outBytes(qbgetBuffer(buf), 24),
              tb::Builder().str("VONO").u32(105).u32(1).u32(700).u32(900).u32(20).done());
    _qbclose(buf);
    // a buffer too small for the words fails before the marker, silently
    YAXBUFFER *small = _qbopen(10);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(small, 1, 2), 0); }), "");
    _qbclose(small);
}

// ---- sound + list appended to a file ----

class ToneAdd : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    const Bytes image = tb::fakeImage(300);
    const std::string snd = std::string("\x01\x02\x03\x00\x05sound-bytes", 16);
    const Bytes lp = tb::toneList({"rain"});

    Bytes expectedFirst() const {
        const uint32_t start = size32(image) + 8 + 4;
        return image + tb::trailer({sound("rain", snd), list({"rain"})}) +
               vono1(start, start + size32(snd));
    }
    int addFirst(FILE *fp) {
        return NewAddVonoDataInFirstTimeFP(fp, 2048, 256, "rain", 4, snd.data(), size32(snd),
                                           lp.data(), size32(lp));
    }
};

TEST_F(ToneAdd, FirstTimeByPathAndByStreamWriteTheSameFile) {
    tu::writeFile(path, image);
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(NewAddVonoDataInFirstTime(path.c_str(), 2048, 256, "rain", 4,
                                                      snd.data(), size32(snd), lp.data(),
                                                      size32(lp)),
                            1);
              }),
              "");
    EXPECT_EQ(tu::readFile(path), expectedFirst());

    // the stream flavour writes at the stream's position, covering what lies behind it
    tu::writeFile(path, image + Bytes(40, 0xAB));
    FILE *fp = _qfopen(path.c_str(), "r+b");
    _qlseek64(fp, size32(image), SEEK_SET);
    EXPECT_EQ(addFirst(fp), 1);
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), static_cast<int64_t>(expectedFirst().size()));
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), expectedFirst());
}

TEST_F(ToneAdd, FirstTimeRefusalsAndStreamFailureLines) {
    tu::writeFile(path, image);
    const std::string t = "YAXEncoder::NewAddVonoDataInFirstTime";
    EXPECT_EQ(tu::capture([&] {
                  NewAddVonoDataInFirstTime(path.c_str(), 1, 1, "a", 1, nullptr, 5, "m", 1);
                  NewAddVonoDataInFirstTime(path.c_str(), 1, 1, "a", 1, "d", 1, "m", 0);
                  NewAddVonoDataInFirstTime(dir.path("no.jpg").c_str(), 1, 1, "a", 1, "d", 1,
                                            "m", 1);
              }),
              tu::errLine(t, "vono_data null") + tu::errLine(t, "vono_info_data null") +
                  tu::errLine(t, "file open error"));
    // the stream flavour's argument messages keep their trailing blank
    EXPECT_EQ(tu::capture([&] {
                  NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, "d", 0, "m", 1);
                  NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, "d", 1, nullptr, 1);
                  NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, "d", 1, "m", 1);
              }),
              tu::errLine(kFirstFp, "vono_data == VELTA_YAX_NULL || vono_data_size <= 0 ") +
                  tu::errLine(kFirstFp,
                              "vono_info_data == VELTA_YAX_NULL || vono_info_data_size <= 0 ") +
                  tu::errLine(kFirstFp, "fp == VELTA_YAX_NULL "));
    FILE *fp = _qfopen(path.c_str(), "r+b");  // standing at 0: nothing to append to
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(addFirst(fp), 0); }),
              tu::errLine(kFirstFp, "File Search Error"));
    _qfclose(fp);
    fp = _qfopen(path.c_str(), "rb");  // read-only: the first block head fails
    _qlseek64(fp, 0, SEEK_END);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(addFirst(fp), 0); }),
              tu::errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
                  tu::errLine(kFirstFp, "File _writeDataTagInfo Error"));
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), image);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"});
}

TEST_F(ToneAdd, AddToExistingTrailerOverwritesHeaderTailAndVonoBlock) {
    const tb::Entry a{7, "alpha", "AAAA", "sub"};
    const tb::Entry b = sound("TonePhoto_000", "old-sound");
    tu::writeFile(path, image + tb::trailer({a, b}) + vono1(1, 2));
    YaxInfo *info = ParseYAX(path.c_str(), SIGNATURE_VONO_YAX);
    ASSERT_NE(info, nullptr);
    ASSERT_EQ(getYAXList(info), 1);
    const uint32_t old0 = info->meta_data[0]->offset;
    const Bytes p2 = tb::toneList({"TonePhoto_000", "rain"});
    EXPECT_EQ(NewAddVonoData(info, 2048, 256, "rain", 4, snd.data(), size32(snd), p2.data(),
                             size32(p2)),
              1);
    // the record's offsets follow the header back
    EXPECT_EQ(info->meta_data[0]->offset,
              old0 + tb::blockLength(sound("rain", snd)) + tb::blockLength(listEntry(p2)));
    DestroyYAX(info);
    const uint32_t start = size32(image + tb::block(a) + tb::block(b)) + 8 + 4;
    EXPECT_EQ(tu::readFile(path), image + tb::trailer({a, b, sound("rain", snd), listEntry(p2)}) +
                                      vono1(start, start + size32(snd)));
}

TEST_F(ToneAdd, AddRefusalsSayNullInUpperCase) {
    YaxInfo noFile{};
    EXPECT_EQ(tu::capture([&] {
                  NewAddVonoData(&noFile, 1, 1, "a", 1, nullptr, 5, "m", 1);
                  NewAddVonoData(&noFile, 1, 1, "a", 0, "d", 1, "m", 1);
                  NewAddVonoData(&noFile, 1, 1, "a", 1, "d", 1, nullptr, 1);
                  NewAddVonoData(nullptr, 1, 1, "a", 1, "d", 1, "m", 1);
                  EXPECT_EQ(NewAddVonoData(&noFile, 1, 1, "a", 1, "d", 1, "m", 1), 0);
              }),
              tu::errLine(kAdd, "vono_data NULL") + tu::errLine(kAdd, "vono_name NULL") +
                  tu::errLine(kAdd, "vono_info_data NULL") + tu::errLine(kAdd, "yax_info NULL") +
                  tu::errLine(kAdd, "yax_info->fp NULL"));
}

TEST(ToneRows, CustomRowsMoveTheTailRowsUpAndTheMovedRowsDown) {
    tu::TempDir dir;
    const std::string path = dir.path("rows.bin");
    tu::writeFile(path, {});
    YaxEntry e[3] = {};
    YaxEntry *rows[3] = {&e[0], &e[1], &e[2]};
    for (uint32_t i = 0; i < 3; ++i) {
        e[i].offset = 1000 - 100 * i;
        e[i].length = 10 + i;
        e[i].meta_type = (i + 1) << 16;
    }
    YaxInfo info{};
    info.fp = _qfopen(path.c_str(), "r+b");
    info.meta_count = 3;
    info.meta_data = rows;
    EXPECT_EQ(writeCustomQDR(&info, 2, 0, 50, 7), 1);  // row 2 grows, then rows 0, 1 shrink
    EXPECT_EQ(writeCustomQDR(&info, 1, 1, 5, 5), 1);   // from == first: rows 1, 2 only
    _qfclose(info.fp);
    EXPECT_EQ(e[0].offset, 1000u);  // the table itself is left alone
    EXPECT_EQ(tu::readFile(path), tb::Builder()
                                      .u32(3 << 16).u32(850).u32(12)
                                      .u32(1 << 16).u32(993).u32(10)
                                      .u32(2 << 16).u32(893).u32(11)
                                      .u32(2 << 16).u32(905).u32(11)
                                      .u32(3 << 16).u32(805).u32(12).done());
}

// ---- name lists from files ----

class ToneFile : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    YAXDATA *yd = nullptr;
    unsigned char out[1000];

    // Two sounds, then the list entry (when given), behind an image.
    void make(const Bytes *listBytes) {
        destroyYAXDATA(yd);
        std::vector<tb::Entry> entries = {sound("a", "AAAA"), sound("rain", "RRRRRR")};
        if (listBytes != nullptr) entries.push_back(listEntry(*listBytes));
        tu::writeFile(path, tb::fakeImage(256) + tb::trailer(entries));
        yd = checkYAXInFile(path.c_str());
        ASSERT_NE(yd, nullptr);
        std::memset(out, 0xEE, sizeof out);
    }
    void make(const Bytes &listBytes) { make(&listBytes); }
    YAXDATA_UNIT *unit() { return extractYAXDataFromFilebyName(yd, kMeta.c_str(), 19); }
    void TearDown() override { destroyYAXDATA(yd); }
};

TEST_F(ToneFile, MinusAlwaysDropsTheLastNameAndAddAppendsOne) {
    make(tb::toneList({"a", "bb", "ccc"}, 7, 9));
    for (const char *name : {"a", "bb", "ccc", "none"}) {
        EXPECT_EQ(makeMinusVonoHeader(out, yd->yax_info, 2, 0, name), 23u) << name;
        EXPECT_EQ(outBytes(out, 24), tb::toneList({"a", "bb"}, 7, 9) + Bytes{0xEE});
    }
    EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 2, 0, "rain", 4), 16u + 12u + 6u + 4u);
    EXPECT_EQ(outBytes(out, 39), tb::toneList({"a", "bb", "ccc", "rain"}, 7, 9) + Bytes{0xEE});
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 3, 0, "x", 1), 0u);
              }),
              "error!!!!!!!!\n");

    make(tb::toneList({}, 1, 0));
    EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 2, 0, "rain", 4), 20u);
    EXPECT_EQ(outBytes(out, 20), tb::toneList({"rain"}));
    // an empty list loses "one" name: all-ones count, result 8
    EXPECT_EQ(makeMinusVonoHeader(out, yd->yax_info, 2, 0, "a"), 8u);
    EXPECT_EQ(outBytes(out, 12), tb::Builder().u32(1).u32(0).u32(0xFFFFFFFFu).done());
}

TEST_F(ToneFile, ReadersOnAWellFormedList) {
    make(tb::toneList({"a", std::string("ra\0in", 5)}));
    ASSERT_EQ(yd->tonephoto_count, 2u);  // filled by the check function
    EXPECT_STREQ(yd->tonephoto_name_list[1], "ra");
    EXPECT_EQ(getTonePhotoInFile(yd), 1);
    char **names = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(getTonePhotoNameList(yd, &names, &count), 1);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(names[0], "a");
    for (uint32_t i = 0; i < count; ++i) _qfree(names[i]);
    _qfree(names);
    EXPECT_EQ(getVonoCntInFile(yd), 2);
    EXPECT_EQ(isVonoMetaInfo(yd), 1);

    YAXDATA_UNIT *meta = unit();
    char *name = nullptr;
    EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 0), 1);
    EXPECT_STREQ(name, "a");
    _qfree(name);
    EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 2), 0);
    // names compare as zero-terminated strings, case-sensitive
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "ra"), 1);
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "A"), 0);
    EXPECT_EQ(isIdenticalNameInMetaInfo(nullptr, "a"), 0);
    destroyYAXDATA_UNIT(meta);

    // the sound's payload: image 256, block "a" (13 bytes), then 8 + 4 head bytes
    YAXOFFSET *off = getVonoInFile(yd, "rain");
    ASSERT_NE(off, nullptr);
    EXPECT_EQ(off->offset, 256u + 13u + 12u);
    EXPECT_EQ(off->length, 6u);
    destroyYAXOFFSET(off);
}

TEST_F(ToneFile, NoListEmptyListAndListsThatOverrunTheirPayload) {
    auto expectNoNames = [&](int lookup, int cnt) {
        EXPECT_EQ(yd->tonephoto_count, 0u);
        EXPECT_EQ(yd->tonephoto_name_list, nullptr);
        EXPECT_EQ(getTonePhotoInFile(yd), lookup);
        EXPECT_EQ(getVonoCntInFile(yd), cnt);
        char **names = &yd->filename;
        uint32_t count = 9;
        EXPECT_EQ(getTonePhotoNameList(yd, &names, &count), 0);
        EXPECT_EQ(names, nullptr);
        EXPECT_EQ(count, 0u);
    };
    make(nullptr);
    expectNoNames(-1, -1);
    EXPECT_EQ(isVonoMetaInfo(yd), 0);
    make(tb::toneList({}));
    expectNoNames(0, 0);
    const std::vector<Bytes> bad = {
        tb::Builder().u32(1).u32(0).u32(0x40000001u).u32(4).str("rain").done(),  // count
        tb::Builder().u32(1).u32(0).u32(1).u32(5).str("rain").done(),            // a length
        tb::Builder().u32(1).u32(0).u32(2).u32(4).u32(0xFFFFFFFDu).str("rain").done(),  // wrap
        tb::Builder().u32(1).u32(0).done(),  // no count at all
    };
    for (const Bytes &b : bad) {
        make(b);
        expectNoNames(0, 0);
        YAXDATA_UNIT *meta = unit();
        char *name = nullptr;
        EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 0), 0);
        EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "rain"), 0);
        EXPECT_EQ(tu::capture([&] {
                      EXPECT_EQ(makeAddVonoHeader(out, yd->yax_info, 2, 0, "x", 1), 0u);
                  }),
                  "error!!!!!!!!\n");
        EXPECT_EQ(makeMinusVonoHeader(out, yd->yax_info, 2, 0, "a"), 0u);
        EXPECT_EQ(out[0], 0xEE);
        destroyYAXDATA_UNIT(meta);
    }
}

TEST_F(ToneFile, AListAddedBesideAnOlderOneIsNotTheOneFound) {
    make(tb::toneList({"a"}));
    const Bytes newer = tb::toneList({"a", "snow"});
    EXPECT_EQ(NewAddVonoData(yd->yax_info, 2048, 256, "snow", 4, "SNOW", 4, newer.data(),
                             size32(newer)),
              1);
    destroyYAXDATA(yd);
    yd = checkYAXInFile(path.c_str());
    ASSERT_NE(yd, nullptr);
    EXPECT_EQ(yd->count, 5u);
    ASSERT_EQ(yd->tonephoto_count, 1u);  // the name search stops at the older list
    EXPECT_EQ(getVonoCntInFile(yd), 1);
}

// ---- conversion of a legacy file ----

class ToneConvert : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    const Bytes jpeg = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg");
    const std::string snd = std::string("legacy\0sound\xff\x01 bytes", 21);
    uint32_t P() const { return size32(jpeg); }
    uint32_t S() const { return size32(snd); }
    Bytes legacy() const { return jpeg + tb::bytes(snd) + vono1(P(), P() + S()); }
    // image, sound block (8 + 13 + S), list block (8 + 19 + 29), 2 rows, tail, Vono block
    Bytes converted() const {
        return jpeg + tb::trailer({sound("TonePhoto_000", snd), list({"TonePhoto_000"})}) +
               vono1(P() + 21, P() + 21 + S());
    }
    bool decodes() const {
        return std::system(("/usr/bin/djpeg -outfile /dev/null '" + path + "' 2>/dev/null").c_str()) == 0;
    }
};

TEST_F(ToneConvert, PathFlavourRewritesTheLegacyFile) {
    ASSERT_GT(jpeg.size(), 100u);
    tu::writeFile(path, legacy());
    VonoInfo *vono = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(vono, nullptr);
    EXPECT_EQ(convertVonoToTonePhoto(&vono, path.c_str()), 1);
    DestroyVono(vono);
    ASSERT_EQ(tb::blockLength(list({"TonePhoto_000"})), 8u + 19u + 29u);
    EXPECT_EQ(tu::readFile(path), converted());
    EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"});
    EXPECT_TRUE(decodes());
    YAXDATA *yd = checkYAXInFile(path.c_str());
    ASSERT_NE(yd, nullptr);
    ASSERT_EQ(yd->tonephoto_count, 1u);
    EXPECT_STREQ(yd->tonephoto_name_list[0], "TonePhoto_000");
    destroyYAXDATA(yd);
}

TEST_F(ToneConvert, StreamFlavourOverwritesInPlaceAndRefusalsTouchNothing) {
    tu::writeFile(path, legacy());
    FILE *fp = _qfopen(path.c_str(), "r+b");
    VonoInfo *vono = _checkAudioInImageFP(fp);
    ASSERT_NE(vono, nullptr);
    EXPECT_EQ(_convertVonoToTonePhoto(&vono), 1);
    DestroyVonoFP(vono);
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), converted());
    EXPECT_TRUE(decodes());

    VonoInfo *none = nullptr;
    EXPECT_EQ(convertVonoToTonePhoto(&none, path.c_str()), 0);
    EXPECT_EQ(_convertVonoToTonePhoto(nullptr), 0);
    // a first sound that fails the range test: the file stays as it is
    const Bytes bad = jpeg + tb::bytes(snd) + vono1(P(), P());
    tu::writeFile(path, bad);
    vono = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(vono, nullptr);
    EXPECT_EQ(convertVonoToTonePhoto(&vono, path.c_str()), 0);
    DestroyVono(vono);
    EXPECT_EQ(tu::readFile(path), bad);
}
