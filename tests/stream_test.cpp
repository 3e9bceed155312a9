// Payloads streamed from a file into an entry, and entries streamed out to
// a file: the bytes that land are those of the in-memory path, whatever the
// payload's size against the copy chunk, the flavour, the safe-edit mode or
// the edits that came before.
#include <fcntl.h>
#include <unistd.h>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_support.h"

namespace {

using namespace at;

constexpr uint32_t kChunk = 1u << 18;  // the copy routine's read/write chunk

enum Flavour { kPath, kFP, kFast, kFastFP, kMp4 };

struct Step {
    Flavour how;
    const char *name;
    const char *sub;  // "" for none
    int option;
    int64_t delta;    // payload size: the tested size plus this
};

Bytes slurp(const std::string &path) {
    Bytes b;
    if (FILE *f = std::fopen(path.c_str(), "rb")) {
        std::fseek(f, 0, SEEK_END);
        b.resize(size_t(std::ftell(f)));
        std::rewind(f);
        if (std::fread(b.data(), 1, b.size(), f) != b.size()) b.clear();
        std::fclose(f);
    }
    return b;
}

Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 131 + seed + (i >> 9));
    return b;
}

int saveInMemory(const std::string &f, const Step &s, const Bytes &data) {
    const auto n = uint32_t(strlen(s.name)), sl = uint32_t(strlen(s.sub));
    const void *sub = sl != 0 ? s.sub : nullptr;
    const auto *d = data.empty() ? nullptr : data.data();
    const auto dl = u32size(data);
    FILE *fp = s.how != kPath && s.how != kFast ? _qfopen(f.c_str(), "r+b") : nullptr;
    int r = 0;
    switch (s.how) {
    case kPath: r = saveYAXDataToFile(f.c_str(), s.name, n, sub, sl, d, dl, 5, s.option); break;
    case kFP: r = saveYAXDataToFP(fp, s.name, n, sub, sl, d, dl, 5, s.option); break;
    case kFast: r = saveFastYAXDataToFile(f.c_str(), s.name, n, sub, sl, d, dl, 5, s.option); break;
    case kFastFP: r = saveFastYAXDataToFP(fp, s.name, n, sub, sl, d, dl, 5, s.option); break;
    case kMp4: r = saveYAXDataToFPToMP4(fp, s.name, n, sub, sl, d, dl, 5, s.option); break;
    }
    if (fp != nullptr) _qfclose(fp);
    return r;
}

int saveStreamed(const std::string &f, const Step &s, const std::string &payload) {
    const auto n = uint32_t(strlen(s.name)), sl = uint32_t(strlen(s.sub));
    const void *sub = sl != 0 ? s.sub : nullptr;
    const char *p = payload.c_str();
    FILE *fp = s.how != kPath && s.how != kFast ? _qfopen(f.c_str(), "r+b") : nullptr;
    int r = 0;
    switch (s.how) {
    case kPath: r = saveYAXFileDataToFile(f.c_str(), s.name, n, sub, sl, p, 5, s.option); break;
    case kFP: r = saveYAXFileDataToFP(fp, s.name, n, sub, sl, p, 5, s.option); break;
    case kFast: r = saveFastYAXDataFileToFile(f.c_str(), s.name, n, sub, sl, p, 5, s.option); break;
    case kFastFP: r = saveFastYAXNameToFP(fp, s.name, n, sub, sl, p, 5, s.option); break;
    case kMp4: r = saveYAXDataFileToFPToMP4(fp, s.name, n, sub, sl, p, 5, s.option); break;
    }
    if (fp != nullptr) _qfclose(fp);
    return r;
}

// A mixed sequence: first adds, adds with sub-information, replaces that
// rewrite, fast replaces that fill the filler exactly, leave a smaller filler
// or append, and a one-byte entry among them.
const std::vector<Step> kSequence = {
    {kPath, "a", "", 0, 0},         {kFP, "b", "si", 0, 0},        {kFast, "c", "", 0, 0},
    {kPath, "a", "", 1, 0},         {kFastFP, "b", "si", 1, 0},    {kFast, "c", "", 1, -25},
    {kFP, "c", "x", 1, 1},          {kFastFP, "one", "", 0, -1000000000}, {kPath, "b", "", 1, 0},
    {kFast, "a", "", 1, 0},
    // refused, the name is there (the path flavours log the same: nothing)
    {kPath, "a", "", 0, 0},         {kFast, "b", "", 0, 0},
};

