// TonePhoto entries: the name-list payloads, the Vono block written behind
// the trailer, the adds that write sound + list, the conversion of a legacy
// file, and the readers of the name list.
#include <gtest/gtest.h>

#include <cstdio>
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

Bytes outBytes(const unsigned char *p, uint32_t n) { return Bytes(p, p + n); }

// The block the library writes behind a trailer: one sound, header size 20.
Bytes oneSoundVono(uint32_t start, uint32_t end) { return tb::vonoBlock({{start, end}}); }

}  // namespace

// ---- name-list payloads built from scratch ----

TEST(TonePayload, FirstAndSecondListsFromScratch) {
    unsigned char out[1000];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(makeFirstVonoHeader(out, "TonePhoto_000", 13), 29u);
    EXPECT_EQ(outBytes(out, 29), tb::toneList({"TonePhoto_000"}));
    EXPECT_EQ(out[29], 0xEE);  // nothing written past the payload
    EXPECT_EQ(getVonoHeaderCount(out), 1u);

    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(makeSecondVonoHeader(out, "TonePhoto_000", 13, "rain", 4), 37u);
    EXPECT_EQ(outBytes(out, 37), tb::toneList({"TonePhoto_000", "rain"}));
    EXPECT_EQ(out[37], 0xEE);
    EXPECT_EQ(getVonoHeaderCount(out), 2u);

    EXPECT_EQ(getVonoHeaderCount(nullptr), 0u);
    EXPECT_EQ(makeFirstVonoHeader(nullptr, "a", 1), 0u);
    EXPECT_EQ(makeFirstVonoHeader(out, nullptr, 3), 0u);
}

// ---- the one-sound Vono block ----

class VonoBlockWriters : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("v.bin");
};

TEST_F(VonoBlockWriters, WriteVonoHeaderEmitsThirtyBytes) {
    tu::writeFile(path, tb::bytes("IMG"));
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    ASSERT_EQ(_qlseek64(fp, 0, SEEK_END), 3);
    EXPECT_EQ(_writeVonoHeader(fp, 0x01020304u, 0xA0B0C0D0u), 1);
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), tb::bytes("IMG") + oneSoundVono(0x01020304u, 0xA0B0C0D0u));
}

TEST_F(VonoBlockWriters, WriteVonoHeaderStopsAtFirstFailedWrite) {
    tu::writeFile(path, tb::bytes("IMG"));
    FILE *fp = _qfopen(path.c_str(), "rb");  // every write fails
    ASSERT_NE(fp, nullptr);
    std::string log = tu::capture([&] { EXPECT_EQ(_writeVonoHeader(fp, 1, 2), 0); });
    _qfclose(fp);
    // only the marker write was tried: one short-write line, nothing after it
    EXPECT_EQ(log, tu::errLine("YAXSystemFile::_qfwrite",
                               "write ret != write size_of_byte  ==> fail(-1 != 4)"));
    EXPECT_EQ(tu::readFile(path), tb::bytes("IMG"));
    EXPECT_EQ(_writeVonoHeader(nullptr, 1, 2), 0);
}

TEST_F(VonoBlockWriters, DataHeaderFromRecordWritesCountAndFirstPair) {
    tu::writeFile(path, {});
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    uint32_t table[4] = {100, 250, 300, 400};
    VonoInfo two{};
    two.count = 2;
    two.offsets = table;
    writeVonoDataHeader(fp, &two);
    VonoInfo empty{};  // no table: the empty block's two zero words
    writeVonoDataHeader(fp, &empty);
    writeVonoDataHeader(fp, nullptr);
    _qfclose(fp);
    // the header size stays 20 whatever the count says
    const Bytes want =
        tb::Builder().str("VONO").u32(105).u32(2).u32(100).u32(250).u32(20).str("VONOBS")
            .str("VONO").u32(105).u32(0).u32(0).u32(0).u32(20).str("VONOBS").done();
    EXPECT_EQ(tu::readFile(path), want);
}

