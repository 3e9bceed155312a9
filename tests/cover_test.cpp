// Cover replacement against bytes computed here: the new cover, the filler
// and moved blocks where each case puts them, and the header rows each case
// writes; entries read back unchanged wherever the result keeps them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "builder.hpp"
#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace {

using tb::Bytes;
using tb::Entry;
using tb::Row;
using tb::operator+;
using tu::TempDir;
using tu::writeFile;
using tu::readFile;

constexpr uint32_t kFillerMeta = 0x7FFEu << 16;

Bytes cover(size_t n, uint8_t fill) {
    Bytes b = tb::fakeImage(n);
    for (size_t i = 2; i + 2 < n; ++i) b[i] = fill;
    return b;
}

Bytes blocks(const std::vector<Entry> &es) {
    Bytes out;
    for (const Entry &e : es) out = out + tb::block(e);
    return out;
}

// A row for entry e whose block starts `back` bytes before the header.
Row row(const Entry &e, uint32_t back) { return {e.metaType(), back, tb::blockLength(e)}; }

// A filler of `f` bytes, then the blocks in this order, then their header.
// A filler under 20 bytes still gets its whole 20-byte head, which runs into
// the `in_place` blocks behind it (the moved ones are written after it).
Bytes fillerFirst(uint32_t f, const std::vector<Entry> &order, size_t in_place = 0) {
    uint32_t at = f;
    for (const Entry &e : order) at += tb::blockLength(e);
    std::vector<Row> rows{{0x7FFEu << 16, at, f}};
    Bytes out = f >= 20 ? tb::fillerBlock(f) : Bytes(f, 0);
    at -= f;
    for (const Entry &e : order) {
        rows.push_back(row(e, at));
        at -= tb::blockLength(e);
        out = out + tb::block(e);
    }
    out = out + tb::header(rows);
    if (f < 20) {
        uint32_t reach = f;
        for (size_t i = 0; i < in_place; ++i) reach += tb::blockLength(order[i]);
        const Bytes head = tb::fillerBlock(20);
        std::copy(head.begin(), head.begin() + std::min<uint32_t>(20, reach), out.begin());
    }
    return out;
}

void expectEntries(const std::string &path, const std::vector<Entry> &es) {
    YAXDATA *h = checkYAXInFile(path.c_str());
    ASSERT_NE(h, nullptr);
    for (const Entry &e : es) {
        YAXDATA_UNIT *u = extractYAXDataFromFilebyName(h, e.name.c_str(), static_cast<uint32_t>(e.name.size()));
        ASSERT_NE(u, nullptr) << e.name;
        EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), u->data_length), e.payload);
        destroyYAXDATA_UNIT(u);
    }
    destroyYAXDATA(h);
}

// e0 is the smallest readable block (1-byte name, 1-byte payload, 10 bytes).
const Entry e0{1, "a", "z", ""};
const Entry e1{2, "bb", std::string(30, 'x'), "s"};
const Entry e2{3, "c", "y", ""};
const uint32_t L0 = tb::blockLength(e0), L1 = tb::blockLength(e1), L2 = tb::blockLength(e2);
const uint32_t ALL = L0 + L1 + L2;
const uint32_t C = 200;

