// Editing the legacy audio block in real files: first sound, replacement and
// deletion with and without a trailer (whole files compared byte for byte,
// image still decodes, no temporary file left), the room check's table index,
// temporary names, extraction and copy.
#include <sys/stat.h>
#include <utility>

#include "api_fixture.hpp"
#include "yax_support.h"
#include "yax_vono.h"

using namespace at;
using tu::errLine;

namespace {

// A one-sound block whose count word says `count`.
Bytes withCount(uint32_t count, uint32_t start, uint32_t end) {
    Bytes b = tb::vonoBlock({{start, end}});
    for (int i = 0; i < 4; ++i) b[8 + i] = static_cast<uint8_t>(count >> (8 * i));
    return b;
}
// The block left behind when the sound of a file with a trailer is deleted:
// count 0, yet one zero pair and a header size of 20.
const Bytes kEmptyBlock = withCount(0, 0, 0);
uint32_t sz(const Bytes &b) { return u32size(b); }

struct VonoLegacy : ApiTest {
    const std::string &path = file;
    const Bytes jpeg = host();
    // the file as expected, its image still decoding, no temporary file left
    void expectFile(const Bytes &want) const {
        EXPECT_EQ(now(), want);
        expectAlone();
        expectDecodes();
    }
};

}  // namespace

TEST_F(VonoLegacy, AddReplaceAndDeleteWithAndWithoutATrailer) {
    const uint32_t p = sz(jpeg);
    const Bytes s1 = tb::bytes("RIFF....sound bytes...."), s2 = tb::bytes("second take");
    const Bytes s3 = tb::bytes("third, longer");
    const Bytes trailer = tb::trailer({{1, "alpha", "payload-one", ""}, {7, "beta", "pp", "sub"}});
    for (bool withTrailer : {false, true}) {
        SCOPED_TRACE(withTrailer);
        const Bytes tail = withTrailer ? trailer : Bytes{};
        auto withSound = [&](const Bytes &s) { return jpeg + s + tail + vono1(p, p + sz(s)); };
        const std::string where = withTrailer ? "meta not null\n" : "meta null\n";
        put(withTrailer ? withSound(s1) : jpeg);
        if (!withTrailer) {
            EXPECT_EQ(AddVonoSoundInFirstTime(path.c_str(), s1.data(), sz(s1)), p + sz(s1) + 30);
        }
        expectFile(withSound(s1));

        // Replacing: the old sound is cut, the new one goes where it was. The
        // result is the new size, or with a trailer the delete's 1. The
        // caller's record loses its stream but stays the caller's.
        VonoInfo *v = _checkAudioInImageFile(path.c_str());
        int r = -1;
        EXPECT_EQ(tu::capture([&] { r = addVonoSound(path.c_str(), v, s2.data(), sz(s2)); }), where);
        EXPECT_EQ(r, withTrailer ? 1 : static_cast<int>(p + sz(s2) + 30));
        EXPECT_EQ(v->fp, nullptr);
        DestroyVono(v);
        expectFile(withSound(s2));

        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteAVono(path.c_str()), 1); }), where);
        expectFile(withTrailer ? jpeg + trailer + kEmptyBlock : jpeg);
        // nothing left to delete; a record without sounds says so
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteAVono(path.c_str()), 0); }),
                  withTrailer ? "sound_count 0\n" : "");

        // Adding to a record without sounds: with a trailer the sound goes in
        // front of it but the add reports the (absent) delete's 0; without a
        // block there is no record and nothing is written.
        v = _checkAudioInImageFile(path.c_str());
        const Bytes before = now();
        tu::capture([&] { EXPECT_EQ(addVonoSound(path.c_str(), v, s3.data(), sz(s3)), 0); });
        DestroyVono(v);
        expectFile(withTrailer ? withSound(s3) : before);
    }
}

