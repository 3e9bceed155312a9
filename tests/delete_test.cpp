// Deleting entries: rewriting, in-place and fast deletes, on files and buffer
// streams. Inputs and expected bytes come from the independent builder; the
// parsed records are made by hand from the same numbers, so these tests do
// not lean on the parser.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace {

using tb::Bytes;
using tb::Entry;
using tb::operator+;
using Entries = std::vector<Entry>;

Entry filler(uint32_t size) { return Entry{0x7FFE, "Invalid_Data", std::string(size - 20, '\0'), ""}; }

// The legacy end record written behind a trailer: always one pair and a
// header size of 20, whatever the count says.
Bytes vonoEnd(uint32_t count, uint32_t start, uint32_t end) {
    return tb::Builder().str("VONO").u32(105).u32(count).u32(start).u32(end).u32(20).str("VONOBS").done();
}

const Entries kThree = {Entry{1, "first", std::string(40, 'a'), ""},
                        Entry{7, "second", std::string(25, 'b'), "sub-info"},
                        Entry{3, "third", std::string(33, 'c'), ""}};
const Entry kOnly{5, "only", std::string(60, 'p'), ""};
const Bytes kImage = tb::fakeImage(300);

// The entries without the rows `gone`, behind a filler of `filler_size` when non-zero.
Entries without(const Entries &v, const std::vector<uint32_t> &gone, uint32_t filler_size = 0) {
    Entries out;
    if (filler_size != 0) out.push_back(filler(filler_size));
    for (uint32_t i = 0; i < v.size(); ++i)
        if (std::find(gone.begin(), gone.end(), i) == gone.end()) out.push_back(v[i]);
    return out;
}

// Image, optional MP4 box head, trailer, optional legacy end record.
struct Layout {
    Entries entries = kThree;
    Bytes vono = {};
    bool mp4 = false;
    Bytes box() const {
        const auto size = static_cast<uint32_t>(8 + tb::trailer(entries).size());
        return mp4 ? tb::Builder().u32be(size).str("yaxd").done() : Bytes{};
    }
    Bytes bytes() const { return kImage + box() + tb::trailer(entries) + vono; }
};

// A parsed record made from the layout's own numbers.
YaxInfo *makeInfo(const Layout &l) {
    auto rows = tb::rowsFor(l.entries);
    auto *info = static_cast<YaxInfo *>(_qcalloc(1, sizeof(YaxInfo)));
    info->file_size = static_cast<int64_t>(l.bytes().size());
    info->header_offset = static_cast<uint32_t>(20 + 12 * rows.size() + l.vono.size());
    info->valid = 1, info->version = 105, info->meta_count = static_cast<uint32_t>(rows.size());
    info->meta_data = static_cast<YaxEntry **>(_qcalloc(rows.size(), sizeof(YaxEntry *)));
    for (size_t i = 0; i < rows.size(); ++i) {
        YaxEntry *e = info->meta_data[i] = static_cast<YaxEntry *>(_qcalloc(1, sizeof(YaxEntry)));
        e->offset = rows[i].offset, e->length = rows[i].length, e->meta_type = rows[i].meta_type;
        e->has_sub_info = (rows[i].meta_type >> 15) & 1;
    }
    info->data_start_position = info->file_size - info->header_offset - rows[0].offset - (l.mp4 ? 8 : 0);
    return info;
}

// A legacy record as a caller hands it in (the deletes only read it).
struct Vono {
    uint32_t offsets[2];
    VonoInfo v{1, 0, 20, 105, 1, 0, 30, nullptr, nullptr, offsets};
    Vono(uint32_t start, uint32_t end, uint32_t moved) : offsets{start, end} { v.sound_moved = moved; }
};

enum Flavour { Rewrite, InPlace, Buffer, WholeRewrite };

