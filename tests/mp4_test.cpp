// The "yaxd" box in an MP4 file: detection, the three box sizes (created,
// refreshed, put around an unboxed trailer), the saves' refusals and lines,
// a mixed sequence of edits, and players still reading the video after each.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace {

using at::Bytes;
using at::Entry;
using tb::operator+;

Bytes mp4() {
    static const Bytes video = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.mp4");
    return video;
}

// Box head with the stored size, then the trailer.
Bytes boxed(uint32_t size, const std::vector<Entry> &entries) {
    return tb::Builder().u32be(size).str("yaxd").done() + tb::trailer(entries);
}
uint32_t trailerSize(const std::vector<Entry> &entries) {
    return static_cast<uint32_t>(tb::trailer(entries).size());
}

const Entry kA{1, "a", "x", ""};                    // the smallest entry: 1-byte name and payload
const Entry kB{3, "bb", "payload-b", "sub"};        // with sub-information
const Entry kC{2, "c", std::string(300, 'c'), ""};  // a block longer than the header

class Mp4 : public at::ApiTest {
protected:
    std::string video = dir.path("clip.mp4");

    // Runs `fn` on the file opened "r+b"; returns its result.
    int onStream(const Bytes &start, const std::function<int(FILE *)> &fn) {
        tu::writeFile(video, start);
        FILE *fp = std::fopen(video.c_str(), "r+b");
        const int r = fn(fp);
        std::fclose(fp);
        return r;
    }
    int save(const Bytes &start, const Entry &e, int option = 0) {
        return onStream(start, [&](FILE *fp) {
            return saveYAXDataToFPToMP4(fp, e.name.data(), uint32_t(e.name.size()),
                                        e.hasSub() ? e.sub.data() : nullptr, uint32_t(e.sub.size()),
                                        e.payload.data(), uint32_t(e.payload.size()), e.type, option);
        });
    }
    // What a player reads of the video: its streams and duration.
    std::string probe() const {
        if (access("/usr/bin/ffprobe", X_OK) != 0) return "no ffprobe";
        std::string cmd = "/usr/bin/ffprobe -v error -show_entries stream=index,codec_name,width,height,nb_frames"
                          ":format=duration -of compact '" + video + "' 2>&1";
        std::string out;
        if (FILE *p = popen(cmd.c_str(), "r")) {
            char buf[512];
            while (fgets(buf, sizeof buf, p)) out += buf;
            pclose(p);
        }
        return out;
    }
};

TEST_F(Mp4, DetectionByTheBrandAtOffsetFour) {
    const struct {
        Bytes content;
        int result;
        std::string lines;
    } cases[] = {
        {mp4(), 1, ""},
        {at::host(), 0, ""},
        {tb::bytes(std::string_view("\0\0\0\x20" "ftyp", 8)), 1, ""},
        {tb::bytes(std::string_view("\0\0\0\x20" "fty", 7)), 0, tu::errLine("YAX::checkSignatureMP4Tag", "File Read Error")},
        {tb::bytes(std::string_view("\0\0\0\x20" "FTYP", 8)), 0, ""},
    };
    for (const auto &c : cases) {
        int result = -1;
        long at = -1;
        EXPECT_EQ(tu::capture([&] {
                      result = onStream(c.content, [&](FILE *fp) {
                          const int r = checkMP4Fp(fp);
                          at = long(lseek(fileno(fp), 0, SEEK_CUR));
                          return r;
                      });
                  }),
                  c.lines);
        EXPECT_EQ(result, c.result);
        if (result == 1) {
            EXPECT_EQ(at, 0);
        }
    }
    EXPECT_EQ(checkMP4Fp(nullptr), 0);
}

// The three sizes: a new box counts its head, a refreshed one too, a box put
// around an unboxed trailer stores 8 less.
TEST_F(Mp4, BoxSizesOfTheFirstEntryARefreshAndAWrap) {
    tu::writeFile(video, mp4());
    const std::string before = probe();
    const struct {
        const char *what;
        Bytes start;
        Entry add;
        Bytes want;
    } cases[] = {
        {"first, smallest", mp4(), kA, mp4() + boxed(8 + trailerSize({kA}), {kA})},
        {"first, sub-information", mp4(), kB, mp4() + boxed(8 + trailerSize({kB}), {kB})},
        {"refresh", mp4() + boxed(8 + trailerSize({kA}), {kA}), kB,
         mp4() + boxed(8 + trailerSize({kA, kB}), {kA, kB})},
        {"refresh of a stale size", mp4() + boxed(7, {kA}), kC,
         mp4() + boxed(8 + trailerSize({kA, kC}), {kA, kC})},
        {"wrap", mp4() + tb::trailer({kA}), kB, mp4() + boxed(trailerSize({kA, kB}), {kA, kB})},
        {"wrap, long block", mp4() + tb::trailer({kA, kB}), kC,
         mp4() + boxed(trailerSize({kA, kB, kC}), {kA, kB, kC})},
    };
    for (int safe : {0, 1}) {
        yaxSetSafeEdit(safe);
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(c.what) + (safe ? " (safe mode)" : ""));
            EXPECT_EQ(tu::capture([&] { EXPECT_EQ(save(c.start, c.add), 1); }), "");
            EXPECT_EQ(tu::readFile(video), c.want);
            EXPECT_EQ(probe(), before);
            EXPECT_EQ(dir.list(), std::vector<std::string>{"clip.mp4"});
        }
    }
    yaxSetSafeEdit(0);
}