TEST_F(VonoLegacy, FailedDeletesAndAddsLeaveTheFileAndSometimesATemporary) {
    const Bytes img = tb::fakeImage(100), f = img + tb::bytes("abc") + tb::vonoBlock({{100, 103}});
    const std::string temp = dir.path("photo000.tmp");
    // no block to copy from: the empty temporary file stays behind, success is reported
    put(img);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteVono_NotExistYAX(path.c_str(), nullptr), 1); }),
              errLine("VonoAPIs::deleteVono_NotExistYAX", "File Search Error"));
    EXPECT_EQ(deleteVono_ExistYAX(path.c_str(), nullptr), 0);  // no trailer
    EXPECT_EQ(now(), img);
    EXPECT_EQ(tu::readFile(temp), Bytes{});
    // the unfinished offset writer leaves just an empty temporary file
    std::remove(temp.c_str());
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_writeVonoOffset(path.c_str()), 0); }), "Vono is null\n");
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"photo.jpg", "photo000.tmp"}));
    EXPECT_EQ(tu::readFile(temp), Bytes{});
    // every temporary name is a directory: probed as taken, never writable, success reported
    put(f);
    for (int d = 0; d < 10; ++d) mkdir(dir.path("photo" + std::to_string(d) + "00.tmp").c_str(), 0700);
    EXPECT_EQ(deleteVono_NotExistYAX(path.c_str(), nullptr), 1);
    EXPECT_EQ(now(), f);
    // an empty file has no place for a first sound; a missing directory none at all
    put({});
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(AddVonoSoundInFirstTime(path.c_str(), "x", 1), -1); }),
              errLine("Vono::AddVonoSoundInFirstTime", "File Search error 0"));
    EXPECT_EQ(now(), Bytes{});
    EXPECT_EQ(AddVonoSoundInFirstTime(dir.path("no/such.jpg").c_str(), "x", 1), 0);
}

TEST_F(VonoLegacy, MalformedBlocksLeaveFilesAlone) {
    const Bytes img = tb::fakeImage(300);
    // a header size that overflows when the tail probe is added; a count the file cannot hold
    for (const Bytes &f : {img + tb::vonoBlock({{1, 2}}, 105, 0xFFFFFFFFu),
                           img + withCount(0x40000000u, 300, 301)}) {
        put(f);
        tu::capture([&] {
            EXPECT_EQ(deleteAVono(path.c_str()) + hasYAXData(path.c_str(), nullptr), 0);
            EXPECT_EQ(_copyAudioData(path.c_str(), dir.path("other.jpg").c_str()), 1);
        });
        EXPECT_EQ(now(), f);
        expectAlone();
    }
}

TEST_F(VonoLegacy, HasYaxDataAndStreamDelete) {
    const Bytes img = tb::fakeImage(120), f = img + tb::bytes("sound") + vono1(120, 125);
    put(f);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(hasYAXData(path.c_str(), nullptr), 1); }), "meta null\n");
    // The stream delete only positions the caller's stream at the sound, for
    // the caller to write from there; the stream stays the caller's.
    FILE *fp = std::fopen(path.c_str(), "r+b");
    EXPECT_EQ(deleteVono_NotExistYAX_FP(fp, nullptr), 1);
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), 120);
    EXPECT_EQ(std::fclose(fp), 0);
    EXPECT_EQ(now(), f);
    put(img);
    fp = std::fopen(path.c_str(), "rb");
    EXPECT_EQ(deleteVono_NotExistYAX_FP(fp, nullptr) + hasYAXData(path.c_str(), nullptr), 0);
    std::fclose(fp);
    // a block with fewer than 4 bytes in front of it
    put(tb::bytes("ab") + tb::vonoBlock({{0, 1}}));
    VonoInfo *v = ParseVono(path.c_str());
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(hasYAXData(path.c_str(), v), 0); }),
              errLine("_qlseek", "errno : 22") +
                  errLine("VonoAPIs::hasYAXData", "File Search Error"));
    DestroyVono(v);
}