TEST(VonoBlockBuffer, TailMarkerGoesToTheFileWriterAndIsLost) {
    YAXBUFFER *buf = _qbopen(64);
    ASSERT_NE(buf, nullptr);
    std::string log = tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(buf, 700, 900), 0); });
    EXPECT_EQ(log, tu::errLine("YAXSystemFile::_qfwrite",
                               "write ret != write size_of_byte  ==> fail(-1 != 6)"));
    // everything but "VONOBS" reached the buffer
    ASSERT_EQ(qbgetWriteSize(buf), 24);
    const Bytes head = tb::Builder().str("VONO").u32(105).u32(1).u32(700).u32(900).u32(20).done();
    EXPECT_EQ(outBytes(qbgetBuffer(buf), 24), head);
    _qbclose(buf);

    // a buffer too small for the words stops before the marker: no file-writer line
    YAXBUFFER *small = _qbopen(10);
    ASSERT_NE(small, nullptr);
    log = tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(small, 1, 2), 0); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(qbgetWriteSize(small), 8);
    _qbclose(small);
    EXPECT_EQ(_writeVonoHeaderBuffer(nullptr, 1, 2), 0);
}

// ---- sound + list appended to a file ----

namespace {

const std::string kMeta = "TonePhoto_Meta_Info";
constexpr char kFirstTag[] = "YAXEncoder::NewAddVonoDataInFirstTime";
constexpr char kFirstFpTag[] = "YAXEncoder::NewAddVonoDataInFirstTimeFP";
constexpr char kAddTag[] = "YAXEncoder::NewAddVonoData";

tb::Entry sound(const std::string &name, const std::string &bytes) {
    return tb::Entry{256, name, bytes, ""};
}
tb::Entry list(const std::vector<std::string> &names) {
    const Bytes p = tb::toneList(names);
    return tb::Entry{2048, kMeta, std::string(p.begin(), p.end()), ""};
}
uint32_t size32(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

}  // namespace

class ToneAdd : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    const Bytes image = tb::fakeImage(300);
    const std::string snd = std::string("\x01\x02\x03\x00\x05sound-bytes", 16);
    const Bytes listPayload = tb::toneList({"rain"});

    // image + [sound "rain", list] + header + Vono block at the sound's bytes
    Bytes expectedFirst() const {
        const uint32_t start = size32(image) + 8 + 4;
        return image + tb::trailer({sound("rain", snd), list({"rain"})}) +
               oneSoundVono(start, start + static_cast<uint32_t>(snd.size()));
    }
};

TEST_F(ToneAdd, FirstTimeOnPathAppendsTrailerAndVonoBlock) {
    tu::writeFile(path, image);
    std::string log = tu::capture([&] {
        EXPECT_EQ(NewAddVonoDataInFirstTime(path.c_str(), 2048, 256, "rain", 4, snd.data(),
                                            size32(tb::bytes(snd)), listPayload.data(),
                                            size32(listPayload)),
                  1);
    });
    EXPECT_EQ(log, "");
    EXPECT_EQ(tu::readFile(path), expectedFirst());
    EXPECT_EQ(getSignature(path.c_str()), SIGNATURE_VONO_YAX);
}

