// The legacy audio block: parsing a file, a stream and a buffer, the sound
// table read with its bounds, the first-sound range test, reading sound bytes
// and the block writers' bytes and results.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "testutil.hpp"
#include "yax_support.h"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;

namespace {

const std::string kTag = "Vono::ParseVono";

std::string parseLine(const std::string &msg) { return tu::errLine(kTag, msg); }

// Image, two sounds and their block; the sound positions are absolute.
Bytes twoSoundFile() {
    Bytes img = tb::fakeImage(100);
    Bytes s1 = tb::bytes("first sound!");   // 12 bytes at 100
    Bytes s2 = tb::bytes("second");         // 6 bytes at 112
    return img + s1 + s2 + tb::vonoBlock({{100, 112}, {112, 118}});
}

// Wraps bytes in a buffer stream (the caller closes it with _qbclose).
YAXBUFFER *bufferOf(const Bytes &b) {
    YAXBUFFER *h = _qbopen(static_cast<uint32_t>(b.size()));
    if (h != nullptr && !b.empty()) _qbwrite(b.data(), static_cast<uint32_t>(b.size()), h);
    return h;
}

class VonoParse : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string put(const Bytes &b, const std::string &name = "photo.jpg") {
        std::string p = dir.path(name);
        tu::writeFile(p, b);
        return p;
    }
};

}  // namespace

TEST_F(VonoParse, FileAndBufferGiveTheSameRecord) {
    Bytes f = twoSoundFile();
    std::string p = put(f);

    VonoInfo *fi = ParseVono(p.c_str());
    ASSERT_NE(fi, nullptr);
    EXPECT_EQ(fi->count, 0u);  // the table is read by the second call only
    ASSERT_EQ(ParseVonoSound(fi), 1);

    YAXBUFFER *h = bufferOf(f);
    VonoInfo *bi = ParseVonoBuffer(h);
    ASSERT_NE(bi, nullptr);
    EXPECT_EQ(bi->buffer, h);
    EXPECT_EQ(bi->fp, nullptr);
    ASSERT_EQ(ParseVonoSoundBufferApi(bi), 1);

    for (VonoInfo *r : {fi, bi}) {
        EXPECT_EQ(r->valid, 1u);
        EXPECT_EQ(r->file_size, f.size());
        EXPECT_EQ(r->header_size, 28u);
        EXPECT_EQ(r->version, 105u);
        EXPECT_EQ(r->count, 2u);
        EXPECT_EQ(r->block_length, 38u);
        EXPECT_EQ(r->sound_moved, 0u);
        EXPECT_EQ(std::vector<uint32_t>(r->offsets, r->offsets + 4),
                  (std::vector<uint32_t>{100, 112, 112, 118}));
    }
    EXPECT_EQ(_getAudioCountInImageFile(fi), 2u);

    VONOOFFSET *first = _getAudioInImageFile(fi);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->offset, 100u);
    EXPECT_EQ(first->length, 12u);
    _destroyVONOOFFSET(first);

    // the sound bytes, through both readers
    char got[13] = {};
    EXPECT_EQ(ReadSoundData(fi->fp, 100, 12, got), 1);
    EXPECT_STREQ(got, "first sound!");
    std::memset(got, 0, sizeof got);
    EXPECT_EQ(ReadSoundDataBufferApi(h, 112, 6, got), 1);
    EXPECT_STREQ(got, "second");

    EXPECT_EQ(DestroyVono(fi), 1);
    EXPECT_EQ(DestroyVonoBuffer(bi), 1);
    EXPECT_EQ(qbgetWriteSize(h), static_cast<int32_t>(f.size()));  // buffer left alone
    _qbclose(h);
}

TEST_F(VonoParse, MissingDataIsSilent) {
    std::string out = tu::capture([&] {
        EXPECT_EQ(ParseVono(put(tb::bytes("VONOBS"), "six").c_str()), nullptr);
        EXPECT_EQ(ParseVono(put(tb::bytes("123VONOBS"), "nine").c_str()), nullptr);
        EXPECT_EQ(ParseVono(put(Bytes{}, "empty").c_str()), nullptr);
        EXPECT_EQ(ParseVono(put(tb::fakeImage(500), "plain.jpg").c_str()), nullptr);
        Bytes lower = twoSoundFile();
        lower.back() = 's';  // "VONOBs": markers compare case-sensitively
        EXPECT_EQ(ParseVono(put(lower, "lower.jpg").c_str()), nullptr);
        EXPECT_EQ(ParseVonoFP(nullptr), nullptr);
        EXPECT_EQ(ParseVonoBuffer(nullptr), nullptr);
        EXPECT_EQ(ParseVono(nullptr), nullptr);
        YAXBUFFER *h = bufferOf(tb::bytes("VONOBS"));
        EXPECT_EQ(ParseVonoBuffer(h), nullptr);
        _qbclose(h);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVono(dir.path("absent").c_str()), nullptr); }),
              parseLine("File Open Error"));
}