// One layout on disk (or in a buffer stream with room to spare) with its
// hand-made record, and the delete flavours run against it (index -1: all).
struct Target {
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    YAXBUFFER *h = nullptr;
    YaxInfo *info;
    explicit Target(const Layout &l, bool buffer = false) : info(makeInfo(l)) {
        const Bytes b = l.bytes();
        tu::writeFile(path, buffer ? Bytes{} : b);  // an empty stand-in beside a buffer
        if (!buffer) info->fp = std::fopen(path.c_str(), "r+b");
        if (buffer)
            _qbwrite(b.data(), uint32_t(b.size()), info->handle = h = _qbopen(uint32_t(b.size() + 64)));
    }
    ~Target() { DestroyYAX(info), _qbclose(h); }
    Bytes now() const { return h ? Bytes(h->buffer, h->buffer + h->write_size) : tu::readFile(path); }
    int del(Flavour f, int64_t i, VonoInfo *v = nullptr) {
        const char *p = path.c_str();
        const auto k = static_cast<uint32_t>(i);
        switch (f) {
        case Buffer: return i < 0 ? DeleteAllYAXDataBuffer(h, info) : DeleteAYAXDataBuffer(h, info, k, v);
        case InPlace:
            return i < 0 ? DeleteAllYAXDataFP(info->fp, info) : DeleteAYAXDataFP(info->fp, info, k, v);
        case Rewrite: return i < 0 ? DeleteAllYAXData(p, info) : DeleteAYAXData(p, info, k, v);
        default: return DeleteAllData(p, info);
        }
    }
};
using Edit = std::function<int(Target &)>;

// Runs `run` on a fresh target and checks the result, the bytes, the console
// lines when given, that no temporary file is left, and that a successful
// in-place edit keeps the caller's stream open.
void expectEdit(Flavour f, const Layout &l, const Edit &run, const Bytes &want, int result = 1,
                const std::string &log = "-") {
    Target t(l, f == Buffer);
    FILE *fp = t.info->fp;
    int r = -1;
    const std::string printed = tu::capture([&] { r = run(t); });
    EXPECT_EQ(result, r);
    EXPECT_EQ(want, t.now());
    EXPECT_EQ(log == "-" ? printed : log, printed);
    EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, t.dir.list());
    EXPECT_TRUE(f != InPlace || result != 1 || (fp == t.info->fp && fcntl(fileno(fp), F_GETFD) != -1));
}

class DeleteOne : public ::testing::TestWithParam<Flavour> {};

TEST_P(DeleteOne, LayoutsAfterTheDelete) {
    const Flavour f = GetParam();
    const uint32_t gone = tb::blockLength(kThree[1]);
    const Layout end{kThree, vonoEnd(1, 1000, 1500)}, mp4{kThree, {}, true},
        only{{kOnly}, vonoEnd(1, 310, 320)};
    // a buffer stream never finds an end record to keep
    const auto kept = [f](const Bytes &b) { return f == Buffer ? Bytes{} : b; };
    Vono still(1000, 1500, 0), moved(1000, 1500, 1), other(999, 1999, 1);
    struct Case { Layout in; int64_t index; VonoInfo *vono; Bytes want; };
    std::vector<Case> cases = {
        // the end record is pulled back only when the sound lay behind the entry
        {end, 1, &still.v, kImage + tb::trailer(without(kThree, {1})) + vonoEnd(1, 1000, 1500)},
        {end, 1, &moved.v, kImage + tb::trailer(without(kThree, {1})) + vonoEnd(1, 1000 - gone, 1500 - gone)},
        // without a caller's record the end record is dropped
        {end, 2, nullptr, kImage + tb::trailer(without(kThree, {2}))},
        // the MP4 box head stays, with its old size
        {mp4, 0, nullptr, kImage + mp4.box() + tb::trailer(without(kThree, {0}))},
        {mp4, -1, nullptr, kImage + mp4.box()},
        // delete-all keeps the end record with a count of 0; so does a delete
        // of the only entry, which ignores the caller's record
        {end, -1, nullptr, kImage + kept(vonoEnd(0, 1000, 1500))},
        {only, 0, &other.v, kImage + kept(vonoEnd(0, 310, 320))},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const Case &c = cases[i];
        expectEdit(f, c.in, [&](Target &t) { return t.del(f, c.index, c.vono); }, c.want);
    }
}