// MP4 saves: the first makes the box, later ones keep it sized (or wrap an
// unboxed trailer); replaces, sub-information, a one-byte entry, a refusal.
const std::vector<Step> kMp4Sequence = {
    {kMp4, "a", "", 0, 0}, {kMp4, "b", "si", 0, 0}, {kMp4, "a", "", 1, -7},
    {kMp4, "one", "", 0, -1000000000}, {kMp4, "b", "", 1, 1}, {kMp4, "a", "", 0, 0},
};

class Streamed : public ApiTest, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override { yaxSetSafeEdit(GetParam()); }
    void TearDown() override { yaxSetSafeEdit(0); }

    // Runs the sequence for payloads of `size` bytes on two copies of
    // `start`, from memory and from a file, comparing after every step.
    void sameAsInMemory(const Bytes &start, int64_t size, size_t steps = kSequence.size(),
                        const std::vector<Step> &sequence = kSequence) {
        const std::string mem = dir.path("mem.jpg"), payload = dir.path("payload.bin");
        tu::writeFile(mem, start);
        put(start);
        uint8_t seed = 1;
        for (size_t i = 0; i < steps; ++i) {
            const Step &s = sequence[i];
            SCOPED_TRACE(std::string(s.name) + " flavour " + std::to_string(s.how) + " size " +
                         std::to_string(size + s.delta));
            const Bytes data = pattern(size_t(std::max<int64_t>(1, size + s.delta)), seed++);
            tu::writeFile(payload, data);
            std::string memLog, streamLog;
            int a = 0, b = 0;
            memLog = tu::capture([&] { a = saveInMemory(mem, s, data); });
            streamLog = tu::capture([&] { b = saveStreamed(file, s, payload); });
            EXPECT_EQ(a, b);
            EXPECT_EQ(memLog, streamLog);
            ASSERT_TRUE(slurp(mem) == slurp(file));
        }
        EXPECT_EQ(dir.list(), (std::vector<std::string>{"mem.jpg", "payload.bin", "photo.jpg"}));
    }
};

TEST_P(Streamed, SameBytesResultsAndLinesAsFromMemoryAtEveryChunkBoundary) {
    // the whole sequence for the smallest payloads and one chunk and a byte;
    // its first steps (every flavour once) around the chunk
    sameAsInMemory(host(), 1);
    sameAsInMemory(host(), kChunk + 1);
    for (int64_t size : {int64_t{kChunk - 1}, int64_t{kChunk}}) sameAsInMemory(host(), size, 5);
    // legacy audio is converted first, on both paths
    const uint32_t p = u32size(host());
    sameAsInMemory(host() + tb::bytes("snd") + vono1(p, p + 3), 100);
    // into a video (box made, then kept sized) and around an unboxed trailer
    const Bytes video = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.mp4");
    for (int64_t size : {int64_t{1}, int64_t{kChunk + 1}}) {
        sameAsInMemory(video, size, kMp4Sequence.size(), kMp4Sequence);
        sameAsInMemory(host() + tb::trailer({Entry{1, "z", "x", ""}}), size, kMp4Sequence.size(), kMp4Sequence);
    }
}

// An empty payload file and a missing one are refused alike, and the target
// is left alone; a payload file that is the target itself is stored as it
// was before the call, as when payloads were read whole.
TEST_P(Streamed, EmptyMissingAndSelfPayloads) {
    const std::string empty = dir.path("empty.bin");
    tu::writeFile(empty, {});
    put(host() + tb::trailer({Entry{1, "a", "x", ""}}));
    const Bytes before = now();
    for (Flavour how : {kPath, kFP, kFast, kFastFP}) {
        EXPECT_EQ(saveStreamed(file, Step{how, "e", "", 0, 0}, empty), 0);
        EXPECT_EQ(saveStreamed(file, Step{how, "e", "", 0, 0}, dir.path("none")), 0);
    }
    EXPECT_EQ(now(), before);
    for (Flavour how : {kPath, kFP, kFast, kFastFP, kMp4}) {
        const Bytes was = now();
        const std::string name = "self" + std::to_string(how);
        ASSERT_EQ(saveStreamed(file, Step{how, name.c_str(), "", 0, 0}, file), 1);
        YAXDATA *yd = checkYAXWithReadPM(file.c_str());
        ASSERT_NE(yd, nullptr);
        YAXDATA_UNIT *u = extractYAXDataFromFilebyName(yd, name.c_str(), uint32_t(name.size()));
        ASSERT_NE(u, nullptr);
        EXPECT_EQ(Bytes(u->data, u->data + u->data_length), was);
        destroyYAXDATA_UNIT(u);
        destroyYAXDATA(yd);
    }
}