TEST_F(VonoParse, HeaderChecksLogTheirLines) {
    Bytes img = tb::fakeImage(64);
    struct Case {
        Bytes file;
        std::string log;
    } cases[] = {
        // 12 would be a table without sounds: the smallest size read is 13
        {img + tb::vonoBlock({}, 105, 12), parseLine("file has no suond OFFS")},
        {img + tb::vonoBlock({}, 105, 13), parseLine("file has no suond FSIG")},
        {img + tb::vonoBlock({{1, 2}}, 105, 100), parseLine("file has no suond OFFS")},
        // the head is looked for exactly header size + 10 from the end
        {img + tb::vonoBlock({{1, 2}}, 105, 24), parseLine("file has no suond FSIG")},
        {img + tb::vonoBlock({{1, 2}}, 206), parseLine(
             "the source file has YAX data but current YAX version is too old to parse the "
             "source file")},
        // a size that fits the file but not the head in front of it
        {tb::Builder().str("VONO").zeros(4).u32(13).str("VONOBS").done(),
         tu::errLine("_qlseek", "errno : 22") + parseLine("File Search Error")},
    };
    for (const Case &c : cases) {
        std::string p = put(c.file);
        YAXBUFFER *h = bufferOf(c.file);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVono(p.c_str()), nullptr); }), c.log);
        // the buffer flavour logs the same lines (its seek itself is silent)
        std::string bufLog = c.log;
        if (bufLog.rfind("YAXLog\tE\t_qlseek", 0) == 0) bufLog = bufLog.substr(bufLog.find('\n') + 1);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVonoBuffer(h), nullptr); }), bufLog);
        _qbclose(h);
    }
    // 205 is the newest version still read
    VonoInfo *v = ParseVono(put(img + tb::vonoBlock({{1, 2}}, 205)).c_str());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->version, 205u);
    DestroyVono(v);
}

TEST_F(VonoParse, TableBoundCountsTheHeaderTwice) {
    // Block of one sound: 30 bytes, header size 20. The table is accepted
    // only when the file holds header size + block length = 50 bytes, even
    // though 30 would do.
    Bytes small = tb::fakeImage(19) + tb::vonoBlock({{5, 9}});  // 49 bytes
    Bytes exact = tb::fakeImage(20) + tb::vonoBlock({{5, 9}});  // 50 bytes
    VonoInfo *a = ParseVono(put(small, "a.jpg").c_str());
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVonoSound(a), 0); }),
              parseLine("header is bigger then file -> that's not true!!"));
    EXPECT_EQ(a->count, 0u);
    EXPECT_EQ(a->offsets, nullptr);
    DestroyVono(a);
    VonoInfo *b = ParseVono(put(exact, "b.jpg").c_str());
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(ParseVonoSound(b), 1);
    EXPECT_EQ(b->count, 1u);
    DestroyVono(b);
}

