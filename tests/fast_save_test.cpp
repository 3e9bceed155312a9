// Fast saves: first-time adds, refusals of legacy endings, replacing through
// the filler (same length keeps the file size; an absorbed old filler keeps
// the end in place), the filler's room taking a smaller block, and the
// wrappers' payload-file and size handling.
#include <cstring>
#include <filesystem>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_support.h"

using at::Bytes;
using at::Entry;
using tb::Row;
using tb::trailer;
using tb::operator+;

namespace {

constexpr const char *kTag = "YAXAPIs::saveFastYAXDataToFP";
constexpr uint32_t kFillerMeta = 0x7FFEu << 16;

class FastSave : public at::ApiTest {
protected:
    int fast(const Entry &e, int option = 0) {
        FILE *fp = _qfopen(file.c_str(), "r+b");
        EXPECT_NE(fp, nullptr);
        int r = saveFastYAXDataToFP(fp, e.name.c_str(), static_cast<uint32_t>(e.name.size()),
                                    e.hasSub() ? e.sub.data() : nullptr,
                                    static_cast<uint32_t>(e.sub.size()), e.payload.data(),
                                    static_cast<uint32_t>(e.payload.size()), e.type, option);
        _qfclose(fp);
        return r;
    }
};

const Entry kA{5, "a", "alpha payload", ""};
const Entry kB{6, "b", "bravo", "sub"};

TEST_F(FastSave, PlainFileGetsAFirstTrailerAndFurtherEntriesAppend) {
    put(at::host());
    EXPECT_EQ(fast(kA), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA}));
    EXPECT_EQ(fast(kB), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA, kB}));
    expectDecodes();
}

TEST_F(FastSave, LegacyEndingsAndPresentNamesAreRefusedSilently) {
    const uint32_t p = at::u32size(at::host());
    const std::vector<Bytes> refused{
        at::host() + tb::bytes("snd") + at::vono1(p, p + 3),
        at::host() + trailer({at::toneSound("snd"), at::toneMeta()}) + at::vono1(p + 21, p + 24),
        at::host() + trailer({kA, kB}),
    };
    for (const Bytes &content : refused) {
        put(content);
        std::string log = tu::capture([&] { EXPECT_EQ(fast(Entry{5, "a", "new", ""}, 0), 0); });
        EXPECT_EQ(log, "");
        EXPECT_EQ(now(), content);
    }
}

// The old entry becomes the filler at the start of the trailer, and the new
// block of the same length takes exactly its room: the file keeps its size.
TEST_F(FastSave, SameLengthReplaceFillsTheVacatedRoom) {
    put(at::host() + trailer({kA, kB}));
    const size_t before = now().size();
    Entry b2{6, "b", "BRAVO", "SUB"};
    EXPECT_EQ(fast(b2, 1), 1);
    EXPECT_EQ(now().size(), before);
    EXPECT_EQ(now(), at::host() + trailer({b2, kA}));
    expectDecodes();
}

// A filler of 200 bytes and a block of 100: a 100-byte filler and the new
// block share the old filler's room, and the table gains a row.
TEST_F(FastSave, SmallerBlockGoesBehindAShrunkenFiller) {
    const uint32_t la = tb::blockLength(kA);
    put(at::host() + tb::fillerBlock(200) + tb::block(kA) +
        tb::header({{kFillerMeta, 200 + la, 200}, {kA.metaType(), la, la}}));
    Entry n{4, "n", std::string(91, 'n'), ""};
    ASSERT_EQ(tb::blockLength(n), 100u);
    EXPECT_EQ(fast(n), 1);
    EXPECT_EQ(now(), at::host() + tb::fillerBlock(100) + tb::block(n) + tb::block(kA) +
                         tb::header({{kFillerMeta, 200 + la, 100},
                                     {n.metaType(), 100 + la, 100},
                                     {kA.metaType(), la, la}}));
}

// Replacing next to an old filler: the delete merges both into one filler
// without padding for the dropped row, and the add's extra row lands exactly
// on the old end of the file.
TEST_F(FastSave, ReplaceBesideAnOldFillerKeepsTheEndInPlace) {
    const uint32_t la = tb::blockLength(kA), lb = tb::blockLength(kB);
    const Bytes before = at::host() + tb::fillerBlock(60) + tb::block(kA) + tb::block(kB) +
                         tb::header({{kFillerMeta, 60 + la + lb, 60},
                                     {kA.metaType(), la + lb, la},
                                     {kB.metaType(), lb, lb}});
    put(before);
    Entry a2{5, "a", "ALPHA PAYLOAD", ""};
    ASSERT_EQ(tb::blockLength(a2), la);
    EXPECT_EQ(fast(a2, 1), 1);
    EXPECT_EQ(now(), at::host() + tb::fillerBlock(60) + tb::block(a2) + tb::block(kB) +
                         tb::header({{kFillerMeta, lb + 60 + la, 60},
                                     {a2.metaType(), lb + la, la},
                                     {kB.metaType(), lb, lb}}));
    EXPECT_EQ(now().size(), before.size());
}