TEST_F(ToneAdd, FirstTimeOnPathRefusalsLeaveFileAlone) {
    tu::writeFile(path, image);
    const auto *d = snd.data();
    const auto *m = listPayload.data();
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(NewAddVonoDataInFirstTime(path.c_str(), 2048, 256, "a", 1, nullptr, 5,
                                                      m, 4),
                            0);
                  EXPECT_EQ(NewAddVonoDataInFirstTime(path.c_str(), 2048, 256, "a", 1, d, 0, m, 4),
                            0);
                  EXPECT_EQ(NewAddVonoDataInFirstTime(path.c_str(), 2048, 256, "a", 1, d, 5,
                                                      nullptr, 4),
                            0);
                  EXPECT_EQ(NewAddVonoDataInFirstTime(path.c_str(), 2048, 256, "a", 1, d, 5, m, 0),
                            0);
                  EXPECT_EQ(NewAddVonoDataInFirstTime(dir.path("none.jpg").c_str(), 2048, 256,
                                                      "a", 1, d, 5, m, 4),
                            0);
              }),
              tu::errLine(kFirstTag, "vono_data null") + tu::errLine(kFirstTag, "vono_data null") +
                  tu::errLine(kFirstTag, "vono_info_data null") +
                  tu::errLine(kFirstTag, "vono_info_data null") +
                  tu::errLine(kFirstTag, "file open error"));
    EXPECT_EQ(tu::readFile(path), image);
    EXPECT_FALSE(tu::exists(dir.path("none.jpg")));
}

TEST_F(ToneAdd, FirstTimeOnStreamWritesAtTheStreamPosition) {
    // image + 40 bytes of old tail that the new content overwrites
    tu::writeFile(path, image + Bytes(40, 0xAB));
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    ASSERT_EQ(_qlseek64(fp, size32(image), SEEK_SET), static_cast<int64_t>(image.size()));
    EXPECT_EQ(NewAddVonoDataInFirstTimeFP(fp, 2048, 256, "rain", 4, snd.data(),
                                          static_cast<uint32_t>(snd.size()), listPayload.data(),
                                          size32(listPayload)),
              1);
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), static_cast<int64_t>(expectedFirst().size()));
    _qfclose(fp);  // the stream stayed open until here
    EXPECT_EQ(tu::readFile(path), expectedFirst());
}

TEST_F(ToneAdd, FirstTimeOnStreamNamesEveryFailure) {
    const auto *d = snd.data();
    const auto *m = listPayload.data();
    // the argument messages end in a blank
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, nullptr, 5, m, 4), 0);
                  EXPECT_EQ(NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, d, 5, m, 0), 0);
                  EXPECT_EQ(NewAddVonoDataInFirstTimeFP(nullptr, 1, 1, "a", 1, d, 5, m, 4), 0);
              }),
              tu::errLine(kFirstFpTag, "vono_data == VELTA_YAX_NULL || vono_data_size <= 0 ") +
                  tu::errLine(kFirstFpTag,
                              "vono_info_data == VELTA_YAX_NULL || vono_info_data_size <= 0 ") +
                  tu::errLine(kFirstFpTag, "fp == VELTA_YAX_NULL "));

    // a stream standing at the very start has no image to append to
    tu::writeFile(path, image);
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(NewAddVonoDataInFirstTimeFP(fp, 1, 1, "a", 1, d, 5, m, 4), 0);
              }),
              tu::errLine(kFirstFpTag, "File Search Error"));
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), image);

    // a stream opened for reading only: the first block's fields cannot be written
    tu::writeFile(path, image);
    fp = _qfopen(path.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    _qlseek64(fp, 0, SEEK_END);
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(NewAddVonoDataInFirstTimeFP(fp, 1, 1, "a", 1, d, 5, m, 4), 0);
              }),
              tu::errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
                  tu::errLine(kFirstFpTag, "File _writeDataTagInfo Error"));
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), image);
}

