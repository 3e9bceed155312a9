// Malformed endings driven through detect -> parse -> list -> names -> read ->
// query on the file and the buffer flavour. Each named case checks the stage
// where it stops and the lines it leaves; the sweeps (truncations and byte
// corruptions) check that whatever is located lies inside the file and that
// every copy matches the file's bytes. Under the sanitizer build this is the
// memory-safety proof of the read side.
#include <gtest/gtest.h>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::operator+;

namespace {

constexpr size_t kHost = 200;
const std::vector<tb::Entry> kEntries{{3, "first", "0123456789", "SUB"}, {4, "second", "abcdef", ""}};
const Bytes kGood = tb::fakeImage(kHost) + tb::trailer(kEntries);


std::string at(const uint8_t *p, int64_t pos, int64_t n) { return std::string((const char *)p + pos, n); }

// Every located range, one index past the end too, lies inside the content,
// and every copy equals the content's bytes there.
void probe(YaxInfo *info, const Bytes &c) {
    for (uint32_t k = 0; info->meta_data && k <= info->meta_count; ++k)
        for (bool sub : {false, true}) {
            int64_t pos = 0, len = 0;
            const auto locate = sub ? readSubDataInfoOfDataOffset : readDataOfIndexOffset;
            if (locate(info, k, &pos, &len) != 1) continue;
            ASSERT_TRUE(k < info->meta_count && pos >= 0 && len >= 1 && pos + len <= int64_t(c.size())) << k;
            unsigned char *out = nullptr;
            const int r = readDataOfIndex(info, k, sub ? nullptr : &out, sub ? &out : nullptr);
            if (pos > 0) {
                EXPECT_EQ(r == 1 ? at(out, 0, len) : "-", at(c.data(), pos, len)) << k;
            }
            _qfree(out);
        }
}

void probeQuery(YAXDATA *d, const Bytes &c) {
    for (uint32_t k = 0; k <= d->count; ++k) {
        YAXOFFSET64 *o = getYAXInFileByIndex64(d, k), *s = getYAXSubInfoInFileByIndex64(d, k);
        YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, k);
        for (YAXOFFSET64 *r : {o, s})
            ASSERT_TRUE(!r || (r->offset >= 0 && r->offset + r->length <= int64_t(c.size())));
        EXPECT_EQ(u != nullptr, o != nullptr);
        if (u && o) {
            EXPECT_EQ(at(u->data, 0, u->data_length), at(c.data(), o->offset, o->length));
        }
        if (u && s) {
            EXPECT_EQ(at(u->sub_info, 0, u->sub_info_length), at(c.data(), s->offset, s->length));
        }
        destroyYAXOFFSET64(o), destroyYAXOFFSET64(s), destroyYAXDATA_UNIT(u);
    }
}

// One run on a file or a buffer, given as the results of detect, list and
// names (-1: not reached) and their lines: "sig listed named|lines". The
// lines are dropped when the caller captures a whole sweep at once. The query
// record of the same bytes as a file exists exactly when its names were read.
std::string run(const Bytes &content, bool buf, bool capture = true) {
    static tu::TempDir dir;
    const std::string p = dir.path("m.jpg");
    tu::writeFile(p, content);
    YAXBUFFER *h = _qbopen(uint32_t(content.size()));
    if (!content.empty()) _qbwrite(content.data(), uint32_t(content.size()), h);
    struct { unsigned sig = 0; int listed = -1, named = -1; std::string log; } o;
    const auto stage = [&](auto fn) { return capture ? tu::capture(fn) : (fn(), std::string()); };
    YaxInfo *i = nullptr;
    YAXDATA *d = nullptr;
    o.log = stage([&] {
        o.sig = buf ? getSignatureBuffer(h) : unsigned(getSignature(p.c_str()));
        const int mode = o.sig == SIGNATURE_VONO_YAX ? SIGNATURE_VONO : int(o.sig);  // codes 2, 3
        if (o.sig >= SIGNATURE_VONO) i = buf ? ParseYAX_Buffer(h, mode) : ParseYAX(p.c_str(), mode);
        if (i != nullptr) o.listed = buf ? getYAXListBuffer(i) : getYAXList(i);
        if (o.listed == 1) o.named = buf ? getAllNameOfDataListBuffer(i) : getAllNameOfDataList(i);
    });
    stage([&] {
        if (o.listed == 1) probe(i, content);
        for (uint32_t k = 0; i && i->meta_data && k < i->meta_count; ++k)  // no query record owns them
            if (i->meta_data[k]) _qfree(i->meta_data[k]->name);
        buf ? DestroyYAX_Buffer(i) : DestroyYAX(i);
        d = checkYAXInFile(p.c_str());
        if (d) probeQuery(d, content);
    });
    EXPECT_TRUE(buf || (d != nullptr) == (o.named == 1));
    destroyYAXDATA(d);
    EXPECT_EQ(tu::readFile(p), content);  // reading never writes
    EXPECT_EQ(Bytes(h->buffer, h->buffer + h->write_size), content);
    _qbclose(h);
    return std::to_string(o.sig) + " " + std::to_string(o.listed) + " " + std::to_string(o.named) + "|" +
           o.log;
}

