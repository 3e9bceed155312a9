// Editing the legacy audio block in real files: first sound, replacement and
// deletion with and without a trailer (whole files compared byte for byte,
// image still decodes, no temporary file left), the size check's table
// index, temporary names, extraction and copy.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "testutil.hpp"
#include "yax_support.h"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;

namespace {

Bytes jpeg() {
    static const Bytes j = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg");
    return j;
}

uint32_t sz(const Bytes &b) { return static_cast<uint32_t>(b.size()); }

// The block left behind when the sound of a file with a trailer is deleted:
// count 0, yet one zero pair and a header size of 20.
Bytes emptyBlock() {
    return tb::Builder().str("VONO").u32(105).u32(0).u32(0).u32(0).u32(20).str("VONOBS").done();
}

const std::vector<tb::Entry> kEntries = {
    {1, "alpha", "payload-one", ""},
    {7, "beta", "pp", "sub"},
};

// A decoder still reads the image (skipped where no decoder is installed).
bool decodes(const std::string &path) {
    if (access("/usr/bin/djpeg", X_OK) != 0) return true;
    return std::system(("/usr/bin/djpeg '" + path + "' > /dev/null 2>&1").c_str()) == 0;
}

class VonoLegacy : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");

    void put(const Bytes &b) { tu::writeFile(path, b); }
    Bytes now() const { return tu::readFile(path); }
    // Only the edited file remains: no temporary file outlives the edit.
    void expectAlone() const { EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"}); }
};

}  // namespace

TEST_F(VonoLegacy, FirstSoundOnARealJpegAndItsDeletion) {
    const Bytes img = jpeg();
    ASSERT_EQ(img.size(), 719u);
    const uint32_t p = sz(img);
    put(img);
    const Bytes sound = tb::bytes("RIFF....sound bytes....");
    EXPECT_EQ(AddVonoSoundInFirstTime(path.c_str(), sound.data(), sz(sound)),
              static_cast<int64_t>(p + sz(sound) + 30));
    EXPECT_EQ(now(), img + sound + tb::vonoBlock({{p, p + sz(sound)}}));
    EXPECT_TRUE(decodes(path));

    // replacing the sound: the old one is cut off, the new one appended
    VonoInfo *v = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(v, nullptr);
    const Bytes other = tb::bytes("second take");
    int r = 0;
    EXPECT_EQ(tu::capture([&] { r = addVonoSound(path.c_str(), v, other.data(), sz(other)); }),
              "meta null\n");
    EXPECT_EQ(r, static_cast<int>(p + sz(other) + 30));
    EXPECT_EQ(v->fp, nullptr);  // the record's stream was released by the edit
    DestroyVono(v);
    EXPECT_EQ(now(), img + other + tb::vonoBlock({{p, p + sz(other)}}));
    expectAlone();

    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteAVono(path.c_str()), 1); }), "meta null\n");
    EXPECT_EQ(now(), img);
    EXPECT_TRUE(decodes(path));
    expectAlone();
    EXPECT_EQ(deleteAVono(path.c_str()), 0);  // nothing left to delete
}