TEST_F(Mp4, RefusalsLeaveTheFileAndSayWhy) {
    const std::string tag = "YAXAPIs::saveYAXDataToFPToMP4";
    const Bytes withBox = mp4() + boxed(8 + trailerSize({kA}), {kA});
    const Bytes vono = at::host() + at::vono1(4, 8);
    const char *x = "x";
    const Bytes damaged = mp4() + tb::bytes("12345") + tb::header({{1u << 16, 5, 5}}, 105, 1000);
    const struct {
        const char *what;
        Bytes start;
        std::function<int(FILE *)> call;
        int result;
        std::string lines;
    } cases[] = {
        {"empty name", mp4(), [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 0, nullptr, 0, x, 1, 1, 0); },
         0, tu::errLine(tag, "yax_name_length is 0, the length should be larger than 1\n")},
        {"no stream", mp4(), [&](FILE *) { return saveYAXDataToFPToMP4(nullptr, "a", 1, nullptr, 0, x, 1, 1, 0); },
         0, tu::errLine(tag, "fp is null \n")},
        {"no name", mp4(), [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, nullptr, 1, nullptr, 0, x, 1, 1, 0); },
         0, tu::errLine(tag, "yax_name is null \n")},
        {"no payload", mp4(), [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 1, nullptr, 0, nullptr, 1, 1, 0); },
         0, tu::errLine(tag, "data null \n")},
        {"empty payload", mp4(), [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 1, nullptr, 0, x, 0, 1, 0); },
         0, tu::errLine(tag, "data null \n")},
        {"too big", mp4(), [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 1, nullptr, 0, x, 0xFFF00001u, 1, 0); },
         0, tu::errLine(tag, "Too big YAX data to add in the file")},
        {"legacy audio", vono, [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 1, nullptr, 0, x, 1, 1, 0); },
         0, ""},
        {"same name, no replace", withBox,
         [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 1, nullptr, 0, x, 1, 1, 0); }, 0,
         tu::errLine(tag, "save fail \n")},
        // the caller's payload (a literal here) is not released by the save
        {"damaged trailer", damaged, [&](FILE *fp) { return saveYAXDataToFPToMP4(fp, "a", 1, nullptr, 0, x, 1, 1, 0); },
         0, tu::errLine("YAX::ParseYAXList", "header is bigger then file -> that's not true!!")},
        {"payload file missing", mp4(),
         [&](FILE *fp) { return saveYAXDataFileToFPToMP4(fp, "a", 1, nullptr, 0, "/nonexistent/p", 1, 0); }, 1,
         ""},
        {"payload file empty", mp4(),
         [&](FILE *fp) { return saveYAXDataFileToFPToMP4(fp, "a", 1, nullptr, 0, "/dev/null", 1, 0); }, 0, ""},
        {"user data without sub-information", mp4(),
         [&](FILE *fp) { return saveYAXDataFileToFPToMP4(fp, "a", 1, nullptr, 0, YAX_TEST_DATA "/sample.jpg", 0, 0); },
         0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        int result = -1;
        const std::string lines = tu::capture([&] { result = onStream(c.start, c.call); });
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(lines, c.lines);
        EXPECT_EQ(tu::readFile(video), c.start);
    }
}

// A payload file goes in as the same bytes as the payload given in memory.
TEST_F(Mp4, PayloadFromAFile) {
    const std::string payload = dir.path("payload");
    tu::writeFile(payload, tb::bytes(kC.payload));
    EXPECT_EQ(onStream(mp4(), [&](FILE *fp) {
                  return saveYAXDataFileToFPToMP4(fp, "c", 1, nullptr, 0, payload.c_str(), 2, 0);
              }),
              1);
    EXPECT_EQ(tu::readFile(video), mp4() + boxed(8 + trailerSize({kC}), {kC}));
}

