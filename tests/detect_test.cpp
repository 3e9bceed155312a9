// Classifying a file's ending on files and buffers: every code, the failure
// lines (the buffer's second seek borrows the file flavour's tag), where the
// stream is left, and the meta type and block length arithmetic.
#include <gtest/gtest.h>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::operator+;

TEST(Signature, CodesAndLinesOnFileAndBuffer) {
    const Bytes host = tb::fakeImage(64), yax = tb::trailer({{5, "name", "payload", ""}});
    const Bytes v1 = tb::vonoBlock({{4, 40}}), v2 = tb::vonoBlock({{4, 40}, {40, 60}});
    const std::string search = tu::errLine("YAX::getSignatureFP", "File Search Error");
    const std::string seek = tu::errLine("_qlseek", "errno : 22") + search;
    const std::string bufErr = tu::errLine("YAX::getSignature Buffer", "Buffer Search Error");
    struct Case { Bytes in; int code; std::string file_log, buf_log; };
    const Case cases[] = {
        {host, 1, "", ""}, {tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg"), 1, "", ""},
        {host + yax, 3, "", ""}, {host + tb::bytes("YAXt"), 1, "", ""},
        {host + tb::bytes("YAXT"), 3, "", ""},  // only the last four bytes count
        {host + yax + v1, 4, "", ""}, {host + v1, 2, "", ""},  // "YAXT" at end - 34
        {host + yax + v2, 2, "", ""},           // a longer block hides the trailer
        {host + tb::bytes("VONOBs"), 1, "", ""},
        // Six bytes: the first seek lands on 0; fewer: the file's seek is refused.
        {tb::bytes("VONOBS"), 0, search, bufErr}, {tb::bytes("YAXT"), 0, seek, bufErr},
        {tb::fakeImage(14) + tb::bytes("VONOBS"), 0, seek, search},
        {tb::fakeImage(28) + tb::bytes("VONOBS"), 0, search, search},  // end - 34 is 0
        {tb::fakeImage(29) + tb::bytes("VONOBS"), 2, "", ""}, {Bytes(), 0, seek, bufErr},
    };
    tu::TempDir dir;
    const std::string p = dir.path("d.bin");
    for (const Case &c : cases) {
        tu::writeFile(p, c.in);
        YAXBUFFER *h = _qbopen(static_cast<uint32_t>(c.in.size() + 1));
        if (!c.in.empty()) _qbwrite(c.in.data(), static_cast<uint32_t>(c.in.size()), h);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getSignature(p.c_str()), c.code); }), c.file_log);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getSignatureBuffer(h), unsigned(c.code)); }),
                  c.buf_log);
        _qbclose(h);
    }
    const std::string missing = dir.path("missing.jpg");
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getSignature(missing.c_str()), 0); }),
              tu::errLine("YAX::getSignature", "File Open Error : " + missing));

    // The stream is left where the last read ended.
    for (const Bytes &in : {host + yax, host + yax + v1}) {
        tu::writeFile(p, in);
        FILE *fp = _qfopen(p.c_str(), "rb");
        const bool both = in.size() > host.size() + yax.size();
        EXPECT_EQ(getSignatureFP(fp), both ? 4u : 3u);
        EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), int64_t(in.size()) - (both ? 30 : 0));
        _qfclose(fp);
    }
}

TEST(MetaType, WordAndBlockLengthArithmetic) {
    EXPECT_EQ(_setMetaType(3, 1), 229376u);
    EXPECT_EQ(_getDataType(0xFFFF8000u), 0xFFFFu);
    EXPECT_EQ(_getDataLength(1, 5, 2, 10), 29u);
    EXPECT_EQ(_getDataLength(0, 5, 2, 10), 23u);  // sub length ignored without the flag
    EXPECT_EQ(_getDataLength(0, 0xFFFFFFFFu, 0, 9), 16u);  // plain 32-bit arithmetic
}
