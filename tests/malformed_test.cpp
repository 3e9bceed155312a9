// Malformed endings driven through detect -> parse -> list -> names -> read ->
// query on the file and the buffer flavour. Each named case checks the stage
// where it must stop and the lines it leaves; the sweeps (truncations and
// byte corruptions) check that whatever is located lies inside the file and
// that every copy matches the file's bytes. Under the sanitizer build this is
// the memory-safety proof of the read side.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

constexpr size_t kHost = 200;

const std::vector<Entry> kEntries = {
    {3, "first", "0123456789", "SUB"},
    {4, "second", "abcdef", ""},
};

struct Outcome {
    unsigned sig = 0;
    bool parsed = false;
    int listed = -1;  // -1: not reached
    int named = -1;
    bool checked = false;  // checkYAXInFile (file flavour only)
    std::string log;       // detect .. names
    std::string query_log;
};

std::string bytesAt(const Bytes &content, int64_t pos, int64_t len) {
    return std::string(reinterpret_cast<const char *>(content.data()) + pos,
                       static_cast<size_t>(len));
}

// Every located range lies inside the content, and every read copy equals
// the content's bytes there.
void probeEntries(YaxInfo *info, const Bytes &content) {
    const int64_t size = static_cast<int64_t>(content.size());
    if (info->meta_data == nullptr) return;
    for (uint32_t k = 0; k <= info->meta_count; ++k) {  // one past the end too
        int64_t pos = 0, len = 0;
        if (readDataOfIndexOffset(info, k, &pos, &len) == 1) {
            ASSERT_LT(k, info->meta_count);
            ASSERT_GE(pos, 0);
            ASSERT_GE(len, 1);
            ASSERT_LE(pos + len, size);
            unsigned char *data = nullptr;
            const int r = readDataOfIndex(info, k, &data, nullptr);
            if (pos > 0) {
                EXPECT_EQ(r, 1);
                EXPECT_EQ(std::string(reinterpret_cast<char *>(data), len),
                          bytesAt(content, pos, len));
            }
            _qfree(data);
        }
        if (readSubDataInfoOfDataOffset(info, k, &pos, &len) == 1) {
            ASSERT_GE(pos, 0);
            ASSERT_GE(len, 1);
            ASSERT_LE(pos + len, size);
            unsigned char *sub = nullptr;
            const int r = readDataOfIndex(info, k, nullptr, &sub);
            if (pos > 0) {
                EXPECT_EQ(r, 1);
                EXPECT_EQ(std::string(reinterpret_cast<char *>(sub), len),
                          bytesAt(content, pos, len));
            }
            _qfree(sub);
        }
    }
}

void probeQuery(YAXDATA *d, const Bytes &content) {
    const int64_t size = static_cast<int64_t>(content.size());
    for (uint32_t k = 0; k <= d->count; ++k) {
        YAXOFFSET64 *o = getYAXInFileByIndex64(d, k);
        YAXOFFSET64 *s = getYAXSubInfoInFileByIndex64(d, k);
        YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, k);
        if (o != nullptr) {
            ASSERT_GE(o->offset, 0);
            ASSERT_LE(o->offset + o->length, size);
        }
        if (s != nullptr) {
            ASSERT_GE(s->offset, 0);
            ASSERT_LE(s->offset + s->length, size);
        }
        EXPECT_EQ(u != nullptr, o != nullptr);
        if (u != nullptr && o != nullptr) {
            EXPECT_EQ(u->data_length, o->length);
            EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), u->data_length),
                      bytesAt(content, o->offset, o->length));
            if (s != nullptr) {
                EXPECT_EQ(std::string(reinterpret_cast<char *>(u->sub_info), u->sub_info_length),
                          bytesAt(content, s->offset, s->length));
            }
        }
        destroyYAXOFFSET64(o);
        destroyYAXOFFSET64(s);
        destroyYAXDATA_UNIT(u);
    }
}

// Names read into a bare parse belong to no query record; free them here.
void freeNames(YaxInfo *info) {
    if (info->meta_data == nullptr) return;
    for (uint32_t k = 0; k < info->meta_count; ++k)
        if (info->meta_data[k] != nullptr) {
            _qfree(info->meta_data[k]->name);
            info->meta_data[k]->name = nullptr;
        }
}

int parseMode(unsigned sig) { return sig == SIGNATURE_VONO_YAX ? SIGNATURE_VONO : sig; }

// One directory for every run; the file is rewritten each time.
const tu::TempDir &sharedDir() {
    static tu::TempDir dir;
    return dir;
}

