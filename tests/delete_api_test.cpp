// Public deletes: whole files after deleting by name, all, several and fast;
// the caller's record replaced (or cleared); the legacy block's positions
// pulled back only when the sound lay behind the deleted entry; and the
// fixed results (1 for unreadable paths, 1 for any multi delete).
#include <cstring>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_support.h"

using at::Bytes;
using at::Entry;
using tb::trailer;
using tb::operator+;

namespace {

const Entry kA{5, "a", "alpha payload", ""};
const Entry kB{6, "b", "bravo", "sub"};
const Entry kC{7, "c", "charlie payload", ""};
const Entry kD{8, "d", "delta", ""};

class DeleteApi : public at::ApiTest {
protected:
    std::vector<std::string> names(YAXDATA *yd) {
        std::vector<std::string> out;
        for (uint32_t i = 0; yd != nullptr && i < yd->count; ++i) out.emplace_back(yd->YAX_name_list[i]);
        return out;
    }
};

TEST_F(DeleteApi, ByNameRewritesTheFileAndRenewsTheRecord) {
    put(at::host() + trailer({kA, kB, kC}));
    YAXDATA *yd = checkYAXInFile(file.c_str());
    ASSERT_NE(yd, nullptr);
    YAXDATA *old = yd;

    // absent name: nothing changes, the record stays as it was
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "zz", 2), 0);
    EXPECT_EQ(yd, old);
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "a", 0), 0);
    EXPECT_EQ(now(), at::host() + trailer({kA, kB, kC}));

    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "b", 1), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA, kC}));
    EXPECT_EQ(names(yd), (std::vector<std::string>{"a", "c"}));
    expectAlone();

    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "a", 1), 1);
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "c", 1), 1);
    EXPECT_EQ(yd, nullptr);  // no trailer is left to describe
    EXPECT_EQ(now(), at::host());
    expectAlone();
    expectDecodes();
    EXPECT_EQ(deleteYAXDataFromFilebyName(nullptr, "a", 1), 0);
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "a", 1), 0);
}

// The record's path is probed for a legacy block before the arguments are
// looked at: a damaged block behind the file reports itself even when the
// name is missing.
TEST_F(DeleteApi, ByNameProbesTheLegacyBlockBeforeCheckingArguments) {
    put(at::host() + trailer({kA}));
    YAXDATA *yd = checkYAXInFile(file.c_str());
    ASSERT_NE(yd, nullptr);
    put(at::host() + tb::Builder().u32(12).str("VONOBS").done());
    std::string log = tu::capture([&] { EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, nullptr, 1), 0); });
    EXPECT_EQ(log, tu::errLine("Vono::ParseVono", "file has no suond OFFS"));
    destroyYAXDATA(yd);
}

// The legacy block behind the trailer points into "TonePhoto_000"'s payload.
// Deleting an entry in front of that sound pulls both positions back by the
// deleted block's length; deleting one behind it leaves them.
TEST_F(DeleteApi, ByNameAdjustsTheLegacyBlockAroundTheSound) {
    const std::string sound = "the sound";
    const Entry tone = at::toneSound(sound), meta = at::toneMeta();
    const uint32_t p = at::u32size(at::host());
    const uint32_t la = tb::blockLength(kA);
    const uint32_t start = p + la + 21, end = start + static_cast<uint32_t>(sound.size());
    put(at::host() + trailer({kA, tone, meta, kD}) + at::vono1(start, end));

    YAXDATA *yd = checkYAXInFile(file.c_str());
    ASSERT_NE(yd, nullptr);
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "d", 1), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA, tone, meta}) + at::vono1(start, end));
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "a", 1), 1);
    EXPECT_EQ(now(), at::host() + trailer({tone, meta}) + at::vono1(start - la, end - la));
    EXPECT_EQ(names(yd), (std::vector<std::string>{"TonePhoto_000", "TonePhoto_Meta_Info"}));
    destroyYAXDATA(yd);
    expectAlone();
    expectDecodes();
}

