// Parsing and listing a trailer on the file and the buffer flavour: record
// fields and rows, the data start with and without an MP4 box or a legacy
// audio block, every failure's lines, and what the release functions leave.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

const std::vector<Entry> kTwo = {{7, "alpha", "payload-one", ""}, {0, "beta", "xy", "SUBINFO"}};
const Bytes kHost = tb::fakeImage(100);

// Parses `file` with signature argument `sig` on a caller's stream and buffer,
// lists when a record comes back (expecting `listed`), and hands each listed
// record to `check`. Either release leaves the caller's stream or buffer
// open (a double close shows under the sanitizer). Returns the console lines
// of the stream and the buffer run.
std::pair<std::string, std::string> both(const Bytes &file, int sig, int listed,
                                         const std::function<void(YaxInfo *)> &check = {}) {
    tu::TempDir dir;
    tu::writeFile(dir.path("f.jpg"), file);
    FILE *fp = _qfopen(dir.path("f.jpg").c_str(), "rb");
    YAXBUFFER *h = _qbopen(static_cast<uint32_t>(file.size() + 1));
    if (!file.empty()) _qbwrite(file.data(), static_cast<uint32_t>(file.size()), h);
    std::pair<std::string, std::string> out;
    for (bool buf : {false, true})
        (buf ? out.second : out.first) = tu::capture([&] {
            YaxInfo *i = buf ? ParseYAX_Buffer(h, sig) : ParseYAX_FP(fp, sig);
            EXPECT_EQ(i != nullptr, listed >= 0);
            if (i == nullptr) return;
            EXPECT_EQ(buf ? getYAXListBuffer(i) : getYAXList(i), listed);
            if (listed == 1 && check) check(i);
            EXPECT_EQ(buf ? DestroyYAX(i) : DestroyYAX_FP(i), 1);
        });
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_SET) + _qfclose(fp) + qbgetWriteSize(h), int64_t(file.size()));
    _qbclose(h);
    return out;
}

std::string parseErr(const std::string &m) { return tu::errLine("YAX::ParseYAX_FP", m); }
std::string listErr(const std::string &m) { return tu::errLine("YAX::ParseYAXList", m); }

}  // namespace

TEST(Parse, RecordRowsAndTheDataStartBehindBoxesAndLegacyAudio) {
    const Bytes t = tb::trailer(kTwo), vono = tb::vonoBlock({{10, 90}});  // 30 bytes
    const auto rows = tb::rowsFor(kTwo);
    both(kHost + t, SIGNATURE_YAX, 1, [&](YaxInfo *i) {
        EXPECT_EQ(std::vector<int64_t>({i->valid, i->file_size, i->header_offset, i->version,
                                        i->meta_count, i->data_start_position}),
                  std::vector<int64_t>({1, int64_t(kHost.size() + t.size()), 44, 105, 2, 100}));
        const YaxEntry &e = *i->meta_data[1];  // names come later
        EXPECT_EQ(std::vector<uint64_t>({e.meta_type, e.offset, e.length, e.has_sub_info, !e.name}),
                  std::vector<uint64_t>({rows[1].meta_type, rows[1].offset, rows[1].length, 1, 1}));
    });
    // Codes 2 and 4 step over the audio tail: tail distance L + 18 = 38.
    for (int sig : {SIGNATURE_VONO, SIGNATURE_VONO_YAX})
        both(kHost + t + vono, sig, 1, [&](YaxInfo *i) { EXPECT_EQ(i->header_offset, 36u + 38u); });
    // A box head in front of block 0 is taken off the data start.
    const Bytes box = tb::Builder().u32be(uint32_t(t.size() + 8)).str("yaxd").done();
    both(kHost + box + t, 3, 1, [&](YaxInfo *i) { EXPECT_EQ(i->data_start_position, 100); });
    // Releasing rows leaves a name alone: whoever took it over frees it.
    both(kHost + t, SIGNATURE_YAX, 1, [](YaxInfo *i) {
        char *name = static_cast<char *>(_qmalloc(6));
        std::memcpy(name, "alpha", 6);
        i->meta_data[0]->name = name;
        _destroyYAXDataList(i);
        EXPECT_EQ(i->meta_data, nullptr);
        EXPECT_STREQ(name, "alpha");
        _qfree(name);
    });
}

// Counts, header sizes and row offsets that point nowhere are in the
// malformed-input suite; these are the remaining lines of parse and list.
TEST(Parse, FailuresAndTheirLinesOnBothFlavours) {
    const Bytes good = kHost + tb::trailer(kTwo);
    Bytes bad_tail = good, bad_head = good;
    bad_tail.back() = 'X';
    bad_head[good.size() - 44] = 'Q';  // "YAXH" -> "QAXH"
    const Bytes one = tb::trailer({{1, "k", "0123456789a", ""}});  // 52 bytes
    const std::string search = parseErr("File Search Error");
    struct Case { Bytes in; int sig, listed; std::string file_log, buf_log = "same"; };
    const Case cases[] = {
        {bad_tail, 3, -1, ""},  // silent
        {kHost + tb::Builder().str("YAXH").u32(105).u32(0).u32(12).str("YAXT").done(), 3, -1,
         parseErr("file has no suond OFFS")},
        {bad_head, 3, -1, parseErr("file has no suond FSIG")},
        {kHost + tb::trailer(kTwo, 205), 3, 1, ""},
        {kHost + tb::trailer(kTwo, 206), 3, -1, parseErr("the source file has YAX data but current "
                                                        "YAX version is too old to parse the source file")},
        // The refused seek 10 bytes before a 4-byte end reports -1.
        {tb::bytes("YAXT"), SIGNATURE_VONO_YAX, -1,
         tu::errLine("_qlseek", "errno : 22") + parseErr("File Search Error -1"),
         parseErr("File Search Error -1")},
        // An 8-byte tail at the very start: position 0 counts as a failure.
        {tb::Builder().u32(20).str("YAXT").done(), 3, -1, search}, {Bytes(), 3, -1, search},
        // The row bound counts header_offset twice: 32 + 12 + 20 bytes are
        // needed, so the host must be 12 bytes although the rows fit in less.
        {tb::fakeImage(11) + one, 3, 0,
         listErr("header is bigger then file -> that's not true!!")},
        {tb::fakeImage(12) + one, 3, 1, ""},
    };
    for (const Case &c : cases) {
        auto logs = both(c.in, c.sig, c.listed);
        EXPECT_EQ(logs.first, c.file_log) << &c - cases;
        EXPECT_EQ(logs.second, c.buf_log == "same" ? c.file_log : c.buf_log) << &c - cases;
    }
    tu::TempDir dir;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(ParseYAX(dir.path("missing").c_str(), 3), nullptr); }),
              tu::errLine("YAX::ParseYAX", "File Open Error"));
    YaxInfo rec{};
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXList(&rec), 0); }), listErr("YAX validation failed"));
    rec.valid = 1;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXListBuffer(&rec), 0); }), listErr("File doesn't exist"));
}