TEST_F(ToneAdd, AddToExistingTrailerOverwritesHeaderTailAndVonoBlock) {
    // image, an old sound's bytes, a trailer with two entries, the old Vono block
    const tb::Entry a{7, "alpha", "AAAA", "sub"};
    const tb::Entry b = sound("TonePhoto_000", "old-sound");
    const Bytes before = image + tb::trailer({a, b}) + oneSoundVono(1, 2);
    tu::writeFile(path, before);
    YaxInfo *info = ParseYAX(path.c_str(), SIGNATURE_VONO_YAX);
    ASSERT_NE(info, nullptr);
    ASSERT_EQ(getYAXList(info), 1);
    const uint32_t old0 = info->meta_data[0]->offset;

    const Bytes payload = tb::toneList({"TonePhoto_000", "rain"});
    EXPECT_EQ(NewAddVonoData(info, 2048, 256, "rain", 4, snd.data(),
                             static_cast<uint32_t>(snd.size()), payload.data(), size32(payload)),
              1);
    const uint32_t grown = tb::blockLength(sound("rain", snd)) +
                           tb::blockLength(list({"TonePhoto_000", "rain"}));
    EXPECT_EQ(info->meta_data[0]->offset, old0 + grown);  // the record follows the file
    DestroyYAX(info);

    const uint32_t q = size32(image + tb::block(a) + tb::block(b));
    const uint32_t start = q + 8 + 4;
    EXPECT_EQ(tu::readFile(path),
              image + tb::trailer({a, b, sound("rain", snd), list({"TonePhoto_000", "rain"})}) +
                  oneSoundVono(start, start + static_cast<uint32_t>(snd.size())));
}

TEST_F(ToneAdd, AddRefusalsUseUpperCaseNull) {
    const auto *d = snd.data();
    const auto *m = listPayload.data();
    YaxInfo noFile{};
    noFile.valid = 1;
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(NewAddVonoData(&noFile, 1, 1, "a", 1, nullptr, 5, m, 4), 0);
                  EXPECT_EQ(NewAddVonoData(&noFile, 1, 1, nullptr, 1, d, 5, m, 4), 0);
                  EXPECT_EQ(NewAddVonoData(&noFile, 1, 1, "a", 0, d, 5, m, 4), 0);
                  EXPECT_EQ(NewAddVonoData(&noFile, 1, 1, "a", 1, d, 5, nullptr, 4), 0);
                  EXPECT_EQ(NewAddVonoData(nullptr, 1, 1, "a", 1, d, 5, m, 4), 0);
                  EXPECT_EQ(NewAddVonoData(&noFile, 1, 1, "a", 1, d, 5, m, 4), 0);
              }),
              tu::errLine(kAddTag, "vono_data NULL") + tu::errLine(kAddTag, "vono_name NULL") +
                  tu::errLine(kAddTag, "vono_name NULL") +
                  tu::errLine(kAddTag, "vono_info_data NULL") +
                  tu::errLine(kAddTag, "yax_info NULL") +
                  tu::errLine(kAddTag, "yax_info->fp NULL"));
}

// ---- rows of an edited trailer ----

TEST(ToneRows, CustomRowsShiftTheTailRowsUpAndTheMovedRowsDown) {
    tu::TempDir dir;
    const std::string path = dir.path("rows.bin");
    tu::writeFile(path, {});
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    YaxEntry e[4] = {};
    YaxEntry *rows[4] = {&e[0], &e[1], &e[2], &e[3]};
    for (uint32_t i = 0; i < 4; ++i) {
        e[i].meta_type = (i + 1) << 16;
        e[i].offset = 1000 - 100 * i;
        e[i].length = 10 + i;
    }
    YaxInfo info{};
    info.fp = fp;
    info.meta_count = 4;
    info.meta_data = rows;

    EXPECT_EQ(writeCustomQDR(&info, 2, 0, 50, 7), 1);  // rows 2, 3 grow; then 0, 1 shrink
    EXPECT_EQ(writeCustomQDR(&info, 3, 1, 0, 0), 1);   // row 3, then rows 1, 2 unchanged
    EXPECT_EQ(writeCustomQDR(&info, 1, 1, 5, 5), 1);   // from == first: only rows 1..3
    _qfclose(fp);
    EXPECT_EQ(e[0].offset, 1000u);  // the table itself is not changed

    tb::Builder w;
    w.u32(3 << 16).u32(850).u32(12).u32(4 << 16).u32(750).u32(13);
    w.u32(1 << 16).u32(993).u32(10).u32(2 << 16).u32(893).u32(11);
    w.u32(4 << 16).u32(700).u32(13).u32(2 << 16).u32(900).u32(11).u32(3 << 16).u32(800).u32(12);
    w.u32(2 << 16).u32(905).u32(11).u32(3 << 16).u32(805).u32(12).u32(4 << 16).u32(705).u32(13);
    EXPECT_EQ(tu::readFile(path), w.done());
}