TEST_F(VonoLegacy, TrailerKeptByteForByteAcrossDeleteAndAdds) {
    const Bytes img = jpeg();
    const uint32_t p = sz(img);
    const Bytes trailer = tb::trailer(kEntries);
    const Bytes sound = tb::bytes("0123456789abcdef");
    put(img + sound + trailer + tb::vonoBlock({{p, p + sz(sound)}}));

    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteAVono(path.c_str()), 1); }), "meta not null\n");
    EXPECT_EQ(now(), img + trailer + emptyBlock());
    EXPECT_TRUE(decodes(path));
    expectAlone();

    // A record without sounds: the sound goes in front of the trailer, but
    // the add reports the (absent) delete's 0.
    VonoInfo *empty = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->count, 0u);
    const Bytes s2 = tb::bytes("new sound");
    int r = -1;
    EXPECT_EQ(tu::capture([&] { r = addVonoSound(path.c_str(), empty, s2.data(), sz(s2)); }),
              "meta not null\n");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(empty->fp, nullptr);
    DestroyVono(empty);
    EXPECT_EQ(now(), img + s2 + trailer + tb::vonoBlock({{p, p + sz(s2)}}));
    EXPECT_TRUE(decodes(path));
    expectAlone();

    // A record with a sound: deleted first, then replaced; the result is the
    // delete's 1, and the caller still owns (and destroys) its record.
    VonoInfo *full = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(full, nullptr);
    const Bytes s3 = tb::bytes("third, a little longer sound");
    EXPECT_EQ(tu::capture([&] { r = addVonoSound(path.c_str(), full, s3.data(), sz(s3)); }),
              "meta not null\n");
    EXPECT_EQ(r, 1);
    EXPECT_EQ(full->fp, nullptr);
    DestroyVono(full);
    EXPECT_EQ(now(), img + s3 + trailer + tb::vonoBlock({{p, p + sz(s3)}}));
    EXPECT_TRUE(decodes(path));
    expectAlone();

    // without a record nothing is written
    EXPECT_EQ(tu::capture([&] { r = addVonoSound(path.c_str(), nullptr, s2.data(), sz(s2)); }),
              "meta not null\n");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(now(), img + s3 + trailer + tb::vonoBlock({{p, p + sz(s3)}}));
}

TEST_F(VonoLegacy, HasYaxDataAnswers) {
    const Bytes img = tb::fakeImage(200);
    put(img + tb::bytes("snd") + tb::vonoBlock({{200, 203}}));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(hasYAXData(path.c_str(), nullptr), 1); }),
              "meta null\n");
    VonoInfo bare{};
    EXPECT_EQ(hasYAXData(path.c_str(), &bare), 0);  // no stream
    put(img);
    EXPECT_EQ(hasYAXData(path.c_str(), nullptr), 0);  // no block at all

    // a block with fewer than 4 bytes in front of it
    put(tb::bytes("ab") + tb::vonoBlock({{0, 1}}));
    VonoInfo *v = ParseVono(path.c_str());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(hasYAXData(path.c_str(), v), 0); }),
              tu::errLine("_qlseek", "errno : 22") +
                  tu::errLine("VonoAPIs::hasYAXData", "File Search Error"));
    DestroyVono(v);
}

TEST_F(VonoLegacy, RoomCheckReadsTheOddTableIndex) {
    const std::string msg = tu::errLine(
        "checkVonoInfoForSaving",
        "There is no space for saving YAX data in the source file, a vnoo data");
    // no sound: 22 plus the three sizes must stay below 0xFFF00001
    VonoInfo none{};
    EXPECT_EQ(checkVonoInfoForSaving(&none, 4293918000u, 600u, 98u), 1);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkVonoInfoForSaving(&none, 4293918000u, 600u, 99u), 0); }),
              msg);
    EXPECT_EQ(checkVonoInfoForSaving(nullptr, 4293918698u, 0, 0), 1);

    // One sound: index -1, the word in front of the table, which in the block
    // is the count (1). The table is allocated exactly, so a read in front of
    // it would be caught.
    VonoInfo one{};
    one.count = 1;
    one.offsets = static_cast<uint32_t *>(_qmalloc(2 * sizeof(uint32_t)));
    one.offsets[0] = 500000;
    one.offsets[1] = 900000;
    EXPECT_EQ(checkVonoInfoForSaving(&one, 4293918697u, 0, 0), 1);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkVonoInfoForSaving(&one, 4293918698u, 0, 0), 0); }),
              msg);
    _qfree(one.offsets);

    // Two sounds: index 1, the end of the first (not the last) sound.
    VonoInfo two{};
    two.count = 2;
    two.offsets = static_cast<uint32_t *>(_qmalloc(4 * sizeof(uint32_t)));
    uint32_t table[4] = {100, 1000, 1000, 7000000};
    std::memcpy(two.offsets, table, sizeof table);
    EXPECT_EQ(checkVonoInfoForSaving(&two, 4293918698u - 1000u, 0, 0), 1);
    EXPECT_EQ(checkVonoInfoForSaving(&two, 4293918699u - 1000u, 0, 0), 0);
    // the sum is taken in 64 bits: sizes that wrap 32 bits are still refused
    EXPECT_EQ(checkVonoInfoForSaving(&two, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu), 0);
    _qfree(two.offsets);
}