INSTANTIATE_TEST_SUITE_P(SafeEdit, Streamed, ::testing::Values(0, 1));

// Streaming extraction gives exactly the bytes of each part, to a file at
// its position (after what stdio still held), to one opened for appending
// and to a pipe; missing parts, unknown parts and parts that lie
// outside the file are refused with a line.
TEST_F(ApiTest, StreamingExtraction) {
    const Entry one{1, "1", "z", ""}, big{2, "big", std::string(kChunk + 1, 'q'), "s"};
    const Entry mid{3, "mid", "payload", "sub-information"};
    put(host() + tb::trailer({one, big, mid}));
    YAXDATA *yd = checkYAXWithReadPM(file.c_str());
    ASSERT_NE(yd, nullptr);
    const std::string out = dir.path("out.bin");
    const std::string tag = "YAXAPIs::yaxStreamYAXData";
    for (const char *mode : {"wb", "ab"}) {
        tu::writeFile(out, tb::bytes("head"));
        FILE *o = std::fopen(out.c_str(), mode);
        if (mode[0] == 'w') std::fwrite("HE", 1, 2, o);  // buffered: flushed before the copy
        EXPECT_EQ(yaxStreamYAXDataByName(yd, "big", YAX_STREAM_PAYLOAD, o), int64_t(kChunk + 1));
        EXPECT_EQ(yaxStreamYAXData(yd, 2, YAX_STREAM_SUB_INFO, o), 15);
        EXPECT_EQ(yaxStreamYAXData(yd, 0, YAX_STREAM_PAYLOAD, o), 1);
        std::fclose(o);
        const Bytes lead = tb::bytes(mode[0] == 'w' ? "HE" : "head");
        EXPECT_EQ(tu::readFile(out), lead + tb::bytes(big.payload + mid.sub + one.payload));
    }
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    FILE *w = fdopen(fds[1], "wb");
    EXPECT_EQ(yaxStreamYAXData(yd, 2, YAX_STREAM_PAYLOAD, w), 7);
    std::fclose(w);
    char got[16] = {};
    EXPECT_EQ(read(fds[0], got, sizeof got), 7);
    close(fds[0]);
    EXPECT_EQ(std::string(got), "payload");

    FILE *o = std::fopen(out.c_str(), "wb");
    EXPECT_EQ(tu::capture([&] {
                  EXPECT_EQ(yaxStreamYAXData(yd, 0, YAX_STREAM_SUB_INFO, o), -1);
                  EXPECT_EQ(yaxStreamYAXData(yd, 3, YAX_STREAM_PAYLOAD, o), -1);
                  EXPECT_EQ(yaxStreamYAXDataByName(yd, "big", 2, o), -1);
                  EXPECT_EQ(yaxStreamYAXData(nullptr, 0, YAX_STREAM_PAYLOAD, o), -1);
              }),
              tu::errLine(tag, "entry 0 has no such part") + tu::errLine(tag, "entry 3 has no such part") +
                  tu::errLine(tag, "unknown part 2") + tu::errLine(tag, "no file record or no output"));
    destroyYAXDATA(yd);

    // The file loses bytes after it was parsed: the big payload now ends past it.
    yd = checkYAXWithReadPM(file.c_str());
    ASSERT_NE(yd, nullptr);
    const int64_t cut = u32size(host()) + 100;
    ASSERT_EQ(truncate64(file.c_str(), cut), 0);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(yaxStreamYAXData(yd, 1, YAX_STREAM_PAYLOAD, o), -1); }),
              tu::errLine(tag, "entry 1 lies outside the file"));
    std::fclose(o);
    EXPECT_EQ(tu::readFile(out), Bytes());
    destroyYAXDATA(yd);
}

}  // namespace
