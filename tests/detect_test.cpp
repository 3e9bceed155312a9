// Classifying a file's ending: every signature code on files and buffers,
// the failure lines (including the buffer flavour's borrowed tag), where the
// stream is left, and the meta type and block length arithmetic.
#include <gtest/gtest.h>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

const std::vector<Entry> kOne = {{5, "name", "payload", ""}};

struct Detected {
    int file_code;
    unsigned int buffer_code;
    std::string file_log, buffer_log;
};

Detected detectBoth(const Bytes &content) {
    tu::TempDir dir;
    std::string p = dir.path("d.bin");
    tu::writeFile(p, content);
    Detected d{};
    d.file_log = tu::capture([&] { d.file_code = getSignature(p.c_str()); });
    YAXBUFFER *h = _qbopen(static_cast<uint32_t>(content.size() + 1));
    if (!content.empty()) _qbwrite(content.data(), static_cast<uint32_t>(content.size()), h);
    d.buffer_log = tu::capture([&] { d.buffer_code = getSignatureBuffer(h); });
    _qbclose(h);
    return d;
}

void expectCode(const Bytes &content, unsigned int code) {
    Detected d = detectBoth(content);
    EXPECT_EQ(d.file_code, static_cast<int>(code));
    EXPECT_EQ(d.buffer_code, code);
    EXPECT_EQ(d.file_log, "");
    EXPECT_EQ(d.buffer_log, "");
}

const std::string kFileSearch = tu::errLine("YAX::getSignatureFP", "File Search Error");
const std::string kSeekErrno = tu::errLine("_qlseek", "errno : 22");

}  // namespace

TEST(Signature, CodesForEveryKindOfEnding) {
    const Bytes host = tb::fakeImage(64);
    expectCode(host, SIGNATURE_NONE);
    expectCode(tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg"), SIGNATURE_NONE);
    expectCode(host + tb::trailer(kOne), SIGNATURE_YAX);
    // Only the last four bytes are looked at; nothing of the header is checked.
    expectCode(host + tb::bytes("YAXT"), SIGNATURE_YAX);
    expectCode(host + tb::bytes("YAXt"), SIGNATURE_NONE);
    // A trailer and a one-sound legacy block (30 bytes): "YAXT" at end - 34.
    expectCode(host + tb::trailer(kOne) + tb::vonoBlock({{4, 40}}), SIGNATURE_VONO_YAX);
    expectCode(host + tb::vonoBlock({{4, 40}}), SIGNATURE_VONO);
    // A two-sound block moves the trailer's tail away from the one place
    // looked at: the file counts as legacy audio only.
    expectCode(host + tb::trailer(kOne) + tb::vonoBlock({{4, 40}, {40, 60}}), SIGNATURE_VONO);
    // "VONOBS" is compared whole and case-sensitively.
    expectCode(host + tb::bytes("VONOBs"), SIGNATURE_NONE);
}

TEST(Signature, ShortEndingsFailWithTheirLines) {
    // Six bytes: the first seek lands on 0, which counts as a failure.
    Detected d = detectBoth(tb::bytes("VONOBS"));
    EXPECT_EQ(d.file_code, 0);
    EXPECT_EQ(d.buffer_code, 0u);
    EXPECT_EQ(d.file_log, kFileSearch);
    EXPECT_EQ(d.buffer_log, tu::errLine("YAX::getSignature Buffer", "Buffer Search Error"));

    // Shorter than six bytes: the file's refused seek also reports errno.
    d = detectBoth(tb::bytes("YAXT"));
    EXPECT_EQ(d.file_code, 0);
    EXPECT_EQ(d.buffer_code, 0u);
    EXPECT_EQ(d.file_log, kSeekErrno + kFileSearch);
    EXPECT_EQ(d.buffer_log, tu::errLine("YAX::getSignature Buffer", "Buffer Search Error"));

    // "VONOBS" with fewer than 34 bytes: the second seek fails; the buffer
    // reports it under the file flavour's tag.
    d = detectBoth(tb::fakeImage(14) + tb::bytes("VONOBS"));
    EXPECT_EQ(d.file_code, 0);
    EXPECT_EQ(d.buffer_code, 0u);
    EXPECT_EQ(d.file_log, kSeekErrno + kFileSearch);
    EXPECT_EQ(d.buffer_log, kFileSearch);
    // 34 bytes: end - 34 is position 0, also a failure.
    d = detectBoth(tb::fakeImage(28) + tb::bytes("VONOBS"));
    EXPECT_EQ(d.file_code, 0);
    EXPECT_EQ(d.file_log, kFileSearch);
    EXPECT_EQ(d.buffer_log, kFileSearch);
    // 35 bytes is enough.
    expectCode(tb::fakeImage(29) + tb::bytes("VONOBS"), SIGNATURE_VONO);

    d = detectBoth(Bytes());
    EXPECT_EQ(d.file_code, 0);
    EXPECT_EQ(d.buffer_code, 0u);

    tu::TempDir dir;
    std::string missing = dir.path("missing.jpg");
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getSignature(missing.c_str()), 0); }),
              tu::errLine("YAX::getSignature", "File Open Error : " + missing));
    EXPECT_EQ(getSignatureFP(nullptr), 0u);
    EXPECT_EQ(getSignatureBuffer(nullptr), 0u);
}

TEST(Signature, StreamIsLeftWhereTheLastReadEnded) {
    tu::TempDir dir;
    std::string p = dir.path("s.jpg");
    const Bytes yax = tb::fakeImage(64) + tb::trailer(kOne);
    tu::writeFile(p, yax);
    FILE *fp = _qfopen(p.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(getSignatureFP(fp), static_cast<unsigned>(SIGNATURE_YAX));
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), static_cast<int64_t>(yax.size()));
    _qfclose(fp);

    const Bytes both = yax + tb::vonoBlock({{4, 40}});
    tu::writeFile(p, both);
    fp = _qfopen(p.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(getSignatureFP(fp), static_cast<unsigned>(SIGNATURE_VONO_YAX));
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_CUR), static_cast<int64_t>(both.size()) - 30);
    _qfclose(fp);
}

TEST(MetaType, WordAndBlockLengthArithmetic) {
    EXPECT_EQ(_setMetaType(3, 1), 229376u);
    EXPECT_EQ(_setMetaType(3, 0), 3u << 16);
    EXPECT_EQ(_setMetaType(32766, 0), 0x7FFE0000u);
    EXPECT_EQ(_getDataType(229376), 3u);
    EXPECT_EQ(_getDataType(0xFFFF8000u), 0xFFFFu);
    EXPECT_EQ(_getDataLength(1, 5, 2, 10), 29u);
    EXPECT_EQ(_getDataLength(0, 5, 2, 10), 23u);  // sub length ignored without the flag
    // Plain 32-bit arithmetic, nothing validated.
    EXPECT_EQ(_getDataLength(0, 0xFFFFFFFFu, 0, 9), 16u);
}