TEST_F(VonoParse, HostileCountsNeverReachPastTheTable) {
    // 0x20000000 sounds: 8 x count wraps to 0 in 32 bits and must not slip
    // under the bound.
    Bytes img = tb::fakeImage(4000);
    for (uint32_t n : {0x20000000u, 0x1FFFFFFFu, 0xFFFFFFFFu}) {
        Bytes f = img + tb::Builder().str("VONO").u32(105).u32(n).u32(1).u32(2).u32(20)
                            .str("VONOBS").done();
        for (int flavour = 0; flavour < 2; ++flavour) {
            YAXBUFFER *h = bufferOf(f);
            VonoInfo *v = flavour ? ParseVonoBuffer(h) : ParseVono(put(f).c_str());
            ASSERT_NE(v, nullptr);
            int r = 1;
            EXPECT_EQ(tu::capture([&] {
                          r = flavour ? ParseVonoSoundBufferApi(v) : ParseVonoSound(v);
                      }),
                      parseLine("header is bigger then file -> that's not true!!"));
            EXPECT_EQ(r, 0);
            EXPECT_EQ(v->offsets, nullptr);
            flavour ? DestroyVonoBuffer(v) : DestroyVono(v);
            _qbclose(h);
        }
    }
    // A count the file can afford but whose table runs past the end: the
    // words behind the end read as 0, in both flavours.
    Bytes f = img + tb::Builder().str("VONO").u32(105).u32(3).u32(7).u32(8).u32(20)
                        .str("VONOBS").done();
    YAXBUFFER *h = bufferOf(f);
    VonoInfo *fv = ParseVono(put(f).c_str());
    VonoInfo *bv = ParseVonoBuffer(h);
    ASSERT_TRUE(fv && bv);
    ASSERT_EQ(ParseVonoSound(fv), 1);
    ASSERT_EQ(ParseVonoSoundBufferApi(bv), 1);
    // behind the pair: the size word 20, "VONO" and "BS\0\0" (file) / 0 (buffer)
    EXPECT_EQ(std::vector<uint32_t>(fv->offsets, fv->offsets + 6),
              (std::vector<uint32_t>{7, 8, 20, 0x4F4E4F56, 0x5342, 0}));
    EXPECT_EQ(std::vector<uint32_t>(bv->offsets, bv->offsets + 6),
              (std::vector<uint32_t>{7, 8, 20, 0x4F4E4F56, 0, 0}));
    DestroyVono(fv);
    DestroyVonoBuffer(bv);
    _qbclose(h);
}

TEST_F(VonoParse, RefusalsOfTheTableReadAndTheReaders) {
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(ParseVonoSound(nullptr), 0); }),
              parseLine("Wrong vono_info"));
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(ParseVonoSoundBufferApi(nullptr), 0); }),
              parseLine("Wrong vono_info"));
    VonoInfo bare{};
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVonoSound(&bare), 0); }),
              parseLine("Vono validation failed"));
    bare.valid = 1;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVonoSound(&bare), 0); }),
              parseLine("File doesn't exist"));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseVonoSoundBufferApi(&bare), 0); }),
              parseLine("File doesn't exist"));

    // the readers: an unreachable start is refused, a short read is not
    YAXBUFFER *h = bufferOf(tb::bytes("0123456789"));
    char out[4] = {};
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ReadSoundDataBufferApi(h, 11, 2, out), 0); }),
              tu::errLine("Vono::ReadSoundData", "File Search error"));
    EXPECT_EQ(ReadSoundDataBufferApi(h, 8, 4, out), 1);
    _qbclose(h);
}

TEST_F(VonoParse, EmptyBlockParsesWithNoSounds) {
    // count 0 but one (zero) pair still counted in the header size
    Bytes f = tb::fakeImage(60) +
              tb::Builder().str("VONO").u32(105).u32(0).u32(0).u32(0).u32(20).str("VONOBS").done();
    VonoInfo *v = _checkAudioInImageFile(put(f).c_str());
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->count, 0u);
    EXPECT_EQ(v->block_length, 22u);
    ASSERT_NE(v->offsets, nullptr);
    EXPECT_EQ(v->offsets[0], 0u);
    EXPECT_EQ(v->offsets[1], 0u);
    EXPECT_EQ(_getAudioInImageFile(v), nullptr);
    DestroyVono(v);
}

TEST_F(VonoParse, FirstSoundRangeTest) {
    Bytes img = tb::fakeImage(40);
    auto first = [&](uint32_t s, uint32_t e) -> std::pair<bool, VONOOFFSET> {
        Bytes f = img + tb::fakeImage(30) + tb::vonoBlock({{s, e}});  // 100 bytes
        VonoInfo *v = _checkAudioInImageFile(put(f).c_str());
        EXPECT_NE(v, nullptr);
        VONOOFFSET *o = _getAudioInImageFile(v);
        std::pair<bool, VONOOFFSET> r{o != nullptr, o ? *o : VONOOFFSET{}};
        _destroyVONOOFFSET(o);
        DestroyVono(v);
        return r;
    };
    EXPECT_FALSE(first(0, 10).first);
    EXPECT_FALSE(first(40, 40).first);
    EXPECT_FALSE(first(40, 101).first);
    EXPECT_FALSE(first(101, 40).first);
    auto ok = first(40, 100);  // up to the very end is allowed
    ASSERT_TRUE(ok.first);
    EXPECT_EQ(ok.second.offset, 40u);
    EXPECT_EQ(ok.second.length, 60u);
    EXPECT_EQ(_getAudioInImageFile(nullptr), nullptr);
}