TEST_F(DeleteApi, AllFromFileByKindOfEnding) {
    const uint32_t p = at::u32size(at::host());
    // unreadable path: reported as done
    EXPECT_EQ(deleteAllDataFromFile(dir.path("absent.jpg").c_str()), 1);
    put(at::host());
    EXPECT_EQ(deleteAllDataFromFile(file.c_str()), 0);

    const std::vector<Bytes> endings{
        at::host() + trailer({kA, kB}),
        at::host() + tb::bytes("snd") + at::vono1(p, p + 3),
        at::host() + trailer({at::toneSound("snd"), at::toneMeta()}) + at::vono1(p + 21, p + 24),
    };
    for (const Bytes &content : endings) {
        put(content);
        EXPECT_EQ(deleteAllDataFromFile(file.c_str()), 1);
        EXPECT_EQ(now(), at::host());
        expectAlone();
    }
}

TEST_F(DeleteApi, FromFileDropsEveryEntryBehindTheRecord) {
    put(at::host() + trailer({kA, kB}));
    YAXDATA *yd = checkYAXInFile(file.c_str());
    ASSERT_NE(yd, nullptr);
    EXPECT_EQ(deleteYAXDataFromFile(&yd), 1);
    EXPECT_EQ(now(), at::host());
    destroyYAXDATA(yd);
    EXPECT_EQ(deleteYAXDataFromFile(nullptr), 0);
    expectAlone();
}

TEST_F(DeleteApi, MultiByNameAlwaysReportsOne) {
    put(at::host() + trailer({kA, kB, kC, kD}));
    YAXDATA *yd = checkYAXInFile(file.c_str());
    ASSERT_NE(yd, nullptr);
    const char *none[] = {nullptr};
    // nothing to delete: the multi delete refuses, the call still says 1
    EXPECT_EQ(deleteYAXMultiDataFromFilebyName(&yd, none, 0), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA, kB, kC, kD}));

    const char *two[] = {"c", "a"};
    EXPECT_EQ(deleteYAXMultiDataFromFilebyName(&yd, two, 2), 1);
    EXPECT_EQ(now(), at::host() + trailer({kB, kD}));
    expectAlone();
    destroyYAXDATA(yd);
    EXPECT_EQ(deleteYAXMultiDataFromFilebyName(nullptr, two, 2), 1);
}

// Fast deletes keep the file's length: the vacated bytes become one filler.
TEST_F(DeleteApi, FastDeleteOfOneEntryLeavesAFillerInItsPlace) {
    const uint32_t la = tb::blockLength(kA), lb = tb::blockLength(kB), lc = tb::blockLength(kC);
    const Bytes before = at::host() + trailer({kA, kB, kC});
    put(before);
    std::string log = tu::capture([&] { EXPECT_EQ(deleteFastAYAXData(file.c_str(), "zz"), 0); });
    EXPECT_EQ(log, tu::errLine("FastDeleteAYAXData", "index <0, YAX_info->meta_count fail"));
    EXPECT_EQ(now(), before);

    EXPECT_EQ(deleteFastAYAXData(file.c_str(), "b"), 1);
    EXPECT_EQ(now(), at::host() + tb::fillerBlock(lb) + tb::block(kA) + tb::block(kC) +
                         tb::header({{0x7FFEu << 16, la + lb + lc, lb},
                                     {kA.metaType(), la + lc, la},
                                     {kC.metaType(), lc, lc}}));
    EXPECT_EQ(now().size(), before.size());
    expectDecodes();
}

TEST_F(DeleteApi, FastDeleteOfAllLeavesOneFillerTrailer) {
    const Bytes before = at::host() + trailer({kA, kB});
    const auto t = static_cast<uint32_t>(before.size() - at::host().size());
    const Bytes after = at::host() + tb::fillerBlock(t - 32) +
                        tb::header({{0x7FFEu << 16, t - 32, t - 32}});
    put(before);
    EXPECT_EQ(deleteFastAllYAXData(file.c_str()), 1);
    EXPECT_EQ(now(), after);

    put(before);
    FILE *fp = _qfopen(file.c_str(), "r+b");
    EXPECT_EQ(deleteFastAllYAXDataFP(fp), 1);
    _qfclose(fp);
    EXPECT_EQ(now(), after);

    // without a trailer there is nothing to work on
    put(at::host());
    EXPECT_EQ(deleteFastAllYAXData(file.c_str()), 0);
    EXPECT_EQ(now(), at::host());
}

}  // namespace
