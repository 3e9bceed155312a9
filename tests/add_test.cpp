// Adds: the bytes each flavour leaves (path, FILE* and buffer alike), rows
// after an insert, the legacy block behind the new tail, where a fast add puts
// its block, the log lines of every refusal, how failed writes are noticed,
// the size check and temporary names.
#include <csignal>
#include <functional>
#include <sys/resource.h>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;
using tu::errLine;

namespace {

const std::string kUserMsg = "if Data type is UserData then must use DataSubInfo";
const Bytes kImage = tb::fakeImage(4096);
// 60, 40 and 100 bytes: rows at offsets 100 and 40, then a new 100-byte block.
const Entry kA{1, "alpha", std::string(47, 'a'), ""}, kB{2, "b", std::string(31, 'b'), ""};
const Entry kNew{3, "new", std::string(89, 'n'), ""}, kCaption{7, "caption", "hello world", "meta"};

template <typename T> uint32_t n32(const T &c) { return static_cast<uint32_t>(c.size()); }
const void *subOf(const Entry &e) { return e.sub.empty() ? nullptr : e.sub.data(); }
// name, name length, type, sub-information, its length, payload, its length
#define CALL(x) [&] { return x; }
#define ARGS(e) \
    (e).name.c_str(), n32((e).name), (e).type, subOf(e), n32((e).sub), (e).payload.data(), n32((e).payload)

// A parsed trailer as the parser would leave it, built by hand.
struct HandInfo {
    YaxInfo info{};
    std::vector<YaxEntry> rows;  // and pointers to them, as the record holds them
    std::vector<YaxEntry *> ptrs;
    HandInfo(const std::vector<tb::Row> &t, size_t file_size, uint32_t after_tail = 0) : rows(t.size()) {
        for (size_t i = 0; i < t.size(); ++i) {
            rows[i].meta_type = t[i].meta_type, rows[i].offset = t[i].offset, rows[i].length = t[i].length;
            ptrs.push_back(&rows[i]);
        }
        info.valid = 1, info.version = 105, info.meta_count = n32(t), info.meta_data = ptrs.data();
        info.file_size = static_cast<int64_t>(file_size), info.header_offset = 20 + 12 * n32(t) + after_tail;
    }
};

// Runs `fn` on a file holding `start`, expects `want` from it and no other
// file left beside it; returns the file's bytes after.
Bytes onPath(const Bytes &start, const std::function<int(const char *)> &fn, int want = 1) {
    tu::TempDir d;
    std::string p = d.path("f.jpg");
    tu::writeFile(p, start);
    EXPECT_EQ(fn(p.c_str()), want);
    EXPECT_EQ(d.list(), std::vector<std::string>{"f.jpg"});
    return tu::readFile(p);
}
using OnFile = std::function<int(FILE *)>;
Bytes onFile(const Bytes &start, const OnFile &fn, int want = 1) {
    const auto run = [&](const char *p) {
        FILE *fp = _qfopen(p, "r+b");
        const int r = fn(fp);
        return _qfclose(fp), r;
    };
    return onPath(start, run, want);
}
using OnBuffer = std::function<int(YAXBUFFER *)>;
Bytes onBuffer(const Bytes &start, uint32_t capacity, const OnBuffer &fn, int want = 1) {
    YAXBUFFER *h = _qbopen(capacity);
    if (!start.empty()) _qbwrite(start.data(), n32(start), h);
    EXPECT_EQ(fn(h), want);
    Bytes out(h->buffer, h->buffer + h->write_size);
    return _qbclose(h), out;
}
OnFile firstFP(const Entry &e) { return [e](FILE *fp) { return AddYAXDataInFirstTimeFP(fp, ARGS(e)); }; }
OnBuffer firstBuf(const Entry &e) {
    return [e](YAXBUFFER *h) { return AddYAXDataInFirstTimeBuffer(h, ARGS(e)); };
}

// Lowers the file size limit while alive, so writes past it fail as on a full disk.
struct FileSizeLimit {
    rlimit old_{}, low_{};
    void (*handler_)(int) = std::signal(SIGXFSZ, SIG_IGN);
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &old_), low_ = old_, low_.rlim_cur = bytes, setrlimit(RLIMIT_FSIZE, &low_);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &old_), std::signal(SIGXFSZ, handler_); }
};

