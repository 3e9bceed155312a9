// Copying entries from one file into another: the whole trailer behind a
// plain JPEG or MP4, entry by entry into a file with entries, by name and by
// type, the raw trailer append, refusals, and a sequence of mixed edits.
#include <functional>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_vono.h"

namespace {

using at::Entry;
using tb::Bytes;
using tb::operator+;

const char *const kTag = "YAXAPIs::mergeYAXData";

Bytes mp4() {
    static const Bytes video = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.mp4");
    return video;
}
Bytes boxHead(uint32_t size) { return tb::Builder().u32be(size).str("yaxd").done(); }
Bytes boxed(const Bytes &trailer) {
    return boxHead(static_cast<uint32_t>(trailer.size()) + 8) + trailer;
}
Entry bare(Entry e) {  // as a copy stores it: without sub-information
    e.sub.clear();
    return e;
}

const Entry kA{1, "a", "x", ""};              // 10-byte block: 1-byte name and payload
const Entry kE{1, "e", "", ""};               // empty payload
const Entry kD{1, "d", "y", ""};
const Entry kB{3, "bb", "payload-b", "sub"};  // with sub-information
const Entry kC{2, "c", std::string(300, 'c'), ""};

// The legacy end record that points at a sound entry whose block starts at `p`.
Bytes endRecord(uint32_t p, const Entry &sound) {
    const uint32_t start = p + 8 + static_cast<uint32_t>(sound.name.size());
    return at::vono1(start, start + static_cast<uint32_t>(sound.payload.size()));
}

using Op = std::function<int(const char *, const char *)>;
const Op kAll = [](const char *s, const char *d) { return copyYAXData(s, d); };
const Op kMerge = [](const char *s, const char *d) { return mergeYAXData(s, d); };
Op byName(const char *k) {
    return [k](const char *s, const char *d) { return copyYAXDataKeyName(s, d, k); };
}
Op byType(uint32_t t) {
    return [t](const char *s, const char *d) { return copyYAXDataType(s, d, t); };
}

class Copy : public at::ApiTest {
protected:
    std::string src = dir.path("src.jpg");
    std::string dst = dir.path("dst.jpg");
};

TEST_F(Copy, ResultsAndBytes) {
    const Bytes h = at::host();
    const Entry sound = at::toneSound("pcm!");
    const Entry meta = at::toneMeta();
    const Bytes tone = tb::trailer({kA, sound, meta});
    const uint32_t soundAt = at::u32size(h) + tb::blockLength(kA);
    const uint32_t soundAtMp4 = at::u32size(mp4()) + 8 + tb::blockLength(kA);
    struct Case {
        const char *what;
        Op op;
        Bytes src, dst;
        int result;
        Bytes want;
    } cases[] = {
        {"plain JPEG", kAll, h + tb::trailer({kA, kB, kE}), h, 1, h + tb::trailer({kA, kB, kE})},
        {"merge", kMerge, h + tb::trailer({kB}), h, 1, h + tb::trailer({kB})},
        {"TonePhoto data", kAll, h + tone, h, 1, h + tone + endRecord(soundAt, sound)},
        {"TonePhoto data and an old end record", kAll, h + tone + at::vono1(1, 2), h, 1,
         h + tone + endRecord(soundAt, sound)},
        {"plain MP4", kAll, h + tb::trailer({kA, kC}), mp4(), 1,
         mp4() + boxed(tb::trailer({kA, kC}))},
        {"MP4, TonePhoto data", kAll, h + tone, mp4(), 1,
         mp4() + boxed(tone + endRecord(soundAtMp4, sound))},
        // entry by entry, the save refuses an empty payload: it is left out
        {"only names it lacks", kAll, h + tb::trailer({Entry{1, "a", "zz", ""}, kB, kE, kD}),
         h + tb::trailer({kA}), 1, h + tb::trailer({kA, bare(kB), kD})},
        {"source without data", kAll, h, h, 0, h},
        {"source without data into MP4", kAll, h, mp4(), 0, mp4() + boxHead(0)},
        {"by name", byName("bb"), h + tb::trailer({kA, kB, kC}), h, 1, h + tb::trailer({bare(kB)})},
        {"by name, 1-byte", byName("a"), h + tb::trailer({kB, kA}), h, 1, h + tb::trailer({kA})},
        {"by name, first of two", byName("a"), h + tb::trailer({kA, Entry{2, "a", "y", ""}}), h, 1,
         h + tb::trailer({kA})},
        {"by name, missing", byName("zz"), h + tb::trailer({kA}), h, 1, h},
        {"by name into MP4", byName("c"), h + tb::trailer({kA, kC}), mp4(), 1,
         mp4() + boxed(tb::trailer({kC}))},
        {"by name into entries", byName("a"), h + tb::trailer({kA}), h + tb::trailer({kB}), 1,
         h + tb::trailer({kB})},
        {"by name, source without data into MP4", byName("a"), h, mp4(), 0, mp4() + boxHead(0)},
        {"by type", byType(1), h + tb::trailer({kA, kB, kC, kE, kD}), h, 1,
         h + tb::trailer({kA, kD})},
        {"by type, none", byType(9), h + tb::trailer({kA}), h, 1, h},
        {"by type into MP4", byType(3), h + tb::trailer({kA, kB}), mp4(), 1,
         mp4() + boxed(tb::trailer({bare(kB)}))},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        tu::writeFile(src, c.src);
        tu::writeFile(dst, c.dst);
        EXPECT_EQ(c.op(src.c_str(), dst.c_str()), c.result);
        EXPECT_EQ(tu::readFile(dst), c.want);
        EXPECT_EQ(tu::readFile(src), c.src);  // a trailer source is only read
        EXPECT_EQ(dir.list(), (std::vector<std::string>{"dst.jpg", "src.jpg"}));
    }
}

// A legacy-only source is turned into TonePhoto entries in place; copying
// into a file with entries then stops there: nothing reaches it.
TEST_F(Copy, LegacySourceIsConvertedAndNothingCopied) {
    const Bytes h = at::host();
    const Bytes legacy = h + Bytes{'s', 'n', 'd', '!'} + at::vono1(at::u32size(h), at::u32size(h) + 4);
    tu::writeFile(src, legacy);
    tu::writeFile(dst, h + tb::trailer({kA}));
    EXPECT_EQ(copyYAXData(src.c_str(), dst.c_str()), 1);
    EXPECT_EQ(tu::readFile(dst), h + tb::trailer({kA}));
    EXPECT_NE(tu::readFile(src), legacy);
    EXPECT_NE(getSignature(src.c_str()), SIGNATURE_VONO);
}

// A source with entries and legacy audio, into a file with entries: its
// listed sound is saved there as a sound (as the sound save would store it);
// its other entries are not copied.
TEST_F(Copy, SoundOfALegacySourceIntoEntriesGoesThroughTheSoundSave) {
    const Bytes h = at::host();
    const Entry sound = at::toneSound("p");  // a 1-byte sound
    const Bytes source = h + tb::trailer({kA, sound, at::toneMeta()}) + at::vono1(1, 2);
    const Bytes into = h + tb::trailer({kD});
    tu::writeFile(src, source);
    ASSERT_EQ(getSignature(src.c_str()), SIGNATURE_VONO_YAX);
    const std::string want = dir.path("want.jpg");
    tu::writeFile(want, into);
    ASSERT_EQ(saveVonoToImageFile(want.c_str(), "p", 1, sound.name.data(),
                                  static_cast<uint32_t>(sound.name.size())), 1);
    const Bytes wanted = tu::readFile(want);
    ASSERT_NE(wanted, into);
    tu::writeFile(dst, into);
    EXPECT_EQ(copyYAXData(src.c_str(), dst.c_str()), 1);
    EXPECT_EQ(tu::readFile(dst), wanted);
    EXPECT_EQ(tu::readFile(src), source);
}

// A source whose table lies is refused before anything is written.
TEST_F(Copy, LyingSourceRefused) {
    const Bytes h = at::host();
    // four stray bytes between the blocks: the rows still name them, but
    // copied unchanged behind the blocks alone they would point 4 bytes off
    const uint32_t a = tb::blockLength(kA), c = tb::blockLength(kC);
    const Bytes lying = h + tb::block(kA) + Bytes{0, 0, 0, 0} + tb::block(kC) +
                        tb::header({{kA.metaType(), 4 + c + a, a}, {kC.metaType(), c, c}});
    for (const Bytes &d : {h, mp4()}) {
        tu::writeFile(src, lying);
        tu::writeFile(dst, d);
        std::string log = tu::capture([&] { EXPECT_EQ(copyYAXData(src.c_str(), dst.c_str()), 0); });
        EXPECT_EQ(log, tu::errLine(kTag, "the blocks of the entry table are not back to back"));
        EXPECT_EQ(tu::readFile(dst), d);
    }
    FILE *out = std::fopen(dst.c_str(), "r+b");
    YAXDATA *yd = checkYAXInFile(src.c_str());
    ASSERT_NE(yd, nullptr);
    EXPECT_EQ(copyMergeYAXData(yd->yax_info, out), 0);
    destroyYAXDATA(yd);
    std::fclose(out);
    EXPECT_EQ(tu::readFile(dst), mp4());
}

// A merge would bury a destination's own entries or legacy audio behind the
// new trailer: refused.
TEST_F(Copy, MergeRefusesADestinationWithData) {
    const Bytes h = at::host();
    tu::writeFile(src, h + tb::trailer({kA}));
    for (const Bytes &d : {h + tb::trailer({kD}), h + Bytes{'s'} + at::vono1(at::u32size(h), at::u32size(h) + 1)}) {
        tu::writeFile(dst, d);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(mergeYAXData(src.c_str(), dst.c_str()), 0); }),
                  tu::errLine(kTag, "the destination already holds entries or legacy audio"));
        EXPECT_EQ(tu::readFile(dst), d);
    }
}