// The well-formed file with the 32-bit word at `pos` replaced. Header words:
// the count 36 bytes before the end, row k's offset and length after it.
Bytes withWord(size_t pos, uint32_t v) {
    Bytes b = kGood;
    for (int i = 0; i < 4; ++i) b[pos + size_t(i)] = uint8_t(v >> (8 * i));
    return b;
}
const size_t kCount = kGood.size() - 36, kOffset0 = kCount + 8;
const size_t kOffset1 = kOffset0 + 12, kLength1 = kOffset1 + 4;

std::string listErr(const std::string &m) { return tu::errLine("YAX::ParseYAXList", m); }
std::string parseErr(const std::string &m) { return tu::errLine("YAX::ParseYAX_FP", m); }
std::string nameErr(const std::string &m, int k = 0) {
    return tu::errLine("YAX::_getNameOfData", m) +
           tu::errLine("YAX::getAllNameOfDataList", std::to_string(k) + "th data has no name!");
}

}  // namespace

// Each case: the outcome on a file and on a buffer ("=" the same, "*" only
// the probes), as "signature listed named|lines".
TEST(Malformed, NamedCasesStopWhereTheyMust) {
    const std::string search = parseErr("File Search Error"), seek = tu::errLine("_qlseek", "errno : 22");
    struct Case { Bytes in; std::string file, buffer = "="; };
    const Case cases[] = {
        {kGood, "3 1 1|"},
        {withWord(kCount, 0), "3 0 -1|" + listErr("there is no data")},
        {withWord(kCount, 0xFFFFFFFF),
         "3 0 -1|" + listErr("header is bigger then file -> that's not true!!")},
        // Four rows claimed, two present: the third is read from the tail, the
        // fourth past the end, with offset 0. The file list stops there; the
        // buffer list keeps an empty row and the name pass stops before it.
        {withWord(kCount, 4), "3 0 -1|" + listErr("YAX_info->meta_data[i] is NULL!!"),
         "3 1 0|" + nameErr("name length is wrong : 1684234849byte", 2)},
        {tb::fakeImage(kHost) + tb::Builder().u32(0xFFFFFFFF).str("YAXT").done(),
         "3 -1 -1|" + parseErr("file has no suond OFFS")},
        // A header size that is not 12 + 12 n points at no header magic.
        {withWord(kGood.size() - 8, 37), "3 -1 -1|" + parseErr("file has no suond FSIG")},
        // A legacy block whose length word would reach 4 GiB back.
        {kGood + tb::vonoBlock({{1, 2}}, 105, 0xFFFFFFF0), "4 -1 -1|" + seek + search, "4 -1 -1|" + search},
        // header_offset + offset wraps in 32 bits.
        {withWord(kOffset0, 0xFFFFFFF0),
         "3 1 0|" + nameErr("data_start_position is larger than header_offset, abnormal operation")},
        // An offset reaching 32 bytes before the file's start. On a file the box
        // probe reads past the end, and the refused seek of the name read is let
        // through by the low-word test: the name length is read at the end.
        {withWord(kOffset0, uint32_t(kGood.size())),
         "3 1 0|" + tu::errLine("YAX::checkSignatureMP4Tag", "File Read Error") + seek +
             nameErr("name length is wrong : 0byte"), "*"},
        // An offset into the header itself: the name length read is "YAXH".
        {withWord(kOffset1, 4), "3 1 0|" + nameErr("name length is wrong : 1213743449byte", 1)},
        // Lengths beyond the file: the names read, and the probes find
        // nothing located outside.
        {withWord(kLength1, 0xFFFFFFFF), "3 1 1|"},
        {withWord(kHost + 8, 0xFFFFFFF0), "3 1 1|"},  // sub-information length
        {withWord(kHost + 4, 0), "3 1 0|" + nameErr("name length is wrong : 0byte")},
        {withWord(kHost + 4, 1025), "3 1 0|" + nameErr("name length is wrong : 1025byte")},
        {withWord(kHost + 4, 0xFFFFFFFF), "3 1 0|" + nameErr("name length is wrong : 4294967295byte")},
        {withWord(kHost + 8, 0), "3 1 0|" + nameErr("sub data read size <= 0")},
    };
    for (const Case &c : cases)
        for (bool buf : {false, true}) {
            const std::string want = buf && c.buffer != "=" ? c.buffer : c.file;
            if (want != "*") {
                EXPECT_EQ(run(c.in, buf), want) << &c - cases << (buf ? " buffer" : " file");
            }
        }
}

TEST(Malformed, TruncationsAndSingleByteCorruptionsStayInBounds) {
    // Cut from the end, keep only a suffix (little or no host content), and
    // set every byte of the trailer and legacy block to 0xFF, then 0x01.
    const Bytes good = kGood + tb::vonoBlock({{10, 20}});
    std::vector<Bytes> inputs;
    for (size_t cut = 1; cut < good.size() - kHost + 8; ++cut) {
        inputs.emplace_back(good.begin(), good.end() - long(cut));
        inputs.emplace_back(good.begin() + long(kHost + cut - 8), good.end());
    }
    for (size_t pos = kHost; pos < good.size(); ++pos)
        for (uint8_t v : {0xFF, 0x01}) inputs.push_back(good), inputs.back()[pos] = v;
    tu::capture([&] {  // the lines of the whole sweep are dropped
        for (const Bytes &in : inputs)
            for (bool buf : {false, true}) run(in, buf, false);
    });
}