TEST_P(DeleteOne, MalformedTablesFailCleanlyAndChangeNothing) {
    const Flavour f = GetParam();
    const std::string tag = std::string("YAXEncoder::DeleteAYAXData") +
                            (f == InPlace ? "FP" : f == Buffer ? "Buffer" : "");
    const std::string fit = "the entry table does not fit the file",
                      apart = "the blocks of the entry table are not back to back",
                      into = "a block of the entry table runs into the header";
    using Damage = std::function<void(YaxInfo *)>;
    for (const auto &[damage, msg] : std::vector<std::pair<Damage, std::string>>{
             {[](YaxInfo *i) { i->meta_data[2]->length = 0xFFFFFF00u; }, into},  // past the header
             {[](YaxInfo *i) { i->meta_data[1]->length = i->meta_data[2]->length = 0x80000000u; }, into},
             {[](YaxInfo *i) { i->meta_data[0]->offset = 0xFFFFFFF0u; }, fit},  // before the file
             {[](YaxInfo *i) { i->file_size += int64_t(1) << 33; }, fit},       // file shorter than parsed
             {[](YaxInfo *i) { _qfree(i->meta_data[1]), i->meta_data[1] = nullptr; }, fit},
             {[](YaxInfo *i) { i->meta_data[0]->length = i->meta_data[0]->offset + 1; }, into},
             // blocks that do not follow each other: a gap, an overlap, a row one
             // byte short, a gap before the header
             {[](YaxInfo *i) { i->meta_data[0]->offset += 4; }, apart},
             {[](YaxInfo *i) { i->meta_data[1]->offset += 4; }, apart},
             {[](YaxInfo *i) { i->meta_data[1]->length -= 1; }, apart},
             {[](YaxInfo *i) { for (int k = 0; k < 3; ++k) i->meta_data[k]->offset += 4; }, apart}})
        expectEdit(f, {}, [&, damage = damage](Target &t) { return damage(t.info), t.del(f, 1); }, Layout{}.bytes(), 0,
                   tu::errLine(tag, msg));
}

INSTANTIATE_TEST_SUITE_P(Flavours, DeleteOne, ::testing::Values(Rewrite, InPlace, Buffer));

TEST(DeleteAll, WholeFileDeleteFreshStreamAndOddSuccesses) {
    // only the whole-file delete cuts at the box head, and it drops the end record
    const Layout end{kThree, vonoEnd(1, 400, 470), true};
    expectEdit(WholeRewrite, end, [](Target &t) { return t.del(WholeRewrite, -1); }, kImage);
    // a rewrite leaves the record reading the new file through a fresh stream
    Target t(end);
    ASSERT_EQ(1, t.del(Rewrite, -1));
    ASSERT_NE(nullptr, t.info->fp);
    EXPECT_EQ(static_cast<int64_t>(kImage.size() + 8 + 30), _qlseek64(t.info->fp, 0, SEEK_END));

    // The first free temporary name links into a missing directory: it counts
    // as free, cannot be opened, and every rewrite reports success with
    // nothing changed, not even the rows in memory.
    Target link{Layout{}};
    ASSERT_EQ(0, symlink(link.dir.path("missing/target").c_str(), link.dir.path("photo000.tmp").c_str()));
    uint32_t two[] = {0, 2};
    EXPECT_EQ(1, link.del(WholeRewrite, -1) & link.del(Rewrite, -1) & link.del(Rewrite, 1) &
                     DeleteMultiYAXData(link.path.c_str(), link.info, two, 2));
    EXPECT_EQ(Layout{}.bytes(), link.now());
    EXPECT_EQ(tb::rowsFor(kThree)[0].offset, link.info->meta_data[0]->offset);

    // A single delete of the only entry reports 1 even when its delete-all
    // fails (a path without a dot gives no temporary name).
    Target one{Layout{{kOnly}}};
    tu::capture([&] {
        EXPECT_EQ(0, DeleteAllYAXData("x", one.info));
        EXPECT_EQ(1, DeleteAYAXData("x", one.info, 0, nullptr));
    });
    EXPECT_EQ(Layout{{kOnly}}.bytes(), one.now());
}