TEST_F(VonoLegacy, RoomCheckReadsTheOddTableIndex) {
    const std::string msg = errLine(
        "checkVonoInfoForSaving", "There is no space for saving YAX data in the source file, a vnoo data");
    // tables allocated exactly, so a read in front of one would be caught
    auto table = [](std::initializer_list<uint32_t> w) {
        return std::copy(w.begin(), w.end(), static_cast<uint32_t *>(_qmalloc(w.size() * 4))) - w.size();
    };
    VonoInfo none{}, one{0, 0, 0, 0, 1, 0, 0, nullptr, nullptr, table({500000, 900000})},
        two{0, 0, 0, 0, 2, 0, 0, nullptr, nullptr, table({100, 1000, 2000, 7000000})};
    // No sound: 22 and the three sizes must stay below 0xFFF00001. One sound:
    // index -1, the word in front of the table, which in the block is the
    // count (1). Two: index 1, the end of the first (not the last) sound. The
    // sum is taken in 64 bits, so sizes that wrap 32 bits are still refused.
    struct { VonoInfo *info; uint32_t s1, s2, s3; int ok; } cases[] = {
        {&none, 4293918000u, 600, 98, 1}, {&none, 4293918000u, 600, 99, 0},
        {nullptr, 4293918698u, 0, 0, 1},  {&one, 4293918697u, 0, 0, 1},
        {&one, 4293918698u, 0, 0, 0},     {&two, 4293917698u, 0, 0, 1},
        {&two, 4293917699u, 0, 0, 0},     {&two, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0},
    };
    for (const auto &c : cases) {
        int ok = -1;
        EXPECT_EQ(tu::capture([&] { ok = checkVonoInfoForSaving(c.info, c.s1, c.s2, c.s3); }),
                  c.ok ? "" : msg);
        EXPECT_EQ(ok, c.ok) << c.s1;
    }
    _qfree(one.offsets), _qfree(two.offsets);
}

TEST_F(VonoLegacy, TemporaryNamesCycleTheFirstDigit) {
    auto name = [](const char *p) {
        char *n = _getVonoTempFileName(p);
        const std::string s = n ? n : "(null)";
        return _qfree(n), s;
    };
    EXPECT_EQ(name(path.c_str()), dir.path("photo000.tmp"));
    EXPECT_EQ(name(".jpg") + name(""), "(null)(null)");  // extension index 0, none
    tu::writeFile(dir.path("photo000.tmp"), {});
    EXPECT_EQ(name(path.c_str()), dir.path("photo100.tmp"));
    for (int d = 1; d < 10; ++d) tu::writeFile(dir.path("photo" + std::to_string(d) + "00.tmp"), {});
    // every name taken: after 999 tries the 999th name is used anyway
    EXPECT_EQ(name(path.c_str()), dir.path("photo800.tmp"));
}

TEST_F(VonoLegacy, SoundExtractionAndCopy) {
    const Bytes sound = tb::bytes("extract me please"), src = tb::fakeImage(64) + sound + vono1(64, 64 + 17);
    put(src);
    VonoInfo *v = _checkAudioInImageFile(path.c_str());
    const std::string out = dir.path("sound.raw");
    EXPECT_EQ(_getSoundFileCreate(v, out.c_str()), 17);
    EXPECT_EQ(tu::readFile(out), sound);
    // without a stream the buffer goes out unread
    FILE *keep = std::exchange(v->fp, nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_getSoundFileCreate(v, out.c_str()), 17); }), "file null\n");
    EXPECT_EQ(tu::readFile(out), Bytes(17, 0));
    EXPECT_EQ(_getAudioStreamBuffer(v), nullptr);
    v->fp = keep;
    // ranges that cannot be a sound of this file give nothing
    for (auto [s, e] : {std::pair{0u, 10u}, {90u, 70u}}) {
        v->offsets[0] = s, v->offsets[1] = e;
        EXPECT_EQ(_getAudioStreamBuffer(v), nullptr);
    }
    EXPECT_EQ(_getSoundFileCreate(v, out.c_str()), 0);  // an end in front of the start
    DestroyVono(v);

    // Copying: the destination's table is not read, so its sound is not
    // replaced and a second block lands behind the first.
    const std::string from = dir.path("src.jpg");
    tu::writeFile(from, src);
    const uint32_t p = sz(jpeg), q = p + 17 + 30;
    put(jpeg);
    EXPECT_EQ(_copyAudioData(from.c_str(), path.c_str()), 1);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_copyAudioData(from.c_str(), path.c_str()), 1); }), "meta null\n");
    const Bytes twice = jpeg + sound + vono1(p, p + 17) + sound + vono1(q, q + 17);
    EXPECT_EQ(now(), twice);
    // a source without Vono data: nothing happens, still 1
    tu::writeFile(from, jpeg);
    EXPECT_EQ(_copyAudioData(from.c_str(), path.c_str()), 1);
    EXPECT_EQ(now(), twice);
}