// ---- name lists extended and shortened from a parsed trailer ----

class ToneListEdit : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("list.jpg");
    YaxInfo *info = nullptr;
    unsigned char out[1000];

    // A trailer whose entry 1 carries `listBytes` as the list payload.
    void open(const Bytes &listBytes) {
        const std::string p(listBytes.begin(), listBytes.end());
        tu::writeFile(path, tb::fakeImage(200) + tb::trailer({sound("a", "xx"),
                                                              tb::Entry{2048, kMeta, p, ""}}));
        info = ParseYAX(path.c_str(), SIGNATURE_YAX);
        ASSERT_NE(info, nullptr);
        ASSERT_EQ(getYAXList(info), 1);
        std::memset(out, 0xEE, sizeof out);
    }
    void TearDown() override { DestroyYAX(info); }
};

TEST_F(ToneListEdit, MinusAlwaysDropsTheLastName) {
    open(tb::toneList({"a", "bb", "ccc"}, 7, 9));
    for (const char *name : {"a", "bb", "ccc", "none"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(makeMinusVonoHeader(out, info, 1, 0, name), 12u + 8u + 3u);
        EXPECT_EQ(outBytes(out, 23), tb::toneList({"a", "bb"}, 7, 9));
        EXPECT_EQ(out[23], 0xEE);
    }
    EXPECT_EQ(makeMinusVonoHeader(out, info, 1, 0, nullptr), 23u);
    EXPECT_EQ(makeMinusVonoHeader(out, info, 2, 0, "a"), 0u);  // no such entry
}

TEST_F(ToneListEdit, MinusOnAnEmptyListWritesAllOnesAndReturnsEight) {
    open(tb::toneList({}, 1, 0));
    EXPECT_EQ(makeMinusVonoHeader(out, info, 1, 0, "a"), 8u);
    EXPECT_EQ(outBytes(out, 12), tb::Builder().u32(1).u32(0).u32(0xFFFFFFFFu).done());
    EXPECT_EQ(out[12], 0xEE);
}

TEST_F(ToneListEdit, AddAppendsOneNameKeepingTheLeadingWords) {
    open(tb::toneList({"a", "bb"}, 3, 4));
    EXPECT_EQ(makeAddVonoHeader(out, info, 1, 0, "rain", 4), 16u + 8u + 3u + 4u);
    EXPECT_EQ(outBytes(out, 31), tb::toneList({"a", "bb", "rain"}, 3, 4));
    EXPECT_EQ(out[31], 0xEE);
}

TEST_F(ToneListEdit, AddToAnEmptyListGivesOneName) {
    open(tb::toneList({}));
    EXPECT_EQ(makeAddVonoHeader(out, info, 1, 0, "rain", 4), 20u);
    EXPECT_EQ(outBytes(out, 20), tb::toneList({"rain"}));
}

TEST_F(ToneListEdit, AddFailurePrintsItsConsoleLine) {
    open(tb::toneList({"a"}));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(makeAddVonoHeader(out, info, 5, 0, "x", 1), 0u); }),
              "error!!!!!!!!\n");
    EXPECT_EQ(out[0], 0xEE);
}

