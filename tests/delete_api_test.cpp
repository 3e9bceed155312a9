// Public deletes: whole files after deleting by name, all, several and fast;
// the caller's record renewed (or cleared); the legacy block's positions
// pulled back only when the sound lay behind the deleted entry; and the
// fixed results (1 for unreadable paths, 1 for any multi delete).
#include "api_fixture.hpp"
#include "yax_api.h"

using namespace at;
using tb::trailer;

namespace {

const Entry kA{5, "a", "alpha payload", ""}, kB{6, "b", "bravo", "sub"}, kC{7, "c", "charlie payload", ""},
    kD{8, "d", "delta", ""};
std::vector<std::string> names(YAXDATA *yd) { return {yd->YAX_name_list, yd->YAX_name_list + yd->count}; }
Entry filler(size_t block) { return Entry{0x7FFE, "Invalid_Data", std::string(block - 20, '\0'), ""}; }

struct DeleteApi : ApiTest {
    YAXDATA *record(const Bytes &content) { return put(content), checkYAXInFile(file.c_str()); }
};

TEST_F(DeleteApi, ByNameRewritesTheFileAndRenewsTheRecord) {
    YAXDATA *yd = record(host() + trailer({kA, kB, kC})), *old = yd;
    // an absent name or an empty length changes nothing, the record stays
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "zz", 2) + deleteYAXDataFromFilebyName(&yd, "a", 0), 0);
    EXPECT_EQ(yd, old);
    EXPECT_EQ(now(), host() + trailer({kA, kB, kC}));
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "b", 1), 1);
    EXPECT_EQ(now(), host() + trailer({kA, kC}));
    EXPECT_EQ(names(yd), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "a", 1) + deleteYAXDataFromFilebyName(&yd, "c", 1), 2);
    EXPECT_EQ(yd, nullptr);  // no trailer is left to describe
    EXPECT_EQ(now(), host());
    expectAlone();

    // The record's path is probed for a legacy block before the arguments are
    // looked at: a damaged block reports itself even when the name is missing.
    yd = record(host() + trailer({kA}));
    put(host() + tb::Builder().u32(12).str("VONOBS").done());
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, nullptr, 1), 0); }),
              tu::errLine("Vono::ParseVono", "file has no suond OFFS"));
    destroyYAXDATA(yd);
}

// The legacy block behind the trailer points into "TonePhoto_000"'s payload.
// Deleting an entry in front of that sound pulls both positions back by the
// deleted block's length; deleting one behind it leaves them.
TEST_F(DeleteApi, ByNameAdjustsTheLegacyBlockAroundTheSound) {
    const Entry tone = toneSound("the sound"), meta = toneMeta();
    const uint32_t la = tb::blockLength(kA), start = u32size(host()) + la + 21, end = start + 9;
    YAXDATA *yd = record(host() + trailer({kA, tone, meta, kD}) + vono1(start, end));
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "d", 1), 1);
    EXPECT_EQ(now(), host() + trailer({kA, tone, meta}) + vono1(start, end));
    EXPECT_EQ(deleteYAXDataFromFilebyName(&yd, "a", 1), 1);
    EXPECT_EQ(now(), host() + trailer({tone, meta}) + vono1(start - la, end - la));
    EXPECT_EQ(names(yd), (std::vector<std::string>{"TonePhoto_000", "TonePhoto_Meta_Info"}));
    destroyYAXDATA(yd);
}

// Every kind of ending goes, the plain image refuses, and an unreadable path
// is reported as done.
TEST_F(DeleteApi, AllFromFileByKindOfEnding) {
    const uint32_t p = u32size(host());
    EXPECT_EQ(deleteAllDataFromFile(dir.path("absent.jpg").c_str()), 1);
    for (const auto &[content, result] : std::vector<std::pair<Bytes, int>>{
             {host(), 0}, {host() + trailer({kA, kB}), 1}, {host() + tb::bytes("snd") + vono1(p, p + 3), 1},
             {host() + trailer({toneSound("snd"), toneMeta()}) + vono1(p + 21, p + 24), 1}}) {
        put(content);
        EXPECT_EQ(deleteAllDataFromFile(file.c_str()), result);
        EXPECT_EQ(now(), host());
        expectAlone();
    }
}

TEST_F(DeleteApi, MultiByNameAlwaysReportsOne) {
    YAXDATA *yd = record(host() + trailer({kA, kB, kC, kD}));
    const char *none[] = {nullptr}, *two[] = {"c", "a"}, *unknown[] = {"a", "b", "c", "zz"};
    // nothing to delete, or an unknown name: the multi delete refuses, the call still says 1
    EXPECT_EQ(deleteYAXMultiDataFromFilebyName(&yd, none, 0), 1);
    EXPECT_EQ(deleteYAXMultiDataFromFilebyName(&yd, unknown, 4), 1);
    EXPECT_EQ(now(), host() + trailer({kA, kB, kC, kD}));
    EXPECT_EQ(deleteYAXMultiDataFromFilebyName(&yd, two, 2), 1);
    EXPECT_EQ(now(), host() + trailer({kB, kD}));
    destroyYAXDATA(yd);
}

// Fast deletes keep the file's length: the vacated bytes become one filler
// (the layouts themselves are the container suite's; here the lookup, the
// refusals and the stream flavour, whose record leaves the stream open).
TEST_F(DeleteApi, FastDeletesLeaveAFiller) {
    const Bytes before = host() + trailer({kA, kB, kC});
    put(before);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(deleteFastAYAXData(file.c_str(), "zz"), 0); }),
              tu::errLine("FastDeleteAYAXData", "index <0, YAX_info->meta_count fail"));
    EXPECT_EQ(deleteFastAYAXData(file.c_str(), "b"), 1);
    EXPECT_EQ(now(), host() + trailer({filler(tb::blockLength(kB)), kA, kC}));
    put(before);
    FILE *fp = std::fopen(file.c_str(), "r+b");
    EXPECT_EQ(deleteFastAllYAXDataFP(fp) + deleteFastAllYAXDataFP(fp), 2);  // the stream is still usable
    EXPECT_EQ(std::fclose(fp), 0);
    EXPECT_EQ(now(), host() + trailer({filler(before.size() - host().size() - 32)}));
}

}  // namespace
