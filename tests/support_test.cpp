// Support layer: loggers' console lines, memory and string helpers, the file
// primitives' byte orders and the buffer stream's all-or-nothing rules.
#include <gtest/gtest.h>

#include <cstring>

#include "testutil.hpp"
#include "yax_support.h"

using tb::Bytes;

TEST(Log, ConsoleLinesAndNullFormat) {
    EXPECT_EQ(tu::capture([] { YAXLogE("YAX::t", "n=%d", 7); }), "YAXLog\tE\tYAX::t\tn=7\n");
    EXPECT_EQ(tu::capture([] { YAXLogD("d", "%s", "x"); }), "YAXLog\tD\td\tx\n");
    EXPECT_EQ(tu::capture([] { YAXLogI("i", "y"); }), "YAXLog\tI\ti\ty\n");
    // a null format gives one info line and no error line
    EXPECT_EQ(tu::capture([] { YAXLogE("tag", nullptr); }),
              "YAXLog\tI\tYAXLogE\tlog == NULL!!\n\n");
}

TEST(Log, LongMessagesAreCutAt1023And1024) {
    std::string big(3000, 'a');
    std::string e = tu::capture([&] { YAXLogE("t", "%s", big.c_str()); });
    std::string d = tu::capture([&] { YAXLogD("t", "%s", big.c_str()); });
    EXPECT_EQ(e, "YAXLog\tE\tt\t" + std::string(1022, 'a') + "\n");
    EXPECT_EQ(d, "YAXLog\tD\tt\t" + std::string(1023, 'a') + "\n");
}

TEST(Memory, ZeroedAllocationsAndCopyRules) {
    auto *p = static_cast<unsigned char *>(_qmalloc(64));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(p[i], 0);
    char src[4] = "abc";
    EXPECT_EQ(_qmemcpy(p, src, 0), nullptr);
    EXPECT_EQ(_qmemcpy(nullptr, src, 3), nullptr);
    EXPECT_EQ(_qmemcpy(p, src, 4), p);
    EXPECT_STREQ(reinterpret_cast<char *>(p), "abc");
    _qfree(p);
    _qfree(nullptr);
}

TEST(Strings, ExtIndexAndNullTolerance) {
    EXPECT_EQ(getExtIndex("photo.jpg"), 5);
    EXPECT_EQ(getExtIndex("a.b.c"), 3);
    EXPECT_EQ(getExtIndex("abc"), 2);  // no dot: the last character, not -1
    EXPECT_EQ(getExtIndex(""), -1);
    EXPECT_EQ(getExtIndex(nullptr), -1);
    EXPECT_EQ(getStringLen(nullptr), 0u);
    EXPECT_EQ(getStringLen("four"), 4u);
    char buf[16] = "";
    EXPECT_EQ(_qstrcpy(buf, nullptr), nullptr);
    EXPECT_EQ(_qstrcpy(buf, "ab"), buf);
    EXPECT_EQ(_qstrcat(buf, "cd"), buf);
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(_qstrcat(nullptr, "x"), nullptr);
}

class FilePrimitives : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("f.bin");
};

TEST_F(FilePrimitives, ByteOrders) {
    FILE *fp = _qfopen(path.c_str(), "w+b");
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(_qfwriteInt32(0x11223344u, fp), 4);
    EXPECT_EQ(_qfwriteInt32_endian(0x11223344u, fp), 4);
    EXPECT_EQ(_qfwriteInt16(0x1122, fp), 2);
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_SET), 0);
    uint32_t v = 0;
    uint16_t h = 0;
    EXPECT_EQ(_qfreadInt32(&v, fp), 4);
    EXPECT_EQ(v, 0x11223344u);
    EXPECT_EQ(_qfreadInt32(&v, fp), 4);
    EXPECT_EQ(v, 0x44332211u);
    EXPECT_EQ(_qfreadInt16(&h, fp), 2);
    EXPECT_EQ(h, 0x1122);
    // at the end: read returns 0 and stores 0
    v = 99;
    EXPECT_EQ(_qfreadInt32(&v, fp), 0);
    EXPECT_EQ(v, 0u);
    _qfclose(fp);
    Bytes want{0x44, 0x33, 0x22, 0x11, 0x11, 0x22, 0x33, 0x44, 0x22, 0x11};
    EXPECT_EQ(tu::readFile(path), want);
}