TEST_F(ToneListEdit, ListsClaimingMoreThanTheyHoldAreRefused) {
    // a count far past the payload, and a name length past its end
    const Bytes bigCount = tb::Builder().u32(1).u32(0).u32(0x40000000u).u32(1).str("a").done();
    const Bytes longName = tb::Builder().u32(1).u32(0).u32(2).u32(1).u32(0xFFFFFFF0u).str("ab").done();
    for (const Bytes &bad : {bigCount, longName}) {
        open(bad);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(makeAddVonoHeader(out, info, 1, 0, "x", 1), 0u); }),
                  "error!!!!!!!!\n");
        EXPECT_EQ(makeMinusVonoHeader(out, info, 1, 0, "a"), 0u);
        EXPECT_EQ(out[0], 0xEE);
        DestroyYAX(info);
        info = nullptr;
    }
}

// ---- the name-list readers on query records ----

class ToneReaders : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    YAXDATA *yd = nullptr;

    // A trailer with two sounds and `listBytes` as the list payload, behind an image.
    void make(const Bytes &listBytes, bool withList = true) {
        std::vector<tb::Entry> entries = {sound("a", "AAAA"), sound("rain", "RRRRRR")};
        if (withList) {
            const std::string p(listBytes.begin(), listBytes.end());
            entries.push_back(tb::Entry{2048, kMeta, p, ""});
        }
        tu::writeFile(path, tb::fakeImage(256) + tb::trailer(entries));
        yd = checkYAXInFile(path.c_str());
        ASSERT_NE(yd, nullptr);
    }
    YAXDATA_UNIT *listUnit() {
        return extractYAXDataFromFilebyName(yd, kMeta.c_str(), static_cast<uint32_t>(kMeta.size()));
    }
    void TearDown() override { destroyYAXDATA(yd); }
};

TEST_F(ToneReaders, WellFormedListIsReadEveryWay) {
    make(tb::toneList({"a", "rain"}));
    // the check function filled the record's list already
    ASSERT_EQ(yd->tonephoto_count, 2u);
    ASSERT_NE(yd->tonephoto_name_list, nullptr);
    EXPECT_STREQ(yd->tonephoto_name_list[0], "a");
    EXPECT_STREQ(yd->tonephoto_name_list[1], "rain");
    // a second lookup replaces the list in place
    EXPECT_EQ(getTonePhotoInFile(yd), 1);
    EXPECT_EQ(yd->tonephoto_count, 2u);

    char **names = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(getTonePhotoNameList(yd, &names, &count), 1);
    ASSERT_EQ(count, 2u);
    EXPECT_STREQ(names[0], "a");
    EXPECT_STREQ(names[1], "rain");
    for (uint32_t i = 0; i < count; ++i) _qfree(names[i]);
    _qfree(names);

    EXPECT_EQ(getVonoCntInFile(yd), 2);
    EXPECT_EQ(isVonoMetaInfo(yd), 1);

    YAXDATA_UNIT *meta = listUnit();
    ASSERT_NE(meta, nullptr);
    char *name = nullptr;
    EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 1), 1);
    EXPECT_STREQ(name, "rain");
    _qfree(name);
    EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 2), 0);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "rain"), 1);
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "Rain"), 0);  // case counts
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "rai"), 0);
    EXPECT_EQ(isIdenticalNameInMetaInfo(nullptr, "rain"), 0);
    destroyYAXDATA_UNIT(meta);

    // the sound's payload position: image, block "a" (8 + 1 + 4), then 8 + 4 name bytes
    YAXOFFSET *off = getVonoInFile(yd, "rain");
    ASSERT_NE(off, nullptr);
    EXPECT_EQ(off->offset, 256u + 13u + 12u);
    EXPECT_EQ(off->length, 6u);
    destroyYAXOFFSET(off);
    EXPECT_EQ(getVonoInFile(nullptr, "rain"), nullptr);
}

TEST_F(ToneReaders, FileWithoutListHasNone) {
    make({}, false);
    EXPECT_EQ(yd->tonephoto_count, 0u);
    EXPECT_EQ(yd->tonephoto_name_list, nullptr);
    EXPECT_EQ(getTonePhotoInFile(yd), -1);
    char **names = reinterpret_cast<char **>(&yd);  // must be overwritten
    uint32_t count = 9;
    EXPECT_EQ(getTonePhotoNameList(yd, &names, &count), 0);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(getVonoCntInFile(yd), -1);
    EXPECT_EQ(isVonoMetaInfo(yd), 0);
    EXPECT_EQ(getTonePhotoInFile(nullptr), -1);
    EXPECT_EQ(getVonoCntInFile(nullptr), -1);
}