TEST_F(VonoParse, CheckFormsAndTheirDestroyers) {
    Bytes good = twoSoundFile();
    // the buffer form reads the table with the file form and never succeeds
    YAXBUFFER *h = bufferOf(good);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_checkAudioInImageBuffer(h), nullptr); }),
              parseLine("File doesn't exist"));
    EXPECT_EQ(qbgetWriteSize(h), static_cast<int32_t>(good.size()));
    _qbclose(h);

    // the stream form: success leaves the caller's stream open ...
    FILE *fp = std::fopen(put(good).c_str(), "rb");
    VonoInfo *v = _checkAudioInImageFP(fp);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(v->fp, fp);
    EXPECT_EQ(DestroyVonoFP(v), 1);
    EXPECT_NE(fcntl(fileno(fp), F_GETFD), -1);
    std::fclose(fp);

    // ... and a failed table read closes it
    Bytes bad = tb::fakeImage(19) + tb::vonoBlock({{5, 9}});
    fp = std::fopen(put(bad, "bad.jpg").c_str(), "rb");
    int fd = fileno(fp);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_checkAudioInImageFP(fp), nullptr); }),
              parseLine("header is bigger then file -> that's not true!!"));
    errno = 0;
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);

    tu::capture([&] { EXPECT_EQ(_checkAudioInImageFile(dir.path("bad.jpg").c_str()), nullptr); });
    EXPECT_EQ(_checkAudioInImageFile(dir.path("nothing").c_str()), nullptr);
}

TEST_F(VonoParse, FileWritersEmitTheBlock) {
    std::string p = dir.path("block.bin");
    FILE *fp = std::fopen(p.c_str(), "wb");
    uint32_t table[4] = {10, 20, 20, 25};
    EXPECT_EQ(WriteSoundHeader(fp), 4);
    EXPECT_EQ(WriteSoundCount(fp, 2), 0);
    EXPECT_EQ(WriteSoundDataBuffer(fp, table, 2), 0);
    EXPECT_EQ(WriteSoundData(fp, 30, 31), 0);
    EXPECT_EQ(WriteSoundTailer(fp, 2), 6);
    std::fclose(fp);
    Bytes want = tb::Builder().str("VONO").u32(105).u32(2).u32(10).u32(20).u32(20).u32(25)
                     .u32(30).u32(31).u32(28).str("VONOBS").done();
    EXPECT_EQ(tu::readFile(p), want);

    // writing on a read-only stream reports the failed marker write
    fp = std::fopen(p.c_str(), "rb");
    std::string log = tu::capture([&] { EXPECT_EQ(WriteSoundTailer(fp, 1), -1); });
    EXPECT_EQ(log, tu::errLine("YAXSystemFile::_qfwrite",
                               "write ret != write size_of_byte  ==> fail(-1 != 6)"));
    std::fclose(fp);
    EXPECT_EQ(WriteSoundHeader(nullptr), -1);
}

TEST_F(VonoParse, BufferHeaderWriterGoesThroughTheFileWriter) {
    // What a genuinely failed 4-byte file write reports ...
    std::string p = put(tb::bytes("x"));
    FILE *ro = std::fopen(p.c_str(), "rb");
    std::string fileLog = tu::capture([&] { EXPECT_EQ(_qfwrite("VONO", 4, ro), -1); });
    std::fclose(ro);
    ASSERT_FALSE(fileLog.empty());

    // ... is what the buffer header writer reports; its marker never lands.
    YAXBUFFER *h = _qbopen(64);
    int r = 0;
    EXPECT_EQ(tu::capture([&] { r = WriteSoundHeaderBufferApi(h); }), fileLog);
    EXPECT_EQ(r, -1);
    uint32_t table[2] = {3, 4};
    EXPECT_EQ(WriteSoundCountBufferApi(h, 1), 0);
    EXPECT_EQ(WriteSoundDataBufferBufferApi(h, table, 1), 0);
    EXPECT_EQ(WriteSoundDataBufferApi(h, 5, 6), 0);
    EXPECT_EQ(WriteSoundTailerBufferApi(h, 2), 6);
    Bytes want = tb::Builder().u32(105).u32(1).u32(3).u32(4).u32(5).u32(6).u32(28)
                     .str("VONOBS").done();
    EXPECT_EQ(Bytes(qbgetBuffer(h), qbgetBuffer(h) + qbgetWriteSize(h)), want);
    _qbclose(h);
    // a full buffer: the tail marker write fails with the buffer's 0
    YAXBUFFER *tiny = _qbopen(6);
    EXPECT_EQ(WriteSoundTailerBufferApi(tiny, 1), 0);
    _qbclose(tiny);
}