Edit multi(std::vector<uint32_t> idx, uint32_t n) {
    return [=](Target &t) mutable { return DeleteMultiYAXData(t.path.c_str(), t.info, idx.data(), n); };
}
Edit fastOne(uint32_t index, VonoInfo *v = nullptr, int no_pad = 0) {
    return [=](Target &t) { return FastDeleteAYAXData(t.info, index, v, no_pad); };
}
Edit fastAll(int (*all)(YaxInfo *)) {
    return [all](Target &t) { return all(t.info); };
}

TEST(DeleteMulti, EverySubsetOfFourEntriesAndTheRefusals) {
    Layout l{kThree, vonoEnd(1, 100, 200)};
    l.entries.push_back(Entry{9, "fourth", std::string(17, 'd'), "xy"});
    for (uint32_t mask = 1; mask < 16; ++mask) {
        SCOPED_TRACE(mask);
        std::vector<uint32_t> idx;  // listed backwards: the order does not matter
        for (uint32_t i = 4; i-- > 0;)
            if (mask & (1u << i)) idx.push_back(i);
        // all of them is a delete-all, which keeps the end record (count 0);
        // otherwise the end record is dropped
        expectEdit(Rewrite, l, multi(idx, uint32_t(idx.size())),
                   kImage + (mask == 15 ? vonoEnd(0, 100, 200) : tb::trailer(without(l.entries, idx))));
    }
    // A name that was not found arrives as all ones; with as many indices as
    // rows it must not become a delete of everything.
    const std::string tag = "YAXEncoder::DeleteMultiYAXData";
    expectEdit(Rewrite, l, multi({0, 1, 0xFFFFFFFFu, 2}, 4), l.bytes(), 0,
               tu::errLine(tag, "index 4294967295 is out of range"));
    expectEdit(Rewrite, l, multi({2, 0, 2, 1}, 4), l.bytes(), 0, tu::errLine(tag, "index 2 is listed twice"));
}

// Fast deletes keep the length (except for an end record written again) and
// the caller's stream; the freed bytes become the filler in row 0.
TEST(FastDelete, LayoutsAfterTheDelete) {
    const Layout end{kThree, vonoEnd(1, 100, 200)}, only{{kOnly}, end.vono};
    const Layout old{without(kThree, {}, 48)}, oldEnd{old.entries, end.vono};
    const auto len = [](uint32_t i) { return tb::blockLength(kThree[i]); };
    const auto whole = [](const Layout &l) {
        return tb::trailer({filler(uint32_t(l.bytes().size() - kImage.size()) - 32)});
    };
    const Bytes before = old.bytes();
    Vono v(100, 200, 1);
    struct Case { Layout in; Edit run; Bytes want; };
    const std::vector<Case> cases = {
        // the first fast delete puts the filler in front
        {Layout{}, fastOne(1), kImage + tb::trailer(without(kThree, {1}, len(1)))},
        // an old filler is absorbed and the new one grows by the dropped row;
        // the end record is written as the caller's record holds it
        {oldEnd, fastOne(2, &v.v), kImage + tb::trailer(without(kThree, {1}, 48 + len(1) + 12)) + end.vono},
        // no pad: the old last row's bytes stay behind, for the caller to cut
        {old, fastOne(3, nullptr, 1),
         kImage + tb::trailer(without(kThree, {2}, 48 + len(2))) + Bytes(before.end() - 12, before.end())},
        // delete-all: the whole region is one filler trailer; the YAX flavour
        // writes the end record again behind it, and so does the only entry
        {end, fastAll(FastDeleteAllData), kImage + whole(end)},
        {end, fastAll(FastDeleteAllYAXData), kImage + whole(end) + end.vono},
        {only, fastOne(0), kImage + whole(only) + end.vono},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        expectEdit(InPlace, cases[i].in, cases[i].run, cases[i].want);
    }
}