// The box writers on their own, and the guard on a parse whose start lies
// past its end.
TEST_F(Mp4, BoxWritersAndTheirFailures) {
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(onStream({}, [](FILE *fp) { return writeFirstMP4Tag(fp, 9); }), 0); }),
              tu::errLine("YAX::writeFirstMP4Tag", "File Search Error"));
    EXPECT_EQ(onStream(mp4(), [](FILE *fp) { return writeFirstMP4Tag(fp, 0x01020304); }), 1);
    EXPECT_EQ(tu::readFile(video), mp4() + tb::Builder().u32be(0x01020304).str("yaxd").done());

    const Bytes stale = mp4() + boxed(1, {kA, kB});
    EXPECT_EQ(onStream(stale, [](FILE *fp) {
                  YAXDATA *yd = checkYAXInFP(fp);
                  const int r = yd ? updateMP4Tag(yd->yax_info) : -1;
                  destroyYAXDATA_FP(yd);
                  return r;
              }),
              1);
    EXPECT_EQ(tu::readFile(video), mp4() + boxed(8 + trailerSize({kA, kB}), {kA, kB}));

    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(onStream(mp4() + tb::trailer({kA}), [](FILE *fp) {
                                YAXDATA *yd = checkYAXInFP(fp);
                                yd->yax_info->data_start_position = yd->yax_info->file_size + 100;
                                const int r = writeMP4Tag(yd->yax_info, 0);
                                destroyYAXDATA_FP(yd);
                                return r;
                            }),
                            0);
              }),
              tu::errLine("YAX::writeMP4Tag", "the trailer does not fit in a box"));
    EXPECT_EQ(tu::readFile(video), mp4() + tb::trailer({kA}));
    EXPECT_EQ(updateMP4Tag(nullptr), 0);
}

// Adds, replaces and deletes mixed on one MP4; each result against bytes
// built here, and the video read the same after every step. The deletes that
// work from the first block keep the box head with its old size.
TEST_F(Mp4, MixedEditsKeepTheVideo) {
    tu::writeFile(video, mp4());
    const std::string before = probe();
    auto step = [&](const std::function<int(FILE *)> &fn) {
        FILE *fp = std::fopen(video.c_str(), "r+b");
        const int r = fn(fp);
        std::fclose(fp);
        return r;
    };
    auto add = [&](const Entry &e, int option) {
        return step([&](FILE *fp) {
            return saveYAXDataToFPToMP4(fp, e.name.data(), uint32_t(e.name.size()), e.hasSub() ? e.sub.data() : nullptr,
                                        uint32_t(e.sub.size()), e.payload.data(), uint32_t(e.payload.size()), e.type,
                                        option);
        });
    };
    ASSERT_EQ(add(kC, 0), 1);
    ASSERT_EQ(add(kA, 0), 1);
    EXPECT_EQ(tu::readFile(video), mp4() + boxed(8 + trailerSize({kC, kA}), {kC, kA}));
    EXPECT_EQ(probe(), before);

    // the same name replaced by a block of exactly its size stays in place
    const Entry a2{1, "a", "y", ""};
    ASSERT_EQ(add(a2, 1), 1);
    EXPECT_EQ(tu::readFile(video), mp4() + boxed(8 + trailerSize({kC, a2}), {kC, a2}));

    ASSERT_EQ(add(kB, 0), 1);
    EXPECT_EQ(tu::readFile(video), mp4() + boxed(8 + trailerSize({kC, a2, kB}), {kC, a2, kB}));

    // the fast delete makes "c" a filler in place: same length, same box head
    ASSERT_EQ(deleteFastAYAXData(video.c_str(), "c"), 1);
    const Bytes afterDelete = tu::readFile(video);
    EXPECT_EQ(afterDelete.size(), mp4().size() + 8 + trailerSize({kC, a2, kB}));
    EXPECT_EQ(Bytes(afterDelete.begin(), afterDelete.begin() + long(mp4().size()) + 8),
              mp4() + tb::Builder().u32be(8 + trailerSize({kC, a2, kB})).str("yaxd").done());
    YAXDATA *yd = checkYAXWithReadPM(video.c_str());
    ASSERT_NE(yd, nullptr);
    std::vector<std::string> names(yd->YAX_name_list, yd->YAX_name_list + yd->count);
    destroyYAXDATA(yd);
    EXPECT_EQ(names, (std::vector<std::string>{"Invalid_Data", "a", "bb"}));
    EXPECT_EQ(probe(), before);
}

}  // namespace