TEST(Cover, WithoutFillerEveryLengthClass) {
    struct Case {
        const char *what;
        int64_t delta;  // new cover length minus C
        bool keeps;
        Bytes (*expect)(const Bytes &cv, uint32_t D);
    };
    const std::vector<Entry> es{e0, e1, e2};
    // case 4: the overhang D ends inside block 0, or inside block 1 (exactly
    // on block 0's end, too): a filler of S - D, the untouched blocks in
    // place, the overrun ones where the header was
    const auto case4 = [](const Bytes &cv, uint32_t D) {
        return D < L0 ? cv + fillerFirst(L0 - D, {e1, e2, e0}, 2)
                      : cv + fillerFirst(L0 + L1 - D, {e2, e0, e1}, 1);
    };
    const Case cases[] = {
        {"same", 0, true, [](const Bytes &cv, uint32_t) { return cv + tb::trailer({e0, e1, e2}); }},
        {"shorter by 100", -100, true,
         [](const Bytes &cv, uint32_t) {
             return cv + tb::fillerBlock(100) + blocks({e0, e1, e2}) +
                    tb::header({{kFillerMeta, ALL + 100, 100}, row(e0, ALL), row(e1, ALL - L0),
                                row(e2, L2)});
         }},
        {"longer than the file", 500, true,
         [](const Bytes &cv, uint32_t) { return cv + tb::trailer({e0, e1, e2}); }},
        // a filler under 20 bytes: its head runs into the next block, whose
        // entry is lost (the library's result, kept)
        {"overhang inside block 0", 3, false, nullptr},
        {"overhang on block 0's end", L0, true, nullptr},
        {"overhang just after block 0", L0 + 1, true, nullptr},
        {"overhang inside block 1", L0 + 5, true, nullptr},
        {"overhang one short of block 1's end", L0 + L1 - 1, false, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const std::string p = dir.path("f.jpg");
        writeFile(p, cover(C, 0x11) + tb::trailer(es));
        const Bytes cv = cover(static_cast<size_t>(C + c.delta), 0x22);
        EXPECT_GT(FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
        const uint32_t D = c.delta > 0 ? static_cast<uint32_t>(c.delta) : 0;
        EXPECT_EQ(readFile(p), c.expect ? c.expect(cv, D) : case4(cv, D));
        if (c.keeps) expectEntries(p, es);
    }
}

TEST(Cover, WithFillerSwallowsAndMoves) {
    const uint32_t F = 40;
    const std::vector<Entry> es{e1, e2};
    const Bytes file = cover(C, 0x11) + tb::fillerBlock(F) + blocks(es) +
                       tb::header({{kFillerMeta, F + L1 + L2, F}, row(e1, L1 + L2), row(e2, L2)});
    struct Case {
        const char *what;
        int64_t delta;
        Bytes (*expect)(const Bytes &cv, uint32_t F);
    };
    const Case cases[] = {
        // the same filler grows by the gap; no row is added
        {"shorter by 100", -100,
         [](const Bytes &cv, uint32_t F) {
             return cv + tb::fillerBlock(F + 100) + blocks({e1, e2}) +
                    tb::header({{kFillerMeta, F + L1 + L2 + 100, F + 100}, row(e1, L1 + L2),
                                row(e2, L2)});
         }},
        // case 2: the overhang only shortens the filler
        {"overhang inside the filler", 10,
         [](const Bytes &cv, uint32_t F) {
             return cv + tb::fillerBlock(F - 10) + blocks({e1, e2}) +
                    tb::header({{kFillerMeta, F + L1 + L2 - 10, F - 10}, row(e1, L1 + L2),
                                row(e2, L2)});
         }},
        // case 6 from the filler's end on: block 1 moves behind block 2
        {"overhang on the filler's end", 40,
         [](const Bytes &cv, uint32_t F) { return cv + fillerFirst(F + L1 - 40, {e2, e1}, 1); }},
        {"overhang just after the filler", 41,
         [](const Bytes &cv, uint32_t F) { return cv + fillerFirst(F + L1 - 41, {e2, e1}, 1); }},
        // case 6: the overhang ends inside block 1 (k = 1): block 1 moves
        // behind block 2 and the filler row counts the moved block
        {"overhang inside block 1", 45,
         [](const Bytes &cv, uint32_t F) {
             const uint32_t S = F + L1, D = 45;
             return cv + tb::fillerBlock(S - D) + tb::block(e2) + tb::block(e1) +
                    tb::header({{kFillerMeta, F + L1 + L2 - D + L1, S - D}, row(e2, L2 + L1),
                                row(e1, L1 + L2 - L2)});
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const std::string p = dir.path("f.jpg");
        writeFile(p, file);
        const Bytes cv = cover(static_cast<size_t>(C + c.delta), 0x22);
        EXPECT_GT(FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
        EXPECT_EQ(readFile(p), c.expect(cv, F));
        expectEntries(p, es);
    }
}

// Overhangs that reach the header: the library's own results, kept. Exactly
// every block (case 3) writes the cover a second time where the header was;
// past every block (case 1) leaves a header of count 0 behind the cover with
// the parsed rows 1.. and the last of them repeated. Both lose the entries.
TEST(Cover, OverhangOverEveryBlockKeepsTheLibrarysResult) {
    const std::vector<Entry> es{e0, e1, e2};
    TempDir dir;
    const std::string p = dir.path("f.jpg");
    writeFile(p, cover(C, 0x11) + tb::trailer(es));
    Bytes cv = cover(C + ALL, 0x22);
    EXPECT_GT(FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
    EXPECT_EQ(readFile(p), cv + cv + tb::header({row(e1, ALL), row(e2, L2 + L0), row(e0, L0)}));

    writeFile(p, cover(C, 0x11) + tb::trailer(es));
    cv = cover(C + ALL + 4, 0x33);
    EXPECT_GT(FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
    tb::Builder w;
    w.str("YAXH").u32(105).u32(0);
    for (const Row &r : {row(e1, ALL - L0), row(e2, L2), row(e2, L2)})
        w.u32(r.meta_type).u32(r.offset).u32(r.length);
    w.u32(12).str("YAXT");
    EXPECT_EQ(readFile(p), cv + w.done());
}

// The big copy's header writer on its own, for every case number with the
// second block as the last overwritten one (k = 1). Case 5 needs an overhang
// that ends exactly on a block's end before the rows run out, which the
// move's search never stops at; only a direct call reaches it.
TEST(Cover, BigCopyHeaderRowsForEveryCase) {
    const std::vector<Entry> es{e0, e1, e2};
    const Row r0 = row(e0, ALL), r1 = row(e1, ALL - L0), r2 = row(e2, L2);
    auto moved = [](Row r, int64_t by) { return r.offset = static_cast<uint32_t>(r.offset + by), r; };
    const Row filler{kFillerMeta, 40, 7};
    const struct {
        uint32_t which, count;
        std::vector<Row> rows;
    } cases[] = {
        {1, 0, {r1, r2, r2}},  // the last row once more
        {2, 3, {filler, r1, r2}},
        {3, 3, {moved(r2, L0 + L1), moved(r0, -int64_t(L2)), moved(r1, -int64_t(L2))}},
        {4, 4, {filler, moved(r2, L0 + L1), moved(r0, -int64_t(L2)), moved(r1, -int64_t(L2))}},
        {5, 2, {r2, r1}},
        {6, 3, {moved(filler, L1), moved(r2, L1), moved(r1, -int64_t(L2))}},
        {7, 1, {}},  // no such case: no rows
    };
    TempDir dir;
    const std::string p = dir.path("f.jpg");
    writeFile(p, cover(C, 0x11) + tb::trailer(es));
    YAXDATA *h = checkYAXInFile(p.c_str());
    ASSERT_NE(h, nullptr);
    FILE *own = h->yax_info->fp;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.which);
        FILE *out = std::tmpfile();
        ASSERT_NE(out, nullptr);
        h->yax_info->fp = out;
        EXPECT_EQ(FastCBigCopyHeaderUpdate(h->yax_info, c.count, filler.offset, filler.length, c.which, 1), 1);
        std::fflush(out);
        std::rewind(out);
        Bytes got(4096);
        got.resize(std::fread(got.data(), 1, got.size(), out));
        std::fclose(out);
        Bytes want = tb::header(c.rows, 105, c.count);
        // the header size counts the rows the count gives
        const uint32_t size = 12 + 12 * c.count;
        for (int i = 0; i < 4; ++i) want[want.size() - 8 + i] = static_cast<uint8_t>(size >> (8 * i));
        EXPECT_EQ(got, want);
    }
    h->yax_info->fp = own;
    destroyYAXDATA(h);
}

// Tables whose rows lie about where the blocks are: the move would copy and
// renumber blocks that are not there, so nothing is written.
TEST(Cover, RefusesTablesWhoseRowsLie) {
    const struct {
        const char *what;
        uint32_t pad;  // bytes between the two blocks
        std::vector<Row> rows;
        const char *msg;
    } cases[] = {
        {"gap between blocks", 3, {row(e0, L0 + L1 + 3), row(e1, L1)},
         "the blocks of the entry table are not back to back"},
        {"overlapping blocks", 0, {row(e0, L0 + L1), row(e1, L1 + 1)},
         "the blocks of the entry table are not back to back"},
        {"last block short of the header", 0, {row(e0, L0 + L1), {e1.metaType(), L1, L1 - 1}},
         "the blocks of the entry table are not back to back"},
        {"block into the header", 0, {row(e0, L0 + L1), {e1.metaType(), L1, L1 + 1}},
         "a block of the entry table runs into the header"},
    };
    for (int safe : {0, 1}) {
        yaxSetSafeEdit(safe);
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(c.what) + (safe ? " safe" : ""));
            TempDir dir;
            const std::string p = dir.path("f.jpg");
            const Bytes file = cover(C, 0x11) + tb::block(e0) + Bytes(c.pad, 0x5A) + tb::block(e1) +
                               tb::header(c.rows);
            writeFile(p, file);
            const Bytes cv = cover(C + 20, 0x22);
            int r = -1;
            const std::string printed = tu::capture(
                [&] { r = FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())); });
            EXPECT_EQ(r, 0);
            EXPECT_NE(printed.find(tu::errLine("YAXAPIs::FastChangeOrgData", c.msg)), std::string::npos)
                << printed;
            EXPECT_EQ(readFile(p), file);
        }
    }
    yaxSetSafeEdit(0);
}

// In the safe mode a cover change gives the same bytes and leaves no undo
// file behind.
TEST(Cover, SafeModeSameBytesNoUndoLeft) {
    const std::vector<Entry> es{e0, e1, e2};
    for (int64_t delta : {int64_t{0}, int64_t{-100}, int64_t{L0 + 5}, int64_t{500}}) {
        SCOPED_TRACE(delta);
        TempDir dir;
        const std::string a = dir.path("a.jpg"), b = dir.path("b.jpg");
        writeFile(a, cover(C, 0x11) + tb::trailer(es));
        writeFile(b, readFile(a));
        const Bytes cv = cover(static_cast<size_t>(C + delta), 0x22);
        EXPECT_GT(FastChangeCoverData(a.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
        yaxSetSafeEdit(1);
        EXPECT_GT(FastChangeCoverData(b.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
        yaxSetSafeEdit(0);
        EXPECT_EQ(readFile(b), readFile(a));
        EXPECT_FALSE(tu::exists(dir.path(".b.jpg.yaxundo")));
        expectEntries(b, es);
    }
}

// A real image re-encoded smaller and larger goes in front of the entries:
// the decoder gives the new image's pixels and every entry reads back.
TEST(Cover, DecodesToTheNewImagesPixels) {
    if (access("/usr/bin/djpeg", X_OK) != 0 || access("/usr/bin/cjpeg", X_OK) != 0)
        GTEST_SKIP() << "no decoder";
    TempDir dir;
    const std::string sample = std::string(YAX_TEST_DATA) + "/sample.jpg";
    const auto run = [](const std::string &cmd) { return std::system((cmd + " 2>/dev/null").c_str()); };
    const auto pixels = [&](const std::string &jpg) {
        const std::string ppm = jpg + ".ppm";
        EXPECT_EQ(run("/usr/bin/djpeg -outfile '" + ppm + "' '" + jpg + "'"), 0) << jpg;
        return readFile(ppm);
    };
    const std::vector<Entry> es{e0, e1, e2};
    for (const char *quality : {"50 -optimize", "100"}) {
        SCOPED_TRACE(quality);
        const std::string img = dir.path(std::string("q") + quality[0] + ".jpg"), p = dir.path("f.jpg");
        ASSERT_EQ(run("/usr/bin/djpeg '" + sample + "' | /usr/bin/cjpeg -quality " + quality +
                      " -outfile '" + img + "'"), 0);
        writeFile(p, readFile(sample) + tb::trailer(es));
        const Bytes cv = readFile(img);
        ASSERT_NE(cv.size(), readFile(sample).size());
        EXPECT_GT(FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())), 0);
        EXPECT_EQ(pixels(p), pixels(img));
        expectEntries(p, es);
    }
}

// Mixed edits around cover changes: every entry left reads back after each
// step, and deleting everything at the end leaves exactly the last cover.
TEST(Cover, MixedEditsAroundCoverChanges) {
    TempDir dir;
    const std::string p = dir.path("f.jpg");
    writeFile(p, cover(C, 0x11) + tb::trailer({e0, e1}));
    const auto save = [&](const Entry &e, bool fast) {
        auto fn = fast ? saveFastYAXDataToFile : saveYAXDataToFile;
        return fn(p.c_str(), e.name.c_str(), static_cast<uint32_t>(e.name.size()), e.sub.data(),
                  static_cast<uint32_t>(e.sub.size()), e.payload.data(),
                  static_cast<uint32_t>(e.payload.size()), e.type, 0);
    };
    Bytes cv;
    const auto change = [&](size_t n, uint8_t fill) {
        cv = cover(n, fill);
        return FastChangeCoverData(p.c_str(), cv.data(), static_cast<uint32_t>(cv.size())) > 0 ? 1 : 0;
    };
    const struct {
        const char *what;
        std::function<int()> step;
        std::vector<Entry> left;
    } steps[] = {
        {"add", [&] { return save(e2, false); }, {e0, e1, e2}},
        {"fast delete", [&] { return deleteFastAYAXData(p.c_str(), e0.name.c_str()); }, {e1, e2}},
        {"shorter cover", [&] { return change(C - 60, 0x22); }, {e1, e2}},
        {"fast save", [&] { return save(e0, true); }, {e1, e2, e0}},
        {"longer cover", [&] { return change(C - 60 + 30, 0x33); }, {e1, e2, e0}},
        {"delete", [&] {
             YAXDATA *h = checkYAXInFile(p.c_str());
             const int r = h ? deleteYAXDataFromFilebyName(&h, "bb", 2) : 0;
             if (h != nullptr) destroyYAXDATA(h);
             return r;
         }, {e2, e0}},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.what);
        EXPECT_EQ(s.step(), 1);
        expectEntries(p, s.left);
    }
    EXPECT_EQ(deleteAllDataFromFile(p.c_str()), 1);
    EXPECT_EQ(readFile(p), cv);
}

TEST(Cover, RefusesFilesWithoutTrailer) {
    TempDir dir;
    const std::string p = dir.path("f.jpg");
    const Bytes plain = cover(C, 0x11);
    writeFile(p, plain);
    const Bytes cv = cover(C, 0x22);
    EXPECT_EQ(FastChangeCoverData(p.c_str(), cv.data(), C), 0);
    EXPECT_EQ(readFile(p), plain);
}

}  // namespace