// Runs `fn`, capturing its console lines into `out` unless the caller
// captures a whole sweep at once.
template <typename Fn>
void logged(bool capture, std::string &out, Fn fn) {
    if (capture)
        out = tu::capture(fn);
    else
        fn();
}

Outcome runFile(const Bytes &content, bool capture = true) {
    const std::string p = sharedDir().path("m.jpg");
    tu::writeFile(p, content);
    Outcome o;
    YaxInfo *i = nullptr;
    logged(capture, o.log, [&] {
        o.sig = static_cast<unsigned>(getSignature(p.c_str()));
        if (o.sig < SIGNATURE_VONO) return;
        i = ParseYAX(p.c_str(), parseMode(o.sig));
        o.parsed = i != nullptr;
        if (i == nullptr) return;
        o.listed = getYAXList(i);
        if (o.listed == 1) o.named = getAllNameOfDataList(i);
    });
    std::string ignored;
    logged(capture, ignored, [&] {
        if (i == nullptr) return;
        if (o.listed == 1) probeEntries(i, content);
        freeNames(i);
        DestroyYAX(i);
    });
    YAXDATA *d = nullptr;
    logged(capture, o.query_log, [&] {
        d = checkYAXInFile(p.c_str());
        o.checked = d != nullptr;
    });
    logged(capture, ignored, [&] {
        if (d != nullptr) probeQuery(d, content);
        destroyYAXDATA(d);
    });
    EXPECT_EQ(o.checked, o.named == 1);
    EXPECT_EQ(tu::readFile(p), content);  // reading never writes
    return o;
}

Outcome runBuffer(const Bytes &content, bool capture = true) {
    Outcome o;
    YAXBUFFER *h = _qbopen(static_cast<uint32_t>(content.size()));
    if (!content.empty()) _qbwrite(content.data(), static_cast<uint32_t>(content.size()), h);
    YaxInfo *i = nullptr;
    logged(capture, o.log, [&] {
        o.sig = getSignatureBuffer(h);
        if (o.sig < SIGNATURE_VONO) return;
        i = ParseYAX_Buffer(h, parseMode(o.sig));
        o.parsed = i != nullptr;
        if (i == nullptr) return;
        o.listed = getYAXListBuffer(i);
        if (o.listed == 1) o.named = getAllNameOfDataListBuffer(i);
    });
    std::string ignored;
    logged(capture, ignored, [&] {
        if (i == nullptr) return;
        if (o.listed == 1) probeEntries(i, content);
        freeNames(i);
        DestroyYAX_Buffer(i);
    });
    EXPECT_EQ(Bytes(h->buffer, h->buffer + h->write_size), content);
    _qbclose(h);
    return o;
}

Bytes host() { return tb::fakeImage(kHost); }
Bytes blocks(const std::vector<Entry> &e) {
    Bytes out;
    for (const Entry &x : e) out = out + tb::block(x);
    return out;
}
// The well-formed file with its rows (and optionally the count) altered.
Bytes withRows(const std::function<void(std::vector<tb::Row> &)> &edit, int64_t count = -1) {
    auto rows = tb::rowsFor(kEntries);
    edit(rows);
    return host() + blocks(kEntries) + tb::header(rows, 105, count);
}

std::string listErr(const std::string &m) { return tu::errLine("YAX::ParseYAXList", m); }
std::string nameErr(const std::string &m) { return tu::errLine("YAX::_getNameOfData", m); }
std::string allErr(const std::string &m) { return tu::errLine("YAX::getAllNameOfDataList", m); }

}  // namespace

TEST(Malformed, WellFormedBaselinePassesEveryStage) {
    const Bytes good = host() + tb::trailer(kEntries);
    for (const Outcome &o : {runFile(good), runBuffer(good)}) {
        EXPECT_EQ(o.sig, static_cast<unsigned>(SIGNATURE_YAX));
        EXPECT_EQ(o.listed, 1);
        EXPECT_EQ(o.named, 1);
        EXPECT_EQ(o.log, "");
    }
    EXPECT_TRUE(runFile(good).checked);
}