TEST_F(Copy, RawTrailerAppend) {
    const Bytes h = at::host();
    const Bytes tail = tb::trailer({kA, kE}) + at::vono1(1, 2);
    tu::writeFile(src, mp4() + boxHead(8 + at::u32size(tail)) + tail);
    tu::writeFile(dst, h);
    YAXDATA *yd = checkYAXInFile(src.c_str());
    ASSERT_NE(yd, nullptr);
    FILE *out = std::fopen(dst.c_str(), "r+b");
    EXPECT_EQ(copyMergeYAXData(yd->yax_info, out), 1);
    std::fclose(out);
    EXPECT_EQ(tu::readFile(dst), h + tail);  // the source's box head is not copied
    tu::writeFile(dst, {});
    out = std::fopen(dst.c_str(), "r+b");
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(copyMergeYAXData(yd->yax_info, out), 0); }),
              tu::errLine(kTag, "File Search Error 0\n"));
    std::fclose(out);
    destroyYAXDATA(yd);
}

// Copies mixed with adds and deletes, each step checked.
TEST_F(Copy, MixedSequence) {
    const Bytes h = at::host();
    tu::writeFile(dst, h);
    tu::writeFile(src, h + tb::trailer({kA, kB}));
    EXPECT_EQ(copyYAXDataKeyName(src.c_str(), dst.c_str(), "a"), 1);
    EXPECT_EQ(tu::readFile(dst), h + tb::trailer({kA}));
    EXPECT_EQ(saveYAXDataToFile(dst.c_str(), "d", 1, nullptr, 0, "y", 1, 1, 0), 1);
    EXPECT_EQ(tu::readFile(dst), h + tb::trailer({kA, kD}));
    EXPECT_EQ(copyYAXData(src.c_str(), dst.c_str()), 1);
    EXPECT_EQ(tu::readFile(dst), h + tb::trailer({kA, kD, bare(kB)}));
    YAXDATA *yd = checkYAXInFile(dst.c_str());
    ASSERT_NE(yd, nullptr);
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "d", 1), 1);
    if (yd != nullptr) destroyYAXDATA(yd);
    EXPECT_EQ(tu::readFile(dst), h + tb::trailer({kA, bare(kB)}));
    EXPECT_EQ(copyYAXDataType(src.c_str(), dst.c_str(), 3), 1);  // has a trailer: untouched
    EXPECT_EQ(tu::readFile(dst), h + tb::trailer({kA, bare(kB)}));
}

TEST_F(Copy, NullArguments) {
    EXPECT_EQ(copyYAXData(nullptr, dst.c_str()) + copyYAXData(src.c_str(), nullptr) +
                  mergeYAXData(src.c_str(), nullptr) + copyMergeYAXData(nullptr, stdout) +
                  copyYAXDataKeyName(src.c_str(), dst.c_str(), nullptr),
              0);
}

}  // namespace