// A missing payload and an empty one give the same message.
TEST_F(FastSave, MissingAndEmptyPayloadShareAMessage) {
    put(at::host());
    FILE *fp = _qfopen(file.c_str(), "r+b");
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveFastYAXDataToFP(fp, "a", 1, nullptr, 0, nullptr, 1, 1, 0), 0);
        EXPECT_EQ(saveFastYAXDataToFP(fp, "a", 1, nullptr, 0, "d", 0, 1, 0), 0);
    });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine(kTag, "data is null\n") + tu::errLine(kTag, "data is null\n"));
    EXPECT_EQ(now(), at::host());
}

// The path wrapper leaves its stream open; every write has reached the file
// by the time it returns.
TEST_F(FastSave, PathWrapperLeavesACompleteFile) {
    auto openDescriptors = [] {
        size_t n = 0;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            (void)entry;
            ++n;
        }
        return n;
    };
    put(at::host());
    const size_t before = openDescriptors();
    EXPECT_EQ(saveFastYAXDataToFile(file.c_str(), "a", 1, nullptr, 0, kA.payload.data(),
                                    static_cast<uint32_t>(kA.payload.size()), 5, 0),
              1);
    EXPECT_EQ(openDescriptors(), before + 1);  // its stream stays open
    EXPECT_EQ(now(), at::host() + trailer({kA}));
    EXPECT_EQ(saveFastYAXDataToFile(dir.path("absent.jpg").c_str(), "a", 1, nullptr, 0, "d", 1, 5, 0),
              0);
}

TEST_F(FastSave, SizeLimitsOfThePathWrapper) {
    const Bytes before = at::host() + trailer({kA});
    put(before);
    char small[4] = "abc";
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveFastYAXDataToFile(file.c_str(), "z", 1, nullptr, 0, small, 0xFFF00001u, 5, 0),
                  0);
    });
    EXPECT_EQ(log, tu::errLine("YAXAPI", "Too big YAX data to add in the file"));
    // the largest payload passes here and is refused by the room check,
    // before any of it is read
    log = tu::capture([&] {
        EXPECT_EQ(saveFastYAXDataToFile(file.c_str(), "z", 1, nullptr, 0, small, 0xFFF00000u, 5, 0),
                  0);
    });
    EXPECT_EQ(log, tu::errLine("checkYAXInfoForSaving",
                               "There is no storage for saving YAX data in the source file, delete "
                               "a yax data"));
    EXPECT_EQ(now(), before);
}

TEST_F(FastSave, PayloadFromAFile) {
    put(at::host() + trailer({kA}));
    std::string payload = dir.path("payload.bin");
    tu::writeFile(payload, tb::bytes("payload from a file"));
    FILE *fp = _qfopen(file.c_str(), "r+b");
    EXPECT_EQ(saveFastYAXNameToFP(fp, "p", 1, nullptr, 0, payload.c_str(), 3, 0), 1);
    _qfclose(fp);
    const Entry p{3, "p", "payload from a file", ""};
    EXPECT_EQ(now(), at::host() + trailer({kA, p}));

    tu::writeFile(payload, tb::bytes("PAYLOAD FROM A FILE"));
    EXPECT_EQ(saveFastYAXDataFileToFile(file.c_str(), "p", 1, nullptr, 0, payload.c_str(), 3, 1), 1);
    const Entry p2{3, "p", "PAYLOAD FROM A FILE", ""};
    EXPECT_EQ(now(), at::host() + trailer({p2, kA}));

    // a target that cannot be opened reaches the save as a null stream
    tu::writeFile(payload, tb::bytes("x"));
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveFastYAXDataFileToFile(dir.path("none.jpg").c_str(), "q", 1, nullptr, 0,
                                            payload.c_str(), 3, 0),
                  0);
    });
    EXPECT_EQ(log, tu::errLine(kTag, "fp null\n"));
    EXPECT_EQ(now(), at::host() + trailer({p2, kA}));
}

}  // namespace