TEST(Malformed, CountsZeroHugeAndBeyondTheRows) {
    const Bytes zero = withRows([](auto &) {}, 0);
    const Bytes huge = withRows([](auto &) {}, 0xFFFFFFFF);
    for (const Outcome &o : {runFile(zero), runBuffer(zero)}) {
        EXPECT_EQ(o.listed, 0);
        EXPECT_EQ(o.log, listErr("there is no data"));
    }
    for (const Outcome &o : {runFile(huge), runBuffer(huge)}) {
        EXPECT_EQ(o.listed, 0);
        EXPECT_EQ(o.log, listErr("header is bigger then file -> that's not true!!"));
    }
    // Four rows claimed, two present: the third is read from the tail, the
    // fourth past the end, with offset 0. The file list stops there; the
    // buffer list keeps an empty row and the name pass stops before it.
    const Bytes four = withRows([](auto &) {}, 4);
    Outcome f = runFile(four);
    EXPECT_EQ(f.listed, 0);
    EXPECT_EQ(f.log, listErr("YAX_info->meta_data[i] is NULL!!"));
    Outcome b = runBuffer(four);
    EXPECT_EQ(b.listed, 1);
    EXPECT_EQ(b.named, 0);
    const std::string last = allErr("2th data has no name!");
    EXPECT_EQ(b.log.substr(b.log.size() - last.size()), last);
}

TEST(Malformed, TailAndLegacyLengthsThatPointNowhere) {
    Bytes t = host() + tb::Builder().u32(0xFFFFFFFF).str("YAXT").done();
    for (const Outcome &o : {runFile(t), runBuffer(t)}) {
        EXPECT_FALSE(o.parsed);
        EXPECT_EQ(o.log, tu::errLine("YAX::ParseYAX_FP", "file has no suond OFFS"));
    }
    // A header size that is not 12 + 12 n points at no header magic.
    Bytes odd = host() + blocks(kEntries) + tb::header(tb::rowsFor(kEntries));
    odd[odd.size() - 8] = 37;
    for (const Outcome &o : {runFile(odd), runBuffer(odd)}) {
        EXPECT_FALSE(o.parsed);
        EXPECT_EQ(o.log, tu::errLine("YAX::ParseYAX_FP", "file has no suond FSIG"));
    }
    // A legacy block whose length word would reach 4 GiB back.
    Bytes vono = host() + tb::trailer(kEntries) + tb::vonoBlock({{1, 2}}, 105, 0xFFFFFFF0);
    Outcome f = runFile(vono);
    EXPECT_EQ(f.sig, static_cast<unsigned>(SIGNATURE_VONO_YAX));
    EXPECT_FALSE(f.parsed);
    EXPECT_EQ(f.log, tu::errLine("_qlseek", "errno : 22") +
                         tu::errLine("YAX::ParseYAX_FP", "File Search Error"));
    EXPECT_EQ(f.query_log, f.log + listErr("Wrong YAX_info"));
    Outcome b = runBuffer(vono);
    EXPECT_FALSE(b.parsed);
    EXPECT_EQ(b.log, tu::errLine("YAX::ParseYAX_FP", "File Search Error"));
}

TEST(Malformed, OffsetsThatWrapOrLeaveTheFile) {
    // header_offset + offset wraps in 32 bits.
    const Bytes wrap = withRows([](auto &r) { r[0].offset = 0xFFFFFFF0; });
    for (const Outcome &o : {runFile(wrap), runBuffer(wrap)}) {
        EXPECT_EQ(o.listed, 1);
        EXPECT_EQ(o.named, 0);
        EXPECT_EQ(o.log, nameErr("data_start_position is larger than header_offset, abnormal "
                                 "operation") +
                             allErr("0th data has no name!"));
    }
    // An offset reaching 32 bytes before the start of the file. On a file the
    // box probe reads past the end, and the refused seek of the name read is
    // let through by the low-word test: the name length is read at the end.
    auto rows = tb::rowsFor(kEntries);
    const Bytes base = host() + blocks(kEntries) + tb::header(rows);
    rows[0].offset = static_cast<uint32_t>(base.size());
    const Bytes out = host() + blocks(kEntries) + tb::header(rows);
    Outcome f = runFile(out);
    EXPECT_EQ(f.listed, 1);
    EXPECT_EQ(f.named, 0);
    EXPECT_EQ(f.log, tu::errLine("YAX::checkSignatureMP4Tag", "File Read Error") +
                         tu::errLine("_qlseek", "errno : 22") +
                         nameErr("name length is wrong : 0byte") + allErr("0th data has no name!"));
    runBuffer(out);  // whatever it finds must stay inside the buffer

    // An offset into the header itself: the name length read is "YAXH".
    const Bytes into = withRows([](auto &r) { r[1].offset = 4; });
    for (const Outcome &o : {runFile(into), runBuffer(into)}) {
        EXPECT_EQ(o.named, 0);
        EXPECT_EQ(o.log, nameErr("name length is wrong : 1213743449byte") +
                             allErr("1th data has no name!"));
    }
}