// What the file write primitive says when it writes `got` of `want` bytes.
std::string qfwriteFail(int got, int want) {
    return errLine("YAXSystemFile::_qfwrite", "write ret != write size_of_byte  ==> fail(" +
                                                  std::to_string(got) + " != " + std::to_string(want) + ")");
}

// Each call answers `result` and prints exactly its lines.
struct Case { std::function<int()> call; std::string lines; int result = 0; };
void expectCases(const std::vector<Case> &cases) {
    for (size_t i = 0; i < cases.size(); ++i) {
        int r = -1;
        EXPECT_EQ(tu::capture([&] { r = cases[i].call(); }), cases[i].lines) << "case " << i;
        EXPECT_EQ(r, cases[i].result) << "case " << i;
    }
}

}  // namespace

// Refusals of every add and of the size check, each with its exact lines
// (one argument check per function and spelling); nothing is written.
TEST(Add, RefusalsLogUnderEachFunctionsTags) {
    tu::TempDir dir;
    const std::string path = dir.path("p.jpg"), empty = dir.path("e.jpg"), missing = dir.path("gone.jpg");
    const Bytes before = kImage + tb::trailer({kA});
    tu::writeFile(path, before), tu::writeFile(empty, {});
    const char *p = path.c_str();
    FILE *ro = _qfopen(p, "rb"), *efp = _qfopen(empty.c_str(), "r+b");
    YAXBUFFER *h = _qbopen(8192);
    _qbwrite(kImage.data(), n32(kImage), h);
    HandInfo info(tb::rowsFor({kA}), before.size()), far(tb::rowsFor({kA}), before.size());
    far.info.header_offset = n32(before) + 1;  // header beyond the file's start
    HandInfo size({{1u << 16, 100, 100}}, 5000);  // header_offset 32: 10 + sub + data + 32 + 100 + 16
    const uint32_t at_limit = 0xFFF00000u - 158;
    const std::string P = "YAX::AddYAXDataInFirstTime", F = P + "FP", L = "YAX::AddYAXData",
                      E = "YAXEncoder::AddYAXDataFP", D = "YAX::AddDirectYAXDataFP";
    const std::string seek = errLine("_qlseek", "errno : 22"), no_room = errLine("checkYAXInfoForSaving",
        "There is no storage for saving YAX data in the source file, delete a yax data");
    // type 0 without sub-information, no name, and a good entry
    const Entry user{0, "n", "d", ""}, noName{1, "", "d", ""}, ok{1, "n", "d", ""};
    expectCases({
        {CALL(AddYAXDataInFirstTime(p, ARGS(user))), errLine(P, kUserMsg)},
        {CALL(AddYAXDataInFirstTime(p, ARGS(noName))), errLine(P, "name null")},
        {CALL(AddYAXDataInFirstTime(missing.c_str(), ARGS(ok))),
         errLine("YAXEncoder::AddYAXDataInFirstTime", "file open error")},
        {CALL(AddYAXDataInFirstTime(empty.c_str(), ARGS(ok))), errLine(P, "file search error = 0\n")},
        {CALL(AddYAXDataInFirstTimeFP(efp, ARGS(ok))),
         errLine("YAXEncoder::AddYAXDataInFirstTimeFP", "file Search error\n")},
        {CALL(AddYAXDataInFirstTimeFP(ro, "n", 1, 0, "s", 0, "d", 1)), errLine(F, kUserMsg)},
        {CALL(AddYAXDataInFirstTimeFP(ro, nullptr, 1, 1, nullptr, 0, "d", 1)),
         errLine(F, "name_size <= 0 || name == NULL")},
        // the buffer flavour speaks with the FILE* flavour's tags
        {CALL(AddYAXDataInFirstTimeBuffer(h, ARGS(user))), errLine(F, kUserMsg)},
        {CALL(AddYAXData(p, nullptr, ARGS(ok), nullptr)), errLine(L, "YAX_info == NULL")},
        {CALL(AddYAXData(p, &info.info, ARGS(user), nullptr)), errLine(L, kUserMsg)},
        {CALL(AddYAXDataFP(ro, nullptr, ARGS(ok), nullptr)), errLine(E, "YAX_info == NUL")},
        {CALL(AddYAXDataFP(ro, &far.info, ARGS(ok), nullptr)), seek + errLine(E, "File Search Error ")},
        {[&] { return far.info.fp = ro, AddYAXData(p, &far.info, ARGS(ok), nullptr); },
         seek + errLine("YAXEncoder::AddYAXData", "file search error = -1\n")},
        {CALL(AddYAXDataFP(ro, &info.info, ARGS(ok), nullptr)),
         errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
             errLine(E, "File _writeDataTagInfo Error")},
        {CALL(AddDirectYAXDataInFirstTimeFP(nullptr, 1, 0, "x", 0)),
         errLine("YAXEncoder::AddDirectYAXDataInFirstTimeFP", "data == VELTA_YAX_NULL || data_size <= 0")},
        {CALL(AddDirectYAXDataFP(nullptr, &info.info, 0, 0, "x", 1, nullptr)), errLine(D, kUserMsg)},
        {CALL(AddDirectYAXDataFP(nullptr, nullptr, 1, 0, "x", 1, nullptr)),
         errLine(D, "YAX_info == VELTA_YAX_NULL")},
        // the fast add borrows the first add's tag for its one message and is silent otherwise
        {CALL(FastAddYAXData(&info.info, ARGS(user), 1)), errLine(P, kUserMsg)},
        {CALL(FastAddYAXData(&info.info, ARGS(ok), 1)), ""},  // no stream
        // type 0 with sub-information is taken
        {CALL(AddYAXDataInFirstTimeBuffer(h, "n", 1, 0, "s", 1, "d", 1)), "", 1},
        // the trailer must stay within 4 GiB less 1 MiB, also when the sum wraps in 32 bits
        {CALL(checkYAXInfoForSaving(&size.info, at_limit, 0, 10)), "", 1},
        {CALL(checkYAXInfoForSaving(&size.info, at_limit + 1, 0, 10)), no_room},
        {CALL(checkYAXInfoForSaving(&size.info, 0xFFFFFFFFu, 0xFFFFFFFFu, 10)), no_room},
    });
    _qfclose(ro), _qfclose(efp), _qbclose(h);
    EXPECT_EQ(tu::readFile(path), before);
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"e.jpg", "p.jpg"}));
}