// A block shorter than the filler's 20-byte head (the smallest: 1-byte name,
// 1-byte payload) cannot become filler: it alone is cut out in place, and a
// filler already there takes it in instead.
TEST(FastDelete, RefusalsAndBlocksUnderTwentyBytes) {
    const std::string tag = "FastDeleteAYAXData";
    const Entry small{2, "s", "t", ""}, nine{2, "n", "123456789", ""};
    const Layout tight{{kThree[0], small, kThree[2]}}, alone{{small}}, last{{kOnly, nine}};
    expectEdit(InPlace, {}, [](Target &t) { return t.info->file_size = 0, fastOne(0)(t); }, Layout{}.bytes(),
               0, tu::errLine(tag, "YAX_info->fp, YAX_info->file_size null"));
    expectEdit(InPlace, tight, fastOne(1), Layout{without(tight.entries, {1})}.bytes(), 1, "");
    expectEdit(InPlace, last, fastOne(1), Layout{{kOnly}}.bytes(), 1, "");
    for (auto all : {FastDeleteAllData, FastDeleteAllYAXData})
        expectEdit(InPlace, alone, fastAll(all), kImage, 1, "");
    const Layout merged{{filler(20), small, kOnly}};
    expectEdit(InPlace, merged, fastOne(1), Layout{{filler(20 + 10 + 12), kOnly}}.bytes(), 1, "");
}

TEST(DeleteBeyondFourGiB, FastInPlaceAndTooLargeForMemory) {
    constexpr int64_t kHost = int64_t{5} << 30;
    const Layout l{kThree, vonoEnd(1, 70, 90)};
    const Bytes region = l.bytes();
    tu::TempDir dir;
    const std::string path = dir.path("big.jpg");
    bool sparse = true;
    // Runs `edit` on a fresh copy and gives the bytes from the host's end on.
    const auto run = [&](const std::function<void(YaxInfo *)> &edit) {
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        sparse = sparse && ::ftruncate64(fd, kHost) == 0 &&
                 ::pwrite64(fd, region.data(), region.size(), kHost) == ssize_t(region.size());
        if (!sparse) return ::close(fd), Bytes{};
        YaxInfo *info = makeInfo(l);
        info->file_size += kHost, info->data_start_position += kHost;
        info->fp = std::fopen(path.c_str(), "r+b");
        edit(info);
        DestroyYAX(info);
        Bytes b(size_t(::lseek64(fd, 0, SEEK_END) - kHost));
        EXPECT_EQ(ssize_t(b.size()), ::pread64(fd, b.data(), b.size(), kHost));
        return ::close(fd), b;
    };
    Vono v(70, 90, 0);
    const Bytes fast = run([&](YaxInfo *info) { EXPECT_EQ(1, FastDeleteAYAXData(info, 1, &v.v, 0)); });
    if (!sparse) GTEST_SKIP() << "no sparse files here";
    EXPECT_EQ(kImage + tb::trailer(without(kThree, {1}, tb::blockLength(kThree[1]))) + l.vono, fast);
    EXPECT_EQ(kImage + vonoEnd(0, 70, 90),
              run([](YaxInfo *i) { EXPECT_EQ(1, DeleteAllYAXDataFP(i->fp, i)); }));
    EXPECT_EQ(region, run([](YaxInfo *info) {
                  if (uint64_t{SIZE_MAX} >= static_cast<uint64_t>(info->file_size)) return;
                  EXPECT_EQ(
                      tu::errLine("YAXEncoder::DeleteAYAXDataFP", "file is too large to edit in memory"),
                      tu::capture([&] { EXPECT_EQ(0, DeleteAYAXDataFP(info->fp, info, 1, nullptr)); }));
              }));
}

}  // namespace
