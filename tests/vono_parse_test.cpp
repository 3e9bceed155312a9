// The legacy audio block: parsing a file and a buffer (every case through both
// flavours), the sound table with its bounds, the first-sound range test,
// sound reads, the check forms' stream ownership and the buffer writers' bytes.
#include <gtest/gtest.h>

#include <fcntl.h>

#include "testutil.hpp"
#include "yax_support.h"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;
using Words = std::vector<uint32_t>;
using Ints = std::vector<int>;

namespace {

std::string parseLine(const std::string &msg) { return tu::errLine("Vono::ParseVono", msg); }
const std::string kBigger = parseLine("header is bigger then file -> that's not true!!");

YAXBUFFER *bufferOf(const Bytes &b) {
    YAXBUFFER *h = _qbopen(static_cast<uint32_t>(b.size()));
    if (h != nullptr && !b.empty()) _qbwrite(b.data(), static_cast<uint32_t>(b.size()), h);
    return h;
}

// Parses a file (by path) or a buffer and reads its table. Gives the table
// read's result, the record's numbers and its table (at least one pair),
// nothing without a record, and what was printed.
std::pair<Words, std::string> parse(const Bytes &b, bool buffer) {
    tu::TempDir dir;
    tu::writeFile(dir.path("p.jpg"), b);
    YAXBUFFER *h = bufferOf(b);
    Words w;
    std::string log = tu::capture([&] {
        VonoInfo *v = buffer ? ParseVonoBuffer(h) : ParseVono(dir.path("p.jpg").c_str());
        if (v == nullptr) return;
        const int table = buffer ? ParseVonoSoundBufferApi(v) : ParseVonoSound(v);
        w = {uint32_t(table), v->valid, v->file_size, v->header_size,
             v->version, v->count, v->block_length, v->sound_moved};
        if (v->offsets) w.insert(w.end(), v->offsets, v->offsets + 2 * std::max(v->count, 1u));
        EXPECT_TRUE(!buffer || v->buffer == h);
        DestroyVono(v);
    });
    _qbclose(h);
    return {w, log};
}

Bytes block(uint32_t count, uint32_t start, uint32_t end, uint32_t version = 105) {
    return tb::Builder().str("VONO").u32(version).u32(count).u32(start).u32(end).u32(20).str("VONOBS").done();
}

}  // namespace

TEST(VonoParse, FileAndBufferFlavoursParseAndBoundTheTableAlike) {
    const Bytes img = tb::fakeImage(64), big = tb::fakeImage(4000);
    const std::string seek = tu::errLine("_qlseek", "errno : 22");
    Bytes lower = img + block(1, 1, 2);
    lower.back() = 's';  // "VONOBs": markers compare case-sensitively
    struct Case {
        Bytes file;
        std::string log;
        Words want = {}, bufferWant = {};  // no record; the buffer's when it differs
    } cases[] = {
        {img + tb::bytes("first sound!second") + tb::vonoBlock({{64, 76}, {76, 82}}), "",
         {1, 1, 64 + 18 + 38, 28, 105, 2, 38, 0, 64, 76, 76, 82}},
        // count 0, yet one zero pair, counted in the header size, is kept
        {img + block(0, 0, 0), "", {1, 1, 64 + 30, 20, 105, 0, 22, 0, 0, 0}},
        {img + block(1, 1, 2, 205), "", {1, 1, 64 + 30, 20, 205, 1, 30, 0, 1, 2}},  // still read
        // no Vono data, silently
        {tb::bytes("VONOBS"), ""}, {tb::bytes("123VONOBS"), ""}, {{}, ""},
        {tb::fakeImage(500), ""}, {lower, ""},
        // 12 would be a table without sounds: the smallest size read is 13
        {img + tb::vonoBlock({}, 105, 12), parseLine("file has no suond OFFS")},
        {img + tb::vonoBlock({}, 105, 13), parseLine("file has no suond FSIG")},
        {img + tb::vonoBlock({{1, 2}}, 105, 100), parseLine("file has no suond OFFS")},
        // the head is looked for exactly header size + 10 from the end
        {img + tb::vonoBlock({{1, 2}}, 105, 24), parseLine("file has no suond FSIG")},
        {img + block(1, 1, 2, 206), parseLine("the source file has YAX data but current YAX version is too "
                                              "old to parse the source file")},
        // a size that fits the file but not the head in front of it (a buffer seeks silently)
        {tb::Builder().str("VONO").zeros(4).u32(13).str("VONOBS").done(),
         seek + parseLine("File Search Error")},
        // A one-sound block (30 bytes, header size 20) is read only when the
        // file holds 20 + 30 = 50 bytes, though 30 would do.
        {tb::fakeImage(19) + block(1, 5, 9), kBigger, {0, 1, 49, 20, 105, 0, 30, 0}},
        {tb::fakeImage(20) + block(1, 5, 9), "", {1, 1, 50, 20, 105, 1, 30, 0, 5, 9}},
        // 8 x 0x20000000 wraps to 0 in 32 bits and must not slip under the bound
        {big + block(0x20000000u, 1, 2), kBigger, {0, 1, 4030, 20, 105, 0, 22, 0}},
        {big + block(0xFFFFFFFFu, 1, 2), kBigger, {0, 1, 4030, 20, 105, 0, 14, 0}},
        // A table running past the end: behind the pair the size word, "VONO"
        // and "BS" (0x5342 from a file, 0 from a buffer), then zeros.
        {big + block(3, 7, 8), "", {1, 1, 4030, 20, 105, 3, 46, 0, 7, 8, 20, 0x4F4E4F56, 0x5342, 0},
         {1, 1, 4030, 20, 105, 3, 46, 0, 7, 8, 20, 0x4F4E4F56, 0, 0}},
    };
    for (const Case &c : cases)
        for (bool buffer : {false, true}) {
            const Words &want = buffer && !c.bufferWant.empty() ? c.bufferWant : c.want;
            const std::string log = buffer && c.log.rfind(seek, 0) == 0 ? c.log.substr(seek.size()) : c.log;
            EXPECT_EQ(parse(c.file, buffer), std::make_pair(want, log)) << buffer << &c - cases;
        }
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(ParseVono("/nonexistent/p.jpg"), nullptr); }),
              parseLine("File Open Error"));
}