TEST_F(VonoLegacy, TemporaryNamesCycleTheFirstDigit) {
    auto name = [](const char *p) {
        char *n = _getVonoTempFileName(p);
        std::string s = n ? n : "(null)";
        _qfree(n);
        return s;
    };
    EXPECT_EQ(name(path.c_str()), dir.path("photo000.tmp"));
    EXPECT_EQ(name(".jpg"), "(null)");  // extension index 0
    EXPECT_EQ(name(""), "(null)");
    EXPECT_EQ(name(nullptr), "(null)");

    tu::writeFile(dir.path("photo000.tmp"), {});
    EXPECT_EQ(name(path.c_str()), dir.path("photo100.tmp"));
    for (int d = 1; d < 10; ++d)
        tu::writeFile(dir.path("photo" + std::to_string(d) + "00.tmp"), {});
    // every name taken: after 999 tries the 999th name is used anyway
    EXPECT_EQ(name(path.c_str()), dir.path("photo800.tmp"));
}

TEST_F(VonoLegacy, UnopenableTemporaryFileReportsSuccess) {
    const Bytes f = tb::fakeImage(100) + tb::bytes("abc") + tb::vonoBlock({{100, 103}});
    put(f);
    // every candidate name is a directory: probed as taken, never writable
    for (int d = 0; d < 10; ++d)
        ASSERT_EQ(mkdir(dir.path("photo" + std::to_string(d) + "00.tmp").c_str(), 0700), 0);
    EXPECT_EQ(deleteVono_NotExistYAX(path.c_str(), nullptr), 1);
    EXPECT_EQ(now(), f);
}

TEST_F(VonoLegacy, DeletesWithoutAUsableRecord) {
    const Bytes img = tb::fakeImage(100);
    // no sounds, no trailer: nothing to cut
    const Bytes noSound = img + emptyBlock();
    put(noSound);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteAVono(path.c_str()), 0); }), "sound_count 0\n");
    EXPECT_EQ(now(), noSound);
    expectAlone();

    // no Vono data at all: the copy cannot start; the empty temporary file
    // stays behind and success is reported
    put(img);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteVono_NotExistYAX(path.c_str(), nullptr), 1); }),
              tu::errLine("VonoAPIs::deleteVono_NotExistYAX", "File Search Error"));
    EXPECT_EQ(now(), img);
    EXPECT_EQ(tu::readFile(dir.path("photo000.tmp")), Bytes{});
    EXPECT_EQ(deleteVono_ExistYAX(path.c_str(), nullptr), 0);  // no trailer
}

TEST_F(VonoLegacy, StreamDeletePositionsWithoutCutting) {
    const Bytes f = tb::fakeImage(120) + tb::bytes("sound") + tb::vonoBlock({{120, 125}});
    put(f);
    FILE *fp = std::fopen(path.c_str(), "r+b");
    EXPECT_EQ(deleteVono_NotExistYAX_FP(fp, nullptr), 1);
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), 120);
    // the caller writes from there; the rest is untouched until then
    EXPECT_EQ(now(), f);
    EXPECT_EQ(_qfwrite("XY", 2, fp), 2);
    std::fclose(fp);  // still the caller's stream
    Bytes want = f;
    want[120] = 'X';
    want[121] = 'Y';
    EXPECT_EQ(now(), want);

    EXPECT_EQ(deleteVono_NotExistYAX_FP(nullptr, nullptr), 0);
    put(tb::fakeImage(50));
    fp = std::fopen(path.c_str(), "rb");
    EXPECT_EQ(deleteVono_NotExistYAX_FP(fp, nullptr), 0);
    std::fclose(fp);
}

TEST_F(VonoLegacy, FirstTimeFailures) {
    put({});
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(AddVonoSoundInFirstTime(path.c_str(), "x", 1), -1); }),
              tu::errLine("Vono::AddVonoSoundInFirstTime", "File Search error 0"));
    EXPECT_EQ(now(), Bytes{});
    EXPECT_EQ(AddVonoSoundInFirstTime(dir.path("no/such.jpg").c_str(), "x", 1), 0);
}

