// TonePhoto entries: the name-list payloads, the Vono block written behind
// the trailer, the adds that write sound + list, the conversion of a legacy
// file, and the readers of the name list.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;

namespace {

Bytes outBytes(const unsigned char *p, uint32_t n) { return Bytes(p, p + n); }

// The block the library writes behind a trailer: one sound, header size 20.
Bytes oneSoundVono(uint32_t start, uint32_t end) { return tb::vonoBlock({{start, end}}); }

}  // namespace

// ---- name-list payloads built from scratch ----

TEST(TonePayload, FirstAndSecondListsFromScratch) {
    unsigned char out[1000];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(makeFirstVonoHeader(out, "TonePhoto_000", 13), 29u);
    EXPECT_EQ(outBytes(out, 29), tb::toneList({"TonePhoto_000"}));
    EXPECT_EQ(out[29], 0xEE);  // nothing written past the payload
    EXPECT_EQ(getVonoHeaderCount(out), 1u);

    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(makeSecondVonoHeader(out, "TonePhoto_000", 13, "rain", 4), 37u);
    EXPECT_EQ(outBytes(out, 37), tb::toneList({"TonePhoto_000", "rain"}));
    EXPECT_EQ(out[37], 0xEE);
    EXPECT_EQ(getVonoHeaderCount(out), 2u);

    EXPECT_EQ(getVonoHeaderCount(nullptr), 0u);
    EXPECT_EQ(makeFirstVonoHeader(nullptr, "a", 1), 0u);
    EXPECT_EQ(makeFirstVonoHeader(out, nullptr, 3), 0u);
}

// ---- the one-sound Vono block ----

class VonoBlockWriters : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("v.bin");
};

TEST_F(VonoBlockWriters, WriteVonoHeaderEmitsThirtyBytes) {
    tu::writeFile(path, tb::bytes("IMG"));
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    ASSERT_EQ(_qlseek64(fp, 0, SEEK_END), 3);
    EXPECT_EQ(_writeVonoHeader(fp, 0x01020304u, 0xA0B0C0D0u), 1);
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), tb::bytes("IMG") + oneSoundVono(0x01020304u, 0xA0B0C0D0u));
}

TEST_F(VonoBlockWriters, WriteVonoHeaderStopsAtFirstFailedWrite) {
    tu::writeFile(path, tb::bytes("IMG"));
    FILE *fp = _qfopen(path.c_str(), "rb");  // every write fails
    ASSERT_NE(fp, nullptr);
    std::string log = tu::capture([&] { EXPECT_EQ(_writeVonoHeader(fp, 1, 2), 0); });
    _qfclose(fp);
    // only the marker write was tried: one short-write line, nothing after it
    EXPECT_EQ(log, tu::errLine("YAXSystemFile::_qfwrite",
                               "write ret != write size_of_byte  ==> fail(-1 != 4)"));
    EXPECT_EQ(tu::readFile(path), tb::bytes("IMG"));
    EXPECT_EQ(_writeVonoHeader(nullptr, 1, 2), 0);
}

TEST_F(VonoBlockWriters, DataHeaderFromRecordWritesCountAndFirstPair) {
    tu::writeFile(path, {});
    FILE *fp = _qfopen(path.c_str(), "r+b");
    ASSERT_NE(fp, nullptr);
    uint32_t table[4] = {100, 250, 300, 400};
    VonoInfo two{};
    two.count = 2;
    two.offsets = table;
    writeVonoDataHeader(fp, &two);
    VonoInfo empty{};  // no table: the empty block's two zero words
    writeVonoDataHeader(fp, &empty);
    writeVonoDataHeader(fp, nullptr);
    _qfclose(fp);
    // the header size stays 20 whatever the count says
    const Bytes want =
        tb::Builder().str("VONO").u32(105).u32(2).u32(100).u32(250).u32(20).str("VONOBS")
            .str("VONO").u32(105).u32(0).u32(0).u32(0).u32(20).str("VONOBS").done();
    EXPECT_EQ(tu::readFile(path), want);
}

TEST(VonoBlockBuffer, TailMarkerGoesToTheFileWriterAndIsLost) {
    YAXBUFFER *buf = _qbopen(64);
    ASSERT_NE(buf, nullptr);
    std::string log = tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(buf, 700, 900), 0); });
    EXPECT_EQ(log, tu::errLine("YAXSystemFile::_qfwrite",
                               "write ret != write size_of_byte  ==> fail(-1 != 6)"));
    // everything but "VONOBS" reached the buffer
    ASSERT_EQ(qbgetWriteSize(buf), 24);
    const Bytes head = tb::Builder().str("VONO").u32(105).u32(1).u32(700).u32(900).u32(20).done();
    EXPECT_EQ(outBytes(qbgetBuffer(buf), 24), head);
    _qbclose(buf);

    // a buffer too small for the words stops before the marker: no file-writer line
    YAXBUFFER *small = _qbopen(10);
    ASSERT_NE(small, nullptr);
    log = tu::capture([&] { EXPECT_EQ(_writeVonoHeaderBuffer(small, 1, 2), 0); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(qbgetWriteSize(small), 8);
    _qbclose(small);
    EXPECT_EQ(_writeVonoHeaderBuffer(nullptr, 1, 2), 0);
}