TEST_F(FilePrimitives, SeekFailureLogsErrno) {
    FILE *fp = _qfopen(path.c_str(), "w+b");
    ASSERT_NE(fp, nullptr);
    int64_t r = 0;
    std::string out = tu::capture([&] { r = _qlseek64(fp, -5, SEEK_SET); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, tu::errLine("_qlseek", "errno : 22"));
    _qfclose(fp);
}

TEST_F(FilePrimitives, WriteToReadOnlyStreamLogsAndFails) {
    tu::writeFile(path, Bytes{1, 2, 3});
    FILE *fp = _qfopen(path.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    int r = 0;
    std::string out = tu::capture([&] { r = _qfwrite("abcd", 4, fp); });
    EXPECT_EQ(r, -1);
    EXPECT_EQ(out, tu::errLine("YAXSystemFile::_qfwrite",
                               "write ret != write size_of_byte  ==> fail(-1 != 4)"));
    _qfclose(fp);
}

TEST_F(FilePrimitives, FileCopyChunksAndEdges) {
    Bytes src(65537 + 100);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 7);
    tu::writeFile(path, src);
    std::string out_path = dir.path("out.bin");
    FILE *in = _qfopen(path.c_str(), "rb");
    FILE *out = _qfopen(out_path.c_str(), "wb");
    EXPECT_EQ(_qfilecopy(out, in, 0), 0);
    EXPECT_EQ(_qfilecopy(nullptr, in, 5), 0);
    EXPECT_EQ(_qfilecopy(out, in, -3), 1);  // negative copies nothing
    EXPECT_EQ(_qfilecopy(out, in, 65537), 1);
    _qfclose(in);
    _qfclose(out);
    EXPECT_EQ(tu::readFile(out_path), Bytes(src.begin(), src.begin() + 65537));
}

TEST(BufferStream, OpenMarkerAndCapacity) {
    YAXBUFFER *b = _qbopen(10);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->buffer[10], 'Q');
    EXPECT_EQ(qbgetBufferSize(b), 10u);
    EXPECT_EQ(qbgetWriteSize(b), 0);
    EXPECT_EQ(b->owns_buffer, 1u);
    unsigned char ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(_qbwrite(ten, 10, b), 10);
    EXPECT_EQ(_qbwrite(ten, 1, b), 0);  // full: nothing written
    EXPECT_EQ(qbgetWriteSize(b), 10);
    EXPECT_EQ(_qbtell(b), 10);
    EXPECT_EQ(b->buffer[10], 'Q');
    _qbclose(b);
}

TEST(BufferStream, ReadsStopAtWrittenSize) {
    YAXBUFFER *b = _qbopen(32);
    unsigned char eight[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    ASSERT_EQ(_qbwrite(eight, 8, b), 8);
    ASSERT_EQ(_qbseek(b, 2, SEEK_SET), 2);
    ASSERT_EQ(_qbwrite(eight, 2, b), 2);
    EXPECT_EQ(qbgetWriteSize(b), 8);
    EXPECT_EQ(_qbtell(b), 4);
    unsigned char out[8] = {};
    EXPECT_EQ(_qbread(out, 5, b), 0);
    EXPECT_EQ(_qbtell(b), 4);
    EXPECT_EQ(_qbread(out, 4, b), 4);
    EXPECT_EQ(std::memcmp(out, "\x04\x05\x06\x07", 4), 0);
    uint32_t v = 0;
    EXPECT_EQ(_qbreadInt32(&v, b), 0);
    _qbclose(b);
}

TEST(BufferStream, SeekRules) {
    YAXBUFFER *b = _qbopen(16);
    ASSERT_EQ(_qbwriteInt32(0xAABBCCDDu, b), 4);
    EXPECT_EQ(_qbseek(b, -6, SEEK_END), -1);
    EXPECT_EQ(_qbseek(b, 1, SEEK_END), -1);
    EXPECT_EQ(_qbseek(b, 0, SEEK_END), 4);
    EXPECT_EQ(_qbseek(b, 5, SEEK_SET), -1);  // beyond the written end
    EXPECT_EQ(_qbseek(b, -1, SEEK_SET), -1);
    EXPECT_EQ(_qbseek(b, -2, SEEK_CUR), 2);
    EXPECT_EQ(_qbseek(b, 3, SEEK_CUR), -1);
    EXPECT_EQ(_qbtell(b), 2);
    EXPECT_EQ(_qbseek(b, 0, 7), -1);
    _qbclose(b);
}

TEST(BufferStream, IntegersTruncateAndNullHandles) {
    YAXBUFFER *b = _qbopen(16);
    EXPECT_EQ(_qbwriteInt32(0x11223344u, b), 4);
    EXPECT_EQ(_qbwriteInt32_endian(0x11223344u, b), 4);
    EXPECT_EQ(_qbwriteInt16(0x1122, b), 2);
    Bytes want{0x44, 0x33, 0x22, 0x11, 0x11, 0x22, 0x33, 0x44, 0x22, 0x11};
    EXPECT_EQ(Bytes(b->buffer, b->buffer + 10), want);
    EXPECT_EQ(btruncate(b, 11), -1);
    EXPECT_EQ(btruncate(b, 4), 0);
    EXPECT_EQ(qbgetWriteSize(b), 4);
    EXPECT_EQ(_qbtell(b), 10);  // position unchanged
    EXPECT_EQ(Bytes(b->buffer + 4, b->buffer + 10), Bytes(6, 0));
    _qbclose(b);

    EXPECT_EQ(qbgetWriteSize(nullptr), -1);
    EXPECT_EQ(qbgetBufferSize(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(qbgetBuffer(nullptr), nullptr);
    EXPECT_EQ(_qbtell(nullptr), 0);
    EXPECT_EQ(_qbseek(nullptr, 0, SEEK_SET), -1);
    EXPECT_EQ(btruncate(nullptr, 0), -1);
    EXPECT_EQ(_qbsetbuffer(nullptr, 4), nullptr);
    destroyYAXBuffer(nullptr);
}

TEST(BufferStream, WrappedCallerBuffer) {
    unsigned char mem[9] = {};
    YAXBUFFER *b = initYAXAllocatedBuffer(mem, 8);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(mem[8], 'Q');
    EXPECT_EQ(b->owns_buffer, 0u);
    EXPECT_EQ(getYAXWriteSize(b), 0);
    EXPECT_EQ(_qbseek(b, -1, SEEK_END), -1);  // nothing written yet
    EXPECT_EQ(_qbwrite("abcdefgh", 8, b), 8);
    EXPECT_EQ(getYAXBuffer(b), mem);
    EXPECT_EQ(getYAXBufferSize(b), 8u);
    destroyYAXBuffer(b);  // the caller's memory stays
    EXPECT_EQ(std::memcmp(mem, "abcdefgh", 8), 0);
}