TEST_F(ToneReaders, EmptyListGivesZero) {
    make(tb::toneList({}));
    EXPECT_EQ(getTonePhotoInFile(yd), 0);
    EXPECT_EQ(yd->tonephoto_count, 0u);
    EXPECT_EQ(yd->tonephoto_name_list, nullptr);
    EXPECT_EQ(getVonoCntInFile(yd), 0);
    EXPECT_EQ(isVonoMetaInfo(yd), 1);
    YAXDATA_UNIT *meta = listUnit();
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, ""), 0);
    destroyYAXDATA_UNIT(meta);
}

TEST_F(ToneReaders, MalformedListsReadAsHoldingNoNames) {
    const std::vector<Bytes> bad = {
        tb::Builder().u32(1).u32(0).u32(0x40000001u).u32(4).str("rain").done(),  // count
        tb::Builder().u32(1).u32(0).u32(1).u32(5).str("rain").done(),            // length
        tb::Builder().u32(1).u32(0).u32(2).u32(4).u32(0xFFFFFFFDu).str("rain").done(),
        tb::Builder().u32(1).u32(0).done(),  // shorter than its count field
    };
    for (size_t i = 0; i < bad.size(); ++i) {
        SCOPED_TRACE(i);
        make(bad[i]);
        EXPECT_EQ(yd->tonephoto_count, 0u);
        EXPECT_EQ(yd->tonephoto_name_list, nullptr);
        EXPECT_EQ(getTonePhotoInFile(yd), 0);
        EXPECT_EQ(getVonoCntInFile(yd), 0);
        char **names = nullptr;
        uint32_t count = 7;
        EXPECT_EQ(getTonePhotoNameList(yd, &names, &count), 0);
        EXPECT_EQ(count, 0u);
        YAXDATA_UNIT *meta = listUnit();
        ASSERT_NE(meta, nullptr);
        char *name = nullptr;
        EXPECT_EQ(getTonePhotoNameByIndex(meta, &name, 0), 0);
        EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "rain"), 0);
        destroyYAXDATA_UNIT(meta);
        destroyYAXDATA(yd);
        yd = nullptr;
    }
}

TEST_F(ToneReaders, NameWithZeroByteIsCutForComparison) {
    make(tb::toneList({std::string("ra\0in", 5)}));
    YAXDATA_UNIT *meta = listUnit();
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "ra"), 1);
    EXPECT_EQ(isIdenticalNameInMetaInfo(meta, "rain"), 0);
    destroyYAXDATA_UNIT(meta);
}

TEST_F(ToneReaders, AddedListBesideAnOlderOneIsNotTheOneFound) {
    make(tb::toneList({"a"}));
    const Bytes newer = tb::toneList({"a", "rain", "snow"});
    const std::string s = "SNOW";
    EXPECT_EQ(NewAddVonoData(yd->yax_info, 2048, 256, "snow", 4, s.data(), 4, newer.data(),
                             size32(newer)),
              1);
    destroyYAXDATA(yd);
    yd = checkYAXInFile(path.c_str());
    ASSERT_NE(yd, nullptr);
    EXPECT_EQ(yd->count, 5u);
    // the name search finds the older list first
    ASSERT_EQ(yd->tonephoto_count, 1u);
    EXPECT_STREQ(yd->tonephoto_name_list[0], "a");
    EXPECT_EQ(getVonoCntInFile(yd), 1);
}

// ---- conversion of a legacy file ----