// Buffers report every field that does not fit. Files report a failed write
// with -1, which the first add's test for 0 misses after the block; the
// later add catches it.
TEST(Add, FailedWritesAfterTheBlock) {
    const uint32_t base = n32(kImage) + tb::blockLength(kA);
    const std::string T = "YAXEncoder::AddYAXDataInFirstTimeFP", E = "YAXEncoder::AddYAXDataFP";
    const Bytes later = kImage + tb::trailer({kA});
    HandInfo info(tb::rowsFor({kA}), later.size()), room(tb::rowsFor({kA}), later.size());
    Bytes full;
    auto buf = [&](const Bytes &start, uint32_t cap, const OnBuffer &add = firstBuf(kA)) {
        return [=] { return onBuffer(start, cap, add, 0), 0; };
    };
    auto file = [&](uint32_t limit, int want, HandInfo *hi) {
        return [=, &full] {
            FileSizeLimit lower(limit);
            const OnFile add = [&](FILE *fp) { return AddYAXDataFP(fp, &hi->info, ARGS(kNew), nullptr); };
            return full = onFile(hi ? later : kImage, hi ? add : firstFP(kA), want), want;
        };
    };
    const auto addNew = [&](YAXBUFFER *h) { return AddYAXDataBuffer(h, &room.info, ARGS(kNew), nullptr); };
    expectCases({
        // the row writer reports 1 even when its words are lost
        {buf(kImage, base - 1), errLine(T, "file write error\n")},
        {buf(kImage, base), errLine(T, "file _writeYAX_QTSS error\n")},
        {buf(kImage, base + 8), errLine(T, "file _writeYAX_QCnt error\n")},
        {buf(kImage, base + 16), errLine(T, "file _writeYAX_QTHO error\n")},
        {buf(kImage, base + 28), errLine(T, "file _writeYAX_QTS error\n")},
        {buf(later, n32(later) - 32 + 100, addNew), errLine(E, "file _writeYAX_QTSS error\n")},
        {file(n32(kImage) + 4, 0, nullptr),
         errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
             errLine(T, "File _writeDataTagInfo Error")},
        // the start file is cut at the limit too: 21 of the payload's 89 bytes fit
        {file(n32(later) - 32 + 11, 0, &info), qfwriteFail(21, 89) + errLine(E, "file write error\n")},
        // a first add on a full disk answers 1; only the primitive speaks
        {file(base + 4, 1, nullptr), qfwriteFail(-1, 4), 1},
    });
    EXPECT_EQ(full, kImage + tb::block(kA) + tb::bytes("YAXH"));
}

