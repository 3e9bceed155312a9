// Fast saves: first-time adds, refusals of legacy endings, replacing through
// the filler (same length keeps the file size; an absorbed old filler keeps
// the end in place), the filler's room taking a smaller block, and the
// wrappers' payload-file and size handling.
#include <filesystem>

#include "api_fixture.hpp"
#include "yax_api.h"

using namespace at;
using tb::trailer;

namespace {

constexpr const char *kTag = "YAXAPIs::saveFastYAXDataToFP";
const Entry kA{5, "a", "alpha payload", ""}, kB{6, "b", "bravo", "sub"};
Entry filler(uint32_t block) { return Entry{0x7FFE, "Invalid_Data", std::string(block - 20, '\0'), ""}; }

struct FastSave : ApiTest {
    // Saves `e` through a stream of its own; `no_data` passes a null payload.
    int fast(const Entry &e, int option = 0, bool no_data = false) {
        FILE *fp = std::fopen(file.c_str(), "r+b");
        const void *sub = e.hasSub() ? e.sub.data() : nullptr;
        const char *data = no_data ? nullptr : e.payload.data();
        int r = saveFastYAXDataToFP(fp, e.name.c_str(), uint32_t(e.name.size()), sub, uint32_t(e.sub.size()),
                                    data, uint32_t(e.payload.size()), e.type, option);
        return std::fclose(fp), r;
    }
};

TEST_F(FastSave, WholeFilesAfterASave) {
    const Entry a2{5, "a", "ALPHA PAYLOAD", ""}, b2{6, "b", "BRAVO", "SUB"};
    const Entry n{4, "n", std::string(91, 'n'), ""};
    struct Case { Bytes before; Entry e; int option; Bytes want; };
    for (const Case &c : std::vector<Case>{
             {host(), kA, 0, host() + trailer({kA})},  // a first trailer
             {host() + trailer({kA}), kB, 0, host() + trailer({kA, kB})},
             // the old entry becomes the filler and the new block of the same
             // length takes exactly its room: the file keeps its size
             {host() + trailer({kA, kB}), b2, 1, host() + trailer({b2, kA})},
             // a filler already there: a smaller block (100 bytes) goes behind
             // a shrunken filler and the table gains a row
             {host() + trailer({filler(200), kA}), n, 0, host() + trailer({filler(100), n, kA})},
             // replacing next to an old filler: the delete merges both without
             // padding for the dropped row, and the add's extra row lands
             // exactly on the old end of the file
             {host() + trailer({filler(60), kA, kB}), a2, 1, host() + trailer({filler(60), a2, kB})}}) {
        put(c.before);
        EXPECT_EQ(fast(c.e, c.option), 1);
        EXPECT_EQ(now(), c.want);
        expectDecodes();
    }
}

// Legacy endings, and a present name without replacement, are refused
// silently; a missing payload and an empty one give the same message.
TEST_F(FastSave, RefusalsAndTheirLines) {
    const uint32_t p = u32size(host());
    const Entry a{5, "a", "new", ""};
    struct Case { Bytes content; Entry e; bool no_data; std::string log; };
    for (const Case &c : std::vector<Case>{
             {host() + tb::bytes("snd") + vono1(p, p + 3), a, false, ""},
             {host() + trailer({toneSound("snd"), toneMeta()}) + vono1(p + 21, p + 24), a, false, ""},
             {host() + trailer({kA, kB}), a, false, ""},
             {host(), a, true, tu::errLine(kTag, "data is null\n")},
             {host(), Entry{5, "a", "", ""}, false, tu::errLine(kTag, "data is null\n")}}) {
        put(c.content);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(fast(c.e, 0, c.no_data), 0); }), c.log);
        EXPECT_EQ(now(), c.content);
    }
}

// The path wrapper leaves its stream open; every write has reached the file
// by the time it returns. Its size check comes first, with its own tag; the
// largest payload it lets through is refused by the room check, before any
// of it is read. A target that cannot be opened reaches the save as a null
// stream.
TEST_F(FastSave, PathWrapperStreamSizeLimitsAndPayloadFiles) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    put(host());
    const auto before = descriptors();
    EXPECT_EQ(saveFastYAXDataToFile(file.c_str(), "a", 1, nullptr, 0, kA.payload.data(), 13, 5, 0), 1);
    EXPECT_EQ(descriptors(), before + 1);
    EXPECT_EQ(now(), host() + trailer({kA}));
    const auto huge = [&](uint32_t length) {
        return tu::capture([&] {
            EXPECT_EQ(saveFastYAXDataToFile(file.c_str(), "z", 1, nullptr, 0, "abc", length, 5, 0), 0);
        });
    };
    EXPECT_EQ(huge(0xFFF00001u), tu::errLine("YAXAPI", "Too big YAX data to add in the file"));
    EXPECT_EQ(huge(0xFFF00000u),
              tu::errLine("checkYAXInfoForSaving",
                          "There is no storage for saving YAX data in the source file, delete a yax data"));
    EXPECT_EQ(now(), host() + trailer({kA}));

    // the savers that read their payload from a file
    const std::string payload = dir.path("payload.bin"), none = dir.path("none.jpg");
    const char *pl = payload.c_str();
    const Entry p{3, "p", "payload from a file", ""}, p2{3, "p", "PAYLOAD FROM A FILE", ""};
    tu::writeFile(payload, tb::bytes(p.payload));
    FILE *fp = std::fopen(file.c_str(), "r+b");
    EXPECT_EQ(saveFastYAXNameToFP(fp, "p", 1, nullptr, 0, pl, 3, 0), 1);
    std::fclose(fp);
    EXPECT_EQ(now(), host() + trailer({kA, p}));
    tu::writeFile(payload, tb::bytes(p2.payload));
    EXPECT_EQ(saveFastYAXDataFileToFile(file.c_str(), "p", 1, nullptr, 0, pl, 3, 1), 1);
    EXPECT_EQ(now(), host() + trailer({p2, kA}));
    const auto toNone = [&] { return saveFastYAXDataFileToFile(none.c_str(), "q", 1, nullptr, 0, pl, 3, 0); };
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(toNone(), 0); }), tu::errLine(kTag, "fp null\n"));
}

}  // namespace