TEST_F(VonoLegacy, SoundExtraction) {
    const Bytes img = tb::fakeImage(64);
    const Bytes sound = tb::bytes("extract me please");
    put(img + sound + tb::vonoBlock({{64, 64 + sz(sound)}}));
    VonoInfo *v = _checkAudioInImageFile(path.c_str());
    ASSERT_NE(v, nullptr);

    unsigned char *bytes = _getAudioStreamBuffer(v);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(Bytes(bytes, bytes + sz(sound)), sound);
    _qfree(bytes);

    const std::string out = dir.path("sound.raw");
    EXPECT_EQ(_getSoundFileCreate(v, out.c_str()), static_cast<int>(sz(sound)));
    EXPECT_EQ(tu::readFile(out), sound);

    // without a stream the buffer goes out unread
    FILE *keep = v->fp;
    v->fp = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_getSoundFileCreate(v, out.c_str()), 17); }),
              "file null\n");
    EXPECT_EQ(tu::readFile(out), Bytes(17, 0));
    EXPECT_EQ(_getAudioStreamBuffer(v), nullptr);
    v->fp = keep;

    // ranges that cannot be a sound of this file give nothing
    v->offsets[0] = 90;
    v->offsets[1] = 70;  // end in front of start
    EXPECT_EQ(_getAudioStreamBuffer(v), nullptr);
    EXPECT_EQ(_getSoundFileCreate(v, out.c_str()), 0);
    v->offsets[0] = 0;
    v->offsets[1] = 10;
    EXPECT_EQ(_getAudioStreamBuffer(v), nullptr);
    DestroyVono(v);
}

TEST_F(VonoLegacy, CopyBetweenFiles) {
    const Bytes img = jpeg();
    const uint32_t p = sz(img);
    const std::string src = dir.path("src.jpg");
    const Bytes sound = tb::bytes("copied sound");
    tu::writeFile(src, tb::fakeImage(30) + sound + tb::vonoBlock({{30, 30 + sz(sound)}}));

    put(img);
    EXPECT_EQ(_copyAudioData(src.c_str(), path.c_str()), 1);
    const Bytes once = img + sound + tb::vonoBlock({{p, p + sz(sound)}});
    EXPECT_EQ(now(), once);
    EXPECT_TRUE(decodes(path));

    // The destination's table is not read, so its sound is not replaced: a
    // second block lands behind the first.
    std::string log = tu::capture([&] { EXPECT_EQ(_copyAudioData(src.c_str(), path.c_str()), 1); });
    EXPECT_EQ(log, "meta null\n");
    const uint32_t q = sz(once);
    EXPECT_EQ(now(), once + sound + tb::vonoBlock({{q, q + sz(sound)}}));

    // a source without Vono data: nothing happens, still 1
    const Bytes before = now();
    tu::writeFile(src, img);
    EXPECT_EQ(_copyAudioData(src.c_str(), path.c_str()), 1);
    EXPECT_EQ(now(), before);
}

TEST_F(VonoLegacy, UnfinishedOffsetWriter) {
    put(jpeg());
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_writeVonoOffset(path.c_str()), 0); }),
              "Vono is null\n");
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"photo.jpg", "photo000.tmp"}));
    EXPECT_EQ(tu::readFile(dir.path("photo000.tmp")), Bytes{});
}

TEST_F(VonoLegacy, MalformedBlocksLeaveFilesAlone) {
    const Bytes img = tb::fakeImage(300);
    // header size that overflows when the tail probe is added
    const Bytes huge = img + tb::vonoBlock({{1, 2}}, 105, 0xFFFFFFFFu);
    // a count the file cannot hold
    const Bytes many = img + tb::Builder().str("VONO").u32(105).u32(0x40000000u).u32(300).u32(301)
                                 .u32(20).str("VONOBS").done();
    for (const Bytes &f : {huge, many}) {
        put(f);
        tu::capture([&] {
            EXPECT_EQ(deleteAVono(path.c_str()), 0);
            EXPECT_EQ(hasYAXData(path.c_str(), nullptr), 0);
            EXPECT_EQ(_copyAudioData(path.c_str(), dir.path("other.jpg").c_str()), 1);
        });
        EXPECT_EQ(now(), f);
        expectAlone();
    }
}