namespace {

Bytes sampleJpeg() { return tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg"); }

bool decodes(const std::string &path) {
    const std::string cmd = "/usr/bin/djpeg -outfile /dev/null '" + path + "' 2>/dev/null";
    return std::system(cmd.c_str()) == 0;
}

}  // namespace

class ToneConvert : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    const Bytes jpeg = sampleJpeg();
    const std::string snd = std::string("legacy\0sound\xff\x01 bytes", 21);

    uint32_t p() const { return size32(jpeg); }
    uint32_t s() const { return static_cast<uint32_t>(snd.size()); }
    Bytes legacy() const { return jpeg + tb::bytes(snd) + oneSoundVono(p(), p() + s()); }
};

TEST_F(ToneConvert, LegacyFileBecomesSoundAndListEntries) {
    ASSERT_GT(jpeg.size(), 100u);
    tu::writeFile(path, legacy());
    VonoInfo *vono = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(vono, nullptr);
    EXPECT_EQ(convertVonoToTonePhoto(&vono, path.c_str()), 1);
    DestroyVono(vono);

    const Bytes want = jpeg +
                       tb::block(sound("TonePhoto_000", snd)) +  // 8 + 13 + S
                       tb::block(list({"TonePhoto_000"})) +      // 8 + 19 + 29
                       tb::header(tb::rowsFor({sound("TonePhoto_000", snd),
                                               list({"TonePhoto_000"})})) +
                       oneSoundVono(p() + 21, p() + 21 + s());
    ASSERT_EQ(tb::blockLength(list({"TonePhoto_000"})), 8u + 19u + 29u);
    EXPECT_EQ(tu::readFile(path), want);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"});  // no temporary file left
    EXPECT_TRUE(decodes(path));

    // and it reads back as a TonePhoto file
    YAXDATA *yd = checkYAXInFile(path.c_str());
    ASSERT_NE(yd, nullptr);
    ASSERT_EQ(yd->tonephoto_count, 1u);
    EXPECT_STREQ(yd->tonephoto_name_list[0], "TonePhoto_000");
    YAXOFFSET *off = getVonoInFile(yd, "TonePhoto_000");
    ASSERT_NE(off, nullptr);
    EXPECT_EQ(off->offset, p() + 21);
    EXPECT_EQ(off->length, s());
    destroyYAXOFFSET(off);
    destroyYAXDATA(yd);
}

TEST_F(ToneConvert, RefusedWithoutARecordOrASound) {
    EXPECT_EQ(convertVonoToTonePhoto(nullptr, path.c_str()), 0);
    VonoInfo *none = nullptr;
    EXPECT_EQ(convertVonoToTonePhoto(&none, path.c_str()), 0);
    EXPECT_EQ(_convertVonoToTonePhoto(&none), 0);

    // a record whose first sound fails the range test: the file is not touched
    const Bytes bad = jpeg + tb::bytes(snd) + oneSoundVono(p(), p());
    tu::writeFile(path, bad);
    VonoInfo *vono = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(vono, nullptr);
    EXPECT_EQ(convertVonoToTonePhoto(&vono, path.c_str()), 0);
    DestroyVono(vono);
    EXPECT_EQ(tu::readFile(path), bad);
}

TEST_F(ToneConvert, StreamConversionOverwritesTheLegacyBlockInPlace) {
    tu::writeFile(path, legacy());
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    VonoInfo *vono = _checkAudioInImageFP(fp);
    ASSERT_NE(vono, nullptr);
    EXPECT_EQ(_convertVonoToTonePhoto(&vono), 1);
    DestroyVonoFP(vono);
    _qfclose(fp);
    // the same file as the path flavour makes, without a temporary file
    const Bytes want = jpeg +
                       tb::trailer({sound("TonePhoto_000", snd), list({"TonePhoto_000"})}) +
                       oneSoundVono(p() + 21, p() + 21 + s());
    EXPECT_EQ(tu::readFile(path), want);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"});
    EXPECT_TRUE(decodes(path));
}