TEST(VonoParse, FirstSoundRangeAndSoundReads) {
    uint32_t pair[2] = {};
    VonoInfo v{1, 100, 20, 105, 0, 0, 30, nullptr, nullptr, pair};
    EXPECT_EQ(_getAudioInImageFile(&v), nullptr);  // no sound
    v.count = 1;
    // start 0, empty, past the end either way; up to the very end is allowed
    for (Words c : {Words{0, 10, 0}, {40, 40, 0}, {40, 101, 0}, {101, 40, 0}, {40, 100, 60}}) {
        std::copy(c.begin(), c.begin() + 2, pair);
        VONOOFFSET *o = _getAudioInImageFile(&v);
        EXPECT_EQ(o ? Words({o->offset, o->length}) : Words({c[0], 0}), Words({c[0], c[2]}));
        _destroyVONOOFFSET(o);
    }
    // a buffer's sound read refuses an unreachable start, not a short read
    YAXBUFFER *h = bufferOf(tb::bytes("first sound!second"));
    char got[7] = {};
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ReadSoundDataBufferApi(h, 19, 2, got), 0); }),
              tu::errLine("Vono::ReadSoundData", "File Search error"));
    EXPECT_EQ(ReadSoundDataBufferApi(h, 16, 4, got) + ReadSoundDataBufferApi(h, 12, 6, got), 2);
    EXPECT_STREQ(got, "second");
    _qbclose(h);
}

TEST(VonoParse, TableReadRefusalsAndTheCheckFormsStreams) {
    VonoInfo bare{};
    int results = 0;
    const Bytes good = tb::fakeImage(20) + block(1, 5, 9);
    const std::string missing = parseLine("File doesn't exist");
    YAXBUFFER *h = bufferOf(good);
    // the buffer check form reads the table with the file form and never succeeds
    EXPECT_EQ(tu::capture([&] {
                  results = ParseVonoSound(nullptr) + ParseVonoSound(&bare);
                  bare.valid = 1;
                  results += ParseVonoSound(&bare) + ParseVonoSoundBufferApi(&bare);
                  results += _checkAudioInImageBuffer(h) != nullptr;
              }),
              parseLine("Wrong vono_info") + parseLine("Vono validation failed") + missing + missing +
                  missing);
    EXPECT_EQ(results, 0);
    _qbclose(h);
    // the stream form: success leaves the caller's stream open, a failed table read closes it
    tu::TempDir dir;
    for (const Bytes &b : {good, tb::fakeImage(19) + block(1, 5, 9)}) {
        tu::writeFile(dir.path("p.jpg"), b);
        FILE *fp = std::fopen(dir.path("p.jpg").c_str(), "rb");
        const int fd = fileno(fp);
        VonoInfo *v = nullptr;
        EXPECT_EQ(tu::capture([&] { v = _checkAudioInImageFP(fp); }), b == good ? "" : kBigger);
        EXPECT_EQ(fcntl(fd, F_GETFD) != -1, b == good);
        EXPECT_EQ(v != nullptr && v->fp == fp, b == good);
        if (DestroyVonoFP(v) == 1) std::fclose(fp);
    }
}

TEST(VonoParse, BufferBlockWritersAndTheHeadMarkerThatNeverLands) {
    // The buffer's head marker goes to the file writer and fails as a 4-byte
    // file write does; the rest of the block lands.
    YAXBUFFER *h = _qbopen(64);
    const uint32_t one[2] = {3, 4};
    int r = 0;
    EXPECT_EQ(tu::capture([&] { r = WriteSoundHeaderBufferApi(h); }),
              tu::errLine("YAXSystemFile::_qfwrite", "write ret != write size_of_byte  ==> fail(-1 != 4)"));
    EXPECT_EQ(Ints({r, WriteSoundCountBufferApi(h, 1), WriteSoundDataBufferBufferApi(h, one, 1),
                    WriteSoundDataBufferApi(h, 30, 31), WriteSoundTailerBufferApi(h, 2)}),
              Ints({-1, 0, 0, 0, 6}));
    EXPECT_EQ(Bytes(qbgetBuffer(h), qbgetBuffer(h) + qbgetWriteSize(h)),
              tb::Builder().u32(105).u32(1).u32(3).u32(4).u32(30).u32(31).u32(28).str("VONOBS").done());
    _qbclose(h);
    h = _qbopen(6);  // a full buffer: the tail marker fails with the buffer's 0
    EXPECT_EQ(WriteSoundTailerBufferApi(h, 1), 0);
    _qbclose(h);
}
