// Support layer: the loggers' console lines, memory and string helpers, the
// file primitives' byte orders and failure lines, and the buffer stream's
// all-or-nothing rules.
#include <gtest/gtest.h>

#include <cstring>

#include "testutil.hpp"
#include "yax_support.h"

using tb::Bytes;

// Int32, the same swapped, Int16, as both kinds of stream write them.
const Bytes kOrders{0x44, 0x33, 0x22, 0x11, 0x11, 0x22, 0x33, 0x44, 0x22, 0x11};

TEST(Log, ConsoleLinesNullFormatAndCuts) {
    EXPECT_EQ(tu::capture([] { YAXLogE("YAX::t", "n=%d", 7); }), "YAXLog\tE\tYAX::t\tn=7\n");
    // A null format gives one info line and no error line.
    EXPECT_EQ(tu::capture([] { YAXLogE("tag", nullptr); }), "YAXLog\tI\tYAXLogE\tlog == NULL!!\n\n");
    // Long messages are cut at 1022 characters for errors and 1023 otherwise.
    std::string big(3000, 'a');
    EXPECT_EQ(tu::capture([&] { YAXLogE("t", "%s", big.c_str()); }),
              "YAXLog\tE\tt\t" + std::string(1022, 'a') + "\n");
    EXPECT_EQ(tu::capture([&] { YAXLogD("t", "%s", big.c_str()); }),
              "YAXLog\tD\tt\t" + std::string(1023, 'a') + "\n");
}

TEST(Helpers, ZeroedMemoryCopyRulesAndExtIndex) {
    auto *p = static_cast<unsigned char *>(_qmalloc(64));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Bytes(p, p + 64), Bytes(64, 0));
    EXPECT_EQ(_qmemcpy(p, "abc", 0), nullptr);
    EXPECT_EQ(_qmemcpy(p, "abc", 4), p);
    EXPECT_STREQ(reinterpret_cast<char *>(p), "abc");
    _qfree(p);
    EXPECT_EQ(getExtIndex("a.b.c"), 3);
    EXPECT_EQ(getExtIndex("abc"), 2);  // no dot: the last character, not -1
}

TEST(FilePrimitives, ByteOrdersFailureLinesAndCopy) {
    tu::TempDir dir;
    const std::string path = dir.path("f.bin"), out_path = dir.path("out.bin");
    FILE *fp = _qfopen(path.c_str(), "w+b");
    EXPECT_EQ(_qfwriteInt32(0x11223344u, fp) + _qfwriteInt32_endian(0x11223344u, fp), 8);
    EXPECT_EQ(_qfwriteInt16(0x1122, fp), 2);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_qlseek64(fp, -5, SEEK_SET), -1); }),
              tu::errLine("_qlseek", "errno : 22"));
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_END), 10);
    uint32_t v = 99;
    EXPECT_EQ(_qfreadInt32(&v, fp), 0);  // at the end: 0 stored
    EXPECT_EQ(v, 0u);
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), kOrders);

    fp = _qfopen(path.c_str(), "rb");
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(_qfwrite("abcd", 4, fp), -1); }),
              tu::errLine("YAXSystemFile::_qfwrite",
                          "write ret != write size_of_byte  ==> fail(-1 != 4)"));
    uint16_t h = 0;
    EXPECT_EQ(_qfreadInt32(&v, fp) + _qfreadInt32(&v, fp) + _qfreadInt16(&h, fp), 10);
    EXPECT_EQ(v, 0x44332211u);
    EXPECT_EQ(h, 0x1122);
    _qfclose(fp);

    // Copies run in chunks; a zero size fails and a negative one copies nothing.
    Bytes src(65537 + 100);
    for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 7);
    tu::writeFile(path, src);
    FILE *in = _qfopen(path.c_str(), "rb"), *out = _qfopen(out_path.c_str(), "wb");
    EXPECT_EQ(_qfilecopy(out, in, 0), 0);
    EXPECT_EQ(_qfilecopy(out, in, -3), 1);
    EXPECT_EQ(_qfilecopy(out, in, 65537), 1);
    EXPECT_EQ(_qfclose(in) + _qfclose(out), 0);
    EXPECT_EQ(tu::readFile(out_path), Bytes(src.begin(), src.begin() + 65537));
}

TEST(BufferStream, WritesReadsAndSeeksAreAllOrNothing) {
    YAXBUFFER *b = _qbopen(12);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->buffer[12], 'Q');
    EXPECT_EQ(_qbwriteInt32(0x11223344u, b) + _qbwriteInt32_endian(0x11223344u, b), 8);
    EXPECT_EQ(_qbwriteInt16(0x1122, b), 2);
    EXPECT_EQ(Bytes(b->buffer, b->buffer + 10), kOrders);
    EXPECT_EQ(_qbwrite("xyz", 3, b), 0);  // two bytes of room: nothing written
    EXPECT_EQ(_qbseek(b, 2, SEEK_SET), 2);
    EXPECT_EQ(_qbwrite("\x01\x02", 2, b), 2);  // overwriting keeps the written size
    EXPECT_EQ(qbgetWriteSize(b), 10);
    unsigned char out[8] = {};
    EXPECT_EQ(_qbread(out, 7, b), 0);  // past the written size, inside the capacity: nothing read
    EXPECT_EQ(_qbtell(b), 4);
    EXPECT_EQ(_qbread(out, 6, b), 6);
    EXPECT_EQ(Bytes(out, out + 6), Bytes(kOrders.begin() + 4, kOrders.end()));
    struct Seek { int64_t off; int whence; int64_t result; };
    for (const Seek &s : {Seek{-11, SEEK_END, -1}, Seek{1, SEEK_END, -1}, Seek{0, SEEK_END, 10},
                          Seek{11, SEEK_SET, -1}, Seek{-1, SEEK_SET, -1}, Seek{-2, SEEK_CUR, 8},
                          Seek{3, SEEK_CUR, -1}, Seek{0, 7, -1}})
        EXPECT_EQ(_qbseek(b, s.off, s.whence), s.result) << s.off << " " << s.whence;
    EXPECT_EQ(btruncate(b, 11), -1);
    EXPECT_EQ(btruncate(b, 4), 0);
    EXPECT_EQ(qbgetWriteSize(b), 4);
    EXPECT_EQ(_qbtell(b), 8);  // position unchanged
    EXPECT_EQ(Bytes(b->buffer + 4, b->buffer + 10), Bytes(6, 0));
    _qbclose(b);

    EXPECT_EQ(qbgetBufferSize(nullptr), 0xFFFFFFFFu);
}

TEST(BufferStream, WrappedCallerBufferStaysTheCallers) {
    unsigned char mem[9] = {};
    YAXBUFFER *b = initYAXAllocatedBuffer(mem, 8);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(mem[8], 'Q');
    EXPECT_EQ(b->owns_buffer, 0u);
    EXPECT_EQ(_qbwrite("abcdefgh", 8, b), 8);
    EXPECT_EQ(getYAXBuffer(b), mem);
    destroyYAXBuffer(b);
    EXPECT_EQ(std::memcmp(mem, "abcdefgh", 8), 0);
}