// A first add writes the block and a one-row header; a later one writes its
// block over the old header and every row moves back by it.
TEST(Add, FirstAndLaterAddsInEveryFlavour) {
    // (the path and FILE* flavours' bytes are compared through the save calls)
    EXPECT_EQ(onBuffer(kImage, 8192, firstBuf(kCaption)), kImage + tb::trailer({kCaption}));
    // an empty buffer takes a first trailer (an empty file is refused above)
    EXPECT_EQ(onBuffer({}, 256, firstBuf(kA)), tb::trailer({kA}));
    // sub-information needs both bytes and a length
    const Bytes plain = kImage + tb::trailer({Entry{7, "caption", "hello world", ""}});
    for (const auto &[sub, length] : {std::pair<const char *, uint32_t>{"meta", 0}, {nullptr, 9}}) {
        EXPECT_EQ(onFile(kImage, [sub = sub, length = length](FILE *fp) {
                      return AddYAXDataInFirstTimeFP(fp, "caption", 7, 7, sub, length, "hello world", 11);
                  }), plain);
    }
    const Bytes before = kImage + tb::trailer({kA, kB}), want = kImage + tb::trailer({kA, kB, kNew});
    HandInfo b(tb::rowsFor({kA, kB}), before.size()), p(tb::rowsFor({kA, kB}), before.size());
    const auto add = [&](YAXBUFFER *h) { return AddYAXDataBuffer(h, &b.info, ARGS(kNew), nullptr); };
    EXPECT_EQ(onBuffer(before, 8192, add), want);
    // the record keeps the shifted offsets and does not get the new row
    EXPECT_EQ(std::vector<uint32_t>({b.rows[0].offset, b.rows[1].offset, b.info.meta_count}),
              std::vector<uint32_t>({200, 140, 2}));
    // the path flavour closes the record's stream and reopens the file
    EXPECT_EQ(onPath(before, [&](const char *path) {
                  p.info.fp = _qfopen(path, "rb");
                  return AddYAXData(path, &p.info, ARGS(kNew), nullptr);
              }), want);
    EXPECT_EQ(p.info.fp, nullptr);
}