TEST(Malformed, LengthsBeyondTheFileLocateNothing) {
    // A row length of all ones: the names read, the payload is not located.
    const Bytes huge_len = withRows([](auto &r) { r[1].length = 0xFFFFFFFF; });
    for (const Outcome &o : {runFile(huge_len), runBuffer(huge_len)}) {
        EXPECT_EQ(o.named, 1);
        EXPECT_EQ(o.log, "");
    }
    tu::TempDir dir;
    std::string p = dir.path("l.jpg");
    tu::writeFile(p, huge_len);
    YAXDATA *d = checkYAXInFile(p.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(getYAXInFileByName(d, "second"), nullptr);
    EXPECT_EQ(extractYAXDataFromFilebyName(d, "second", 6), nullptr);
    YAXOFFSET *ok = getYAXInFileByName(d, "first");
    ASSERT_NE(ok, nullptr);
    EXPECT_EQ(ok->length, 10u);
    destroyYAXOFFSET(ok);
    destroyYAXDATA(d);

    // A sub-information length of nearly 4 GiB inside the block.
    Bytes big_sub = host() + blocks(kEntries) + tb::header(tb::rowsFor(kEntries));
    const size_t sub_len_at = kHost + 8;
    big_sub[sub_len_at + 0] = 0xF0;
    big_sub[sub_len_at + 1] = big_sub[sub_len_at + 2] = big_sub[sub_len_at + 3] = 0xFF;
    for (const Outcome &o : {runFile(big_sub), runBuffer(big_sub)}) EXPECT_EQ(o.named, 1);
    tu::writeFile(p, big_sub);
    d = checkYAXInFile(p.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->yax_info->meta_data[0]->sub_info_length, 0xFFFFFFF0u);
    EXPECT_EQ(getYAXSubInfoInFileByIndex(d, 0), nullptr);
    EXPECT_EQ(getYAXInFileByIndex(d, 0), nullptr);
    EXPECT_EQ(extractYAXDataFromFilebyIndex(d, 0), nullptr);
    destroyYAXDATA(d);
}

TEST(Malformed, BadNamesAndZeroSubInfoStopTheCheck) {
    struct Case {
        uint32_t name_length;
        std::string line;
    };
    for (const Case &c : {Case{0, "name length is wrong : 0byte"},
                          Case{1025, "name length is wrong : 1025byte"},
                          Case{0xFFFFFFFF, "name length is wrong : 4294967295byte"}}) {
        Bytes file = host() + tb::trailer(kEntries);
        tb::Bytes word = tb::Builder().u32(c.name_length).done();
        std::copy(word.begin(), word.end(), file.begin() + kHost + 4);
        for (const Outcome &o : {runFile(file), runBuffer(file)}) {
            EXPECT_EQ(o.named, 0);
            EXPECT_EQ(o.log, nameErr(c.line) + allErr("0th data has no name!"));
        }
    }
    Bytes zero_sub = host() + tb::trailer(kEntries);
    std::fill(zero_sub.begin() + kHost + 8, zero_sub.begin() + kHost + 12, 0);
    Outcome f = runFile(zero_sub);
    EXPECT_FALSE(f.checked);
    EXPECT_EQ(f.log, nameErr("sub data read size <= 0") + allErr("0th data has no name!"));
    EXPECT_EQ(runBuffer(zero_sub).log, f.log);
}

TEST(Malformed, TruncationsAndSingleByteCorruptionsStayInBounds) {
    const Bytes good = host() + tb::trailer(kEntries) + tb::vonoBlock({{10, 20}});
    const size_t trailer_start = kHost;
    // Cut from the end, and keep only a suffix (little or no host content).
    // The lines of the whole sweep are captured at once and dropped.
    tu::capture([&] {
        for (size_t cut = 1; cut < good.size() - kHost + 8; ++cut) {
            Bytes shorter(good.begin(), good.end() - static_cast<std::ptrdiff_t>(cut));
            runFile(shorter, false);
            runBuffer(shorter, false);
            Bytes suffix(good.begin() + static_cast<std::ptrdiff_t>(trailer_start + cut - 8),
                         good.end());
            runFile(suffix, false);
            runBuffer(suffix, false);
        }
        // Every byte of the trailer and legacy block set to 0xFF, then to 0x01.
        for (size_t at = trailer_start; at < good.size(); ++at) {
            for (uint8_t v : {uint8_t{0xFF}, uint8_t{0x01}}) {
                Bytes bad = good;
                bad[at] = v;
                runFile(bad, false);
                runBuffer(bad, false);
            }
        }
    });
}