// Behind the new tail: the FILE* flavour's one-sound writer, the path
// flavour's word-by-word copy of the record (its count too, and its stream
// closed), the direct add likewise; the buffer flavour's block writer sends
// "VONOBS" through the file primitive, which fails on a buffer handle.
TEST(Add, LegacyBlockIsRewrittenBehindTheNewTail) {
    const Bytes legacy = tb::vonoBlock({{4200, 4230}}), before = kImage + tb::trailer({kA}) + legacy;
    const Bytes nb = tb::block(kNew), after = kImage + tb::trailer({kA, kNew});
    Bytes two = legacy;
    two[8] = 2;  // the record's count is copied, its one pair as it is
    uint32_t sound[2] = {4200, 4230};
    VonoInfo vono{};
    vono.count = 1, vono.offsets = sound;
    auto mk = [&] { return HandInfo(tb::rowsFor({kA}), before.size(), 30); };
    HandInfo f = mk(), p = mk(), b = mk(), d = mk();
    const OnFile add = [&](FILE *fp) { return AddYAXDataFP(fp, &f.info, ARGS(kNew), &vono); };
    const OnFile direct = [&](FILE *fp) {
        return AddDirectYAXDataFP(fp, &d.info, 3, 0, nb.data(), n32(nb), &vono);
    };
    const OnBuffer buffer = [&](YAXBUFFER *h) { return AddYAXDataBuffer(h, &b.info, ARGS(kNew), &vono); };
    EXPECT_EQ(onFile(before, add), after + legacy);
    EXPECT_EQ(onFile(before, direct), after + legacy);
    EXPECT_EQ(tu::capture([&] { onBuffer(before, 8192, buffer, 0); }),
              qfwriteFail(-1, 6) + errLine("YAXEncoder::AddYAXDataFP", "file _writeVonoHeader error\n"));
    vono.count = 2;
    EXPECT_EQ(onPath(before, [&](const char *path) {
                  vono.fp = _qfopen(path, "rb");
                  return AddYAXData(path, &p.info, ARGS(kNew), &vono);
              }), after + two);
    EXPECT_EQ(vono.fp, nullptr);
}

// A fast add behind a 60-byte filler (row 0) and one entry: a block leaving
// room for a new filler goes behind a smaller one, anything else is appended
// where the header stood. (The exact fit is compared through the fast save.)
TEST(FastAdd, WhereTheBlockGoes) {
    const Entry filler{0x7FFE, "Invalid_Data", std::string(40, '\0'), ""}, x{5, "xray", "payload-x", ""};
    // blocks of 39 and 40 bytes
    const Entry small{6, "s", std::string(25, 'p'), "q"}, forty{6, "f", std::string(31, 'g'), ""};
    const Bytes before = kImage + tb::trailer({filler, x});
    const uint32_t off0 = 60 + tb::blockLength(x);
    // 21 bytes are left for the filler, whose row takes the new entry's sub-information flag
    const Bytes split = kImage + tb::fillerBlock(21) + tb::block(small) + tb::block(x) +
                        tb::header({{(0x7FFEu << 16) | 0x8000, off0, 21},
                                    {(6u << 16) | 0x8000, off0 - 21, 39}, tb::rowsFor({filler, x})[1]});
    struct { Entry e; int reuse; Bytes want; } cases[] = {
        {small, 1, split},
        {forty, 1, kImage + tb::trailer({filler, x, forty})},  // 40 + 20 >= 60
        {small, 0, kImage + tb::trailer({filler, x, small})},  // reuse not asked for
        {kNew, 1, kImage + tb::trailer({filler, x, kNew})},    // bigger than the filler
    };
    for (const auto &c : cases) {
        HandInfo h(tb::rowsFor({filler, x}), before.size());
        const OnFile add = [&](FILE *fp) {
            return h.info.fp = fp, FastAddYAXData(&h.info, ARGS(c.e), c.reuse);
        };
        EXPECT_EQ(onFile(before, add), c.want) << c.e.name;
    }
}

TEST(TempName, FirstFreeNumberBesideThePathStoppingAt998) {
    tu::TempDir dir;
    auto name = [](const std::string &path) {
        char *n = _getTempFileName(path.c_str());
        const std::string s = n ? n : "(null)";
        return _qfree(n), s;
    };
    char buf[16];
    for (int n = 0; n <= 999; ++n) {
        std::snprintf(buf, sizeof buf, "photo%03d.tmp", n);
        // the first free number; once all are taken, the last one anyway
        EXPECT_EQ(name(dir.path("photo.jpg")), dir.path(n < 999 ? buf : "photo998.tmp"));
        tu::writeFile(dir.path(buf), {});
    }
    // no dot: the last character is taken for the extension
    EXPECT_EQ(name("clip"), "cli000.tmp");
    EXPECT_EQ(name(".jpg"), "(null)");
}
