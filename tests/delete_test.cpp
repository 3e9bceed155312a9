// Deleting entries: rewriting, in-place and fast deletes, on files and buffer
// streams. Inputs and expected bytes come from the independent builder; the
// parsed records are made by hand from the same numbers, so these tests do
// not lean on the parser.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "builder.hpp"
#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace {

using tb::Bytes;
using tb::Entry;
using tb::operator+;

constexpr uint32_t kFiller = 0x7FFE;

Entry filler(uint32_t size) { return Entry{kFiller, "Invalid_Data", std::string(size - 20, '\0'), ""}; }

// The legacy end record written behind a trailer: always one pair and a
// header size of 20, whatever the count says.
Bytes vonoEnd(uint32_t count, uint32_t start, uint32_t end) {
    return tb::Builder().str("VONO").u32(105).u32(count).u32(start).u32(end).u32(20).str("VONOBS").done();
}

// A host file with a trailer and, optionally, an MP4 box head and a legacy
// end record.
struct Layout {
    Bytes image = tb::fakeImage(300);
    std::vector<Entry> entries;
    Bytes vono;  // end record behind the tail, or empty
    bool mp4 = false;

    Bytes box() const {
        if (!mp4) return {};
        uint32_t size = 8 + static_cast<uint32_t>(tb::trailer(entries).size());
        return tb::Builder().u32be(size).str("yaxd").done();
    }
    Bytes bytes() const { return image + box() + tb::trailer(entries) + vono; }
};

std::vector<Entry> without(std::vector<Entry> v, const std::vector<uint32_t> &gone) {
    std::vector<Entry> out;
    for (uint32_t i = 0; i < v.size(); ++i) {
        bool drop = false;
        for (uint32_t g : gone) drop = drop || g == i;
        if (!drop) out.push_back(v[i]);
    }
    return out;
}

std::vector<Entry> threeEntries() {
    return {Entry{1, "first", std::string(40, 'a'), ""},
            Entry{7, "second", std::string(25, 'b'), "sub-info"},
            Entry{3, "third", std::string(33, 'c'), ""}};
}

// A parsed record made from the layout's own numbers.
YaxInfo *makeInfo(const Layout &l) {
    auto rows = tb::rowsFor(l.entries);
    auto *info = static_cast<YaxInfo *>(_qcalloc(1, sizeof(YaxInfo)));
    info->valid = 1;
    info->file_size = static_cast<int64_t>(l.bytes().size());
    info->header_offset = 12 + 12 * static_cast<uint32_t>(rows.size()) + 8 +
                          static_cast<uint32_t>(l.vono.size());
    info->version = 105;
    info->meta_count = static_cast<uint32_t>(rows.size());
    info->meta_data = static_cast<YaxEntry **>(_qcalloc(rows.size(), sizeof(YaxEntry *)));
    for (size_t i = 0; i < rows.size(); ++i) {
        auto *e = static_cast<YaxEntry *>(_qcalloc(1, sizeof(YaxEntry)));
        e->offset = rows[i].offset;
        e->length = rows[i].length;
        e->meta_type = rows[i].meta_type;
        e->has_sub_info = (rows[i].meta_type >> 15) & 1;
        info->meta_data[i] = e;
    }
    info->data_start_position = info->file_size - info->header_offset - rows[0].offset -
                                (l.mp4 ? 8 : 0);
    return info;
}

void freeInfo(YaxInfo *info) {
    for (uint32_t i = 0; i < info->meta_count; ++i) _qfree(info->meta_data[i]);
    _qfree(info->meta_data);
    _qfree(info);
}

// A legacy record as a caller hands it in.
VonoInfo *makeVono(uint32_t start, uint32_t end, uint32_t moved) {
    auto *v = static_cast<VonoInfo *>(_qcalloc(1, sizeof(VonoInfo)));
    v->valid = 1;
    v->count = 1;
    v->header_size = 20;
    v->block_length = 30;
    v->sound_moved = moved;
    v->offsets = static_cast<uint32_t *>(_qcalloc(2, sizeof(uint32_t)));
    v->offsets[0] = start;
    v->offsets[1] = end;
    return v;
}

// One file on disk, its stream and its hand-made record.
struct OnDisk {
    tu::TempDir dir;
    std::string path;
    YaxInfo *info = nullptr;

    explicit OnDisk(const Layout &l, const std::string &name = "photo.jpg") : path(dir.path(name)) {
        tu::writeFile(path, l.bytes());
        info = makeInfo(l);
        info->fp = std::fopen(path.c_str(), "r+b");
    }
    ~OnDisk() {
        if (info->fp != nullptr) std::fclose(info->fp);
        freeInfo(info);
    }
    Bytes now() const { return tu::readFile(path); }
};

// The same in a buffer stream with room to spare.
struct InBuffer {
    YAXBUFFER *h;
    YaxInfo *info;

    explicit InBuffer(const Layout &l) {
        Bytes b = l.bytes();
        h = _qbopen(static_cast<uint32_t>(b.size() + 64));
        _qbwrite(b.data(), static_cast<uint32_t>(b.size()), h);
        info = makeInfo(l);
        info->handle = h;
    }
    ~InBuffer() {
        freeInfo(info);
        _qbclose(h);
    }
    Bytes now() const { return Bytes(h->buffer, h->buffer + h->write_size); }
};

// ---------------------------------------------------------------------------
// Removing one entry: every flavour gives the same bytes.

enum class Flavour { Rewrite, InPlace, Buffer };

class DeleteOne : public ::testing::TestWithParam<Flavour> {
protected:
    // Runs the flavour's single delete and returns the result bytes.
    Bytes run(const Layout &l, uint32_t index, VonoInfo *vono, int *result) {
        if (GetParam() == Flavour::Buffer) {
            InBuffer b(l);
            *result = DeleteAYAXDataBuffer(b.h, b.info, index, vono);
            return b.now();
        }
        OnDisk d(l);
        if (GetParam() == Flavour::Rewrite) {
            *result = DeleteAYAXData(d.path.c_str(), d.info, index, vono);
            EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, d.dir.list());
        } else {
            FILE *fp = d.info->fp;
            *result = DeleteAYAXDataFP(fp, d.info, index, vono);
            EXPECT_EQ(fp, d.info->fp);
        }
        return d.now();
    }
};

TEST_P(DeleteOne, FirstMiddleAndLastEntry) {
    Layout l;
    l.entries = threeEntries();
    for (uint32_t index = 0; index < 3; ++index) {
        SCOPED_TRACE(index);
        int r = 0;
        Bytes got = run(l, index, nullptr, &r);
        EXPECT_EQ(1, r);
        Layout want = l;
        want.entries = without(l.entries, {index});
        EXPECT_EQ(want.bytes(), got);
    }
}

TEST_P(DeleteOne, EndRecordPulledBackOnlyWhenTheSoundMoved) {
    Layout l;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 1000, 1500);
    const uint32_t gone = tb::blockLength(l.entries[1]);
    for (uint32_t moved = 0; moved < 2; ++moved) {
        SCOPED_TRACE(moved);
        VonoInfo *v = makeVono(1000, 1500, moved);
        int r = 0;
        Bytes got = run(l, 1, v, &r);
        EXPECT_EQ(1, r);
        Layout want = l;
        want.entries = without(l.entries, {1});
        want.vono = moved ? vonoEnd(1, 1000 - gone, 1500 - gone) : vonoEnd(1, 1000, 1500);
        EXPECT_EQ(want.bytes(), got);
        _destroyVONODATA(v);
    }
}

TEST_P(DeleteOne, WithoutARecordTheEndRecordIsDropped) {
    Layout l;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 1000, 1500);
    int r = 0;
    Bytes got = run(l, 2, nullptr, &r);
    Layout want = l;
    want.entries = without(l.entries, {2});
    want.vono.clear();
    EXPECT_EQ(want.bytes(), got);
}

TEST_P(DeleteOne, Mp4BoxHeadIsKeptWithItsOldSize) {
    Layout l;
    l.mp4 = true;
    l.entries = threeEntries();
    Bytes box = l.box();
    int r = 0;
    Bytes got = run(l, 0, nullptr, &r);
    EXPECT_EQ(1, r);
    EXPECT_EQ(l.image + box + tb::trailer(without(l.entries, {0})), got);
}

TEST_P(DeleteOne, MalformedTablesFailCleanlyAndChangeNothing) {
    Layout l;
    l.entries = threeEntries();
    const Bytes before = l.bytes();
    // Each case damages the hand-made record the way a bad file would.
    std::vector<std::pair<const char *, void (*)(YaxInfo *)>> cases = {
        {"length past the header", [](YaxInfo *i) { i->meta_data[2]->length = 0xFFFFFF00u; }},
        {"lengths wrap in 32 bits",
         [](YaxInfo *i) {
             i->meta_data[1]->length = 0x80000000u;
             i->meta_data[2]->length = 0x80000000u;
         }},
        {"first block before the file", [](YaxInfo *i) { i->meta_data[0]->offset = 0xFFFFFFF0u; }},
        {"file shorter than parsed", [](YaxInfo *i) { i->file_size += int64_t(1) << 33; }},
        {"missing row", [](YaxInfo *i) {
             _qfree(i->meta_data[1]);
             i->meta_data[1] = nullptr;
         }},
    };
    for (auto &[what, damage] : cases) {
        SCOPED_TRACE(what);
        Bytes got;
        int r = -1;
        std::string log;
        if (GetParam() == Flavour::Buffer) {
            InBuffer b(l);
            damage(b.info);
            log = tu::capture([&] { r = DeleteAYAXDataBuffer(b.h, b.info, 1, nullptr); });
            got = b.now();
        } else {
            OnDisk d(l);
            damage(d.info);
            log = tu::capture([&] {
                r = GetParam() == Flavour::Rewrite
                        ? DeleteAYAXData(d.path.c_str(), d.info, 1, nullptr)
                        : DeleteAYAXDataFP(d.info->fp, d.info, 1, nullptr);
            });
            got = d.now();
            EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, d.dir.list());
        }
        EXPECT_EQ(0, r);
        EXPECT_EQ(before, got);
        EXPECT_NE(std::string::npos, log.find("the entry table does not fit the file"));
    }
}

INSTANTIATE_TEST_SUITE_P(Flavours, DeleteOne,
                         ::testing::Values(Flavour::Rewrite, Flavour::InPlace, Flavour::Buffer),
                         [](const auto &p) {
                             return p.param == Flavour::Rewrite   ? std::string("Rewrite")
                                    : p.param == Flavour::InPlace ? std::string("InPlace")
                                                                  : std::string("Buffer");
                         });

// ---------------------------------------------------------------------------
// The one-entry shortcut: a single delete of the only entry is a delete-all,
// which keeps the file's own end record with a count of 0 and ignores the
// record the caller passed.

TEST(DeleteShortcut, RewritingSingleDeleteOfTheOnlyEntry) {
    Layout l;
    l.entries = {Entry{5, "only", "payload bytes", ""}};
    l.vono = vonoEnd(1, 310, 320);
    OnDisk d(l);
    VonoInfo *v = makeVono(999, 1999, 1);
    EXPECT_EQ(1, DeleteAYAXData(d.path.c_str(), d.info, 0, v));
    EXPECT_EQ(l.image + vonoEnd(0, 310, 320), d.now());
    EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, d.dir.list());
    _destroyVONODATA(v);
}

TEST(DeleteShortcut, InPlaceSingleDeleteOfTheOnlyEntry) {
    Layout l;
    l.entries = {Entry{5, "only", "payload bytes", ""}};
    l.vono = vonoEnd(1, 310, 320);
    OnDisk d(l);
    FILE *fp = d.info->fp;
    VonoInfo *v = makeVono(999, 1999, 1);
    EXPECT_EQ(1, DeleteAYAXDataFP(fp, d.info, 0, v));
    EXPECT_EQ(fp, d.info->fp);
    EXPECT_EQ(l.image + vonoEnd(0, 310, 320), d.now());
    _destroyVONODATA(v);
}

TEST(DeleteShortcut, ReportsSuccessEvenWhenTheDeleteAllFails) {
    // A path without any dot gives no temporary name, so delete-all fails;
    // the single delete still reports 1.
    Layout l;
    l.entries = {Entry{5, "only", "payload bytes", ""}};
    OnDisk d(l);
    tu::capture([&] {
        EXPECT_EQ(0, DeleteAllYAXData("x", d.info));
        EXPECT_EQ(1, DeleteAYAXData("x", d.info, 0, nullptr));
    });
    EXPECT_EQ(l.bytes(), d.now());
}

TEST(DeleteShortcut, FastSingleDeleteOfTheOnlyEntryGrowsByTheEndRecord) {
    Layout l;
    l.entries = {Entry{5, "only", std::string(60, 'p'), ""}};
    l.vono = vonoEnd(1, 310, 320);
    OnDisk d(l);
    const uint32_t region = static_cast<uint32_t>(l.bytes().size() - l.image.size());
    EXPECT_EQ(1, FastDeleteAYAXData(d.info, 0, nullptr, 0));
    EXPECT_EQ(l.image + tb::trailer({filler(region - 32)}) + vonoEnd(1, 310, 320), d.now());
}

// ---------------------------------------------------------------------------
// Delete-all flavours.

TEST(DeleteAll, RewritingDropsEverythingButTheEndRecord) {
    Layout l;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 400, 470);
    OnDisk d(l);
    EXPECT_EQ(1, DeleteAllYAXData(d.path.c_str(), d.info));
    EXPECT_EQ(l.image + vonoEnd(0, 400, 470), d.now());
    EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, d.dir.list());
    // the record now reads the new file through a fresh stream
    ASSERT_NE(nullptr, d.info->fp);
    EXPECT_EQ(static_cast<int64_t>(l.image.size() + 30), _qlseek64(d.info->fp, 0, SEEK_END));
}

TEST(DeleteAll, DeleteAllDataDropsTheBoxHeadAndTheEndRecord) {
    Layout l;
    l.mp4 = true;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 400, 470);
    OnDisk d(l);
    EXPECT_EQ(1, DeleteAllData(d.path.c_str(), d.info));
    EXPECT_EQ(l.image, d.now());
    EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, d.dir.list());
}

TEST(DeleteAll, OtherDeleteAllsKeepTheBoxHead) {
    Layout l;
    l.mp4 = true;
    l.entries = threeEntries();
    const Bytes box = l.box();
    {
        OnDisk d(l);
        EXPECT_EQ(1, DeleteAllYAXData(d.path.c_str(), d.info));
        EXPECT_EQ(l.image + box, d.now());
    }
    {
        OnDisk d(l);
        EXPECT_EQ(1, DeleteAllYAXDataFP(d.info->fp, d.info));
        EXPECT_EQ(l.image + box, d.now());
    }
    {
        InBuffer b(l);
        EXPECT_EQ(1, DeleteAllYAXDataBuffer(b.h, b.info));
        EXPECT_EQ(l.image + box, b.now());
    }
}

TEST(DeleteAll, InPlaceKeepsTheStreamAndRewritesTheEndRecord) {
    Layout l;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 400, 470);
    OnDisk d(l);
    FILE *fp = d.info->fp;
    const int fd = fileno(fp);
    EXPECT_EQ(1, DeleteAllYAXDataFP(fp, d.info));
    EXPECT_EQ(fp, d.info->fp);
    EXPECT_EQ(fd, fileno(d.info->fp));
    EXPECT_NE(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(l.image + vonoEnd(0, 400, 470), d.now());
}

TEST(DeleteAll, BufferFindsNoEndRecordAndDropsIt) {
    // The legacy check never accepts a buffer stream, so nothing is kept.
    Layout l;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 400, 470);
    InBuffer b(l);
    tu::capture([&] { EXPECT_EQ(1, DeleteAllYAXDataBuffer(b.h, b.info)); });
    EXPECT_EQ(l.image, b.now());
}

TEST(DeleteAll, TemporaryFileThatCannotBeOpenedReportsSuccessAndChangesNothing) {
    Layout l;
    l.entries = threeEntries();
    OnDisk d(l);
    // The first free name is a link into a directory that does not exist:
    // it counts as free, and cannot be opened for writing.
    ASSERT_EQ(0, symlink(d.dir.path("missing/target").c_str(), d.dir.path("photo000.tmp").c_str()));
    FILE *fp = d.info->fp;
    EXPECT_EQ(1, DeleteAllData(d.path.c_str(), d.info));
    EXPECT_EQ(1, DeleteAllYAXData(d.path.c_str(), d.info));
    EXPECT_EQ(1, DeleteAYAXData(d.path.c_str(), d.info, 1, nullptr));
    uint32_t two[] = {0, 2};
    EXPECT_EQ(1, DeleteMultiYAXData(d.path.c_str(), d.info, two, 2));
    EXPECT_EQ(fp, d.info->fp);
    EXPECT_EQ(l.bytes(), d.now());
    // the rows in memory were not shifted either
    EXPECT_EQ(tb::rowsFor(l.entries)[0].offset, d.info->meta_data[0]->offset);
}

TEST(DeleteAll, TakesTheFreeTemporaryNameAndLeavesOthersAlone) {
    Layout l;
    l.entries = threeEntries();
    OnDisk d(l);
    const Bytes busy = tb::bytes("someone else's file");
    tu::writeFile(d.dir.path("photo000.tmp"), busy);
    EXPECT_EQ(1, DeleteAYAXData(d.path.c_str(), d.info, 1, nullptr));
    EXPECT_EQ((std::vector<std::string>{"photo.jpg", "photo000.tmp"}), d.dir.list());
    EXPECT_EQ(busy, tu::readFile(d.dir.path("photo000.tmp")));
    EXPECT_EQ(l.image + tb::trailer(without(l.entries, {1})), d.now());
}

// ---------------------------------------------------------------------------
// Several entries at once.

TEST(DeleteMulti, EverySubsetOfFourEntries) {
    Layout l;
    l.entries = threeEntries();
    l.entries.push_back(Entry{9, "fourth", std::string(17, 'd'), "xy"});
    l.vono = vonoEnd(1, 100, 200);
    for (uint32_t mask = 1; mask < 16; ++mask) {
        SCOPED_TRACE(mask);
        std::vector<uint32_t> idx;
        // listed out of order, to show the order does not matter
        for (int i = 3; i >= 0; --i)
            if (mask & (1u << i)) idx.push_back(static_cast<uint32_t>(i));
        OnDisk d(l);
        EXPECT_EQ(1, DeleteMultiYAXData(d.path.c_str(), d.info, idx.data(),
                                        static_cast<uint32_t>(idx.size())));
        Bytes want;
        if (mask == 15) {
            // all of them: a delete-all, which keeps the end record (count 0)
            want = l.image + vonoEnd(0, 100, 200);
        } else {
            // the multi delete drops the end record
            want = l.image + tb::trailer(without(l.entries, idx));
        }
        EXPECT_EQ(want, d.now());
        EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, d.dir.list());
    }
}

TEST(DeleteMulti, RefusesMissingRepeatedAndUnknownIndices) {
    Layout l;
    l.entries = threeEntries();
    OnDisk d(l);
    const std::string tag = "YAXEncoder::DeleteMultiYAXData";
    uint32_t some[] = {0, 1};
    EXPECT_EQ(0, DeleteMultiYAXData(d.path.c_str(), d.info, nullptr, 2));
    EXPECT_EQ(0, DeleteMultiYAXData(d.path.c_str(), d.info, some, 0));
    // A name that was not found arrives as all ones; with as many indices as
    // rows it must not become a delete of everything.
    uint32_t unknown[] = {0, 1, 0xFFFFFFFFu};
    EXPECT_EQ(tu::errLine(tag, "index 4294967295 is out of range"), tu::capture([&] {
                  EXPECT_EQ(0, DeleteMultiYAXData(d.path.c_str(), d.info, unknown, 3));
              }));
    uint32_t twice[] = {2, 0, 2};
    EXPECT_EQ(tu::errLine(tag, "index 2 is listed twice"), tu::capture([&] {
                  EXPECT_EQ(0, DeleteMultiYAXData(d.path.c_str(), d.info, twice, 3));
              }));
    EXPECT_EQ(l.bytes(), d.now());
}

// ---------------------------------------------------------------------------
// Fast deletes: the length never changes (except for a re-written end record).

TEST(FastDelete, OneEntryBecomesTheFillerInRowZero) {
    Layout l;
    l.entries = threeEntries();
    for (uint32_t index = 0; index < 3; ++index) {
        SCOPED_TRACE(index);
        OnDisk d(l);
        FILE *fp = d.info->fp;
        const int fd = fileno(fp);
        EXPECT_EQ(1, FastDeleteAYAXData(d.info, index, nullptr, 0));
        EXPECT_EQ(fp, d.info->fp);
        EXPECT_EQ(fd, fileno(d.info->fp));
        std::vector<Entry> want = {filler(tb::blockLength(l.entries[index]))};
        for (const Entry &e : without(l.entries, {index})) want.push_back(e);
        EXPECT_EQ(l.image + tb::trailer(want), d.now());
    }
}

TEST(FastDelete, AbsorbsAnOldFillerAndPadsByOneRow) {
    Layout l;
    l.entries = threeEntries();
    l.entries.insert(l.entries.begin(), filler(48));
    l.vono = vonoEnd(1, 100, 200);
    OnDisk d(l);
    VonoInfo *v = makeVono(100, 200, 1);
    EXPECT_EQ(1, FastDeleteAYAXData(d.info, 2, v, 0));
    const uint32_t merged = 48 + tb::blockLength(l.entries[2]) + 12;
    Layout want = l;
    want.entries = {filler(merged), l.entries[1], l.entries[3]};
    // the end record is written as the caller's record holds it
    EXPECT_EQ(want.bytes(), d.now());
    EXPECT_EQ(l.bytes().size(), d.now().size());
    _destroyVONODATA(v);
}

TEST(FastDelete, NoPadLeavesTheLastRowsWorthOfBytesBehind) {
    Layout l;
    l.entries = threeEntries();
    l.entries.insert(l.entries.begin(), filler(48));
    const Bytes before = l.bytes();
    OnDisk d(l);
    EXPECT_EQ(1, FastDeleteAYAXData(d.info, 3, nullptr, 1));
    const uint32_t merged = 48 + tb::blockLength(l.entries[3]);
    Bytes want = l.image + tb::trailer({filler(merged), l.entries[1], l.entries[2]});
    ASSERT_EQ(before.size() - 12, want.size());
    // the old last 12 bytes stay where they were, for the caller to cut
    want.insert(want.end(), before.end() - 12, before.end());
    EXPECT_EQ(want, d.now());
}

TEST(FastDelete, SecondFastDeleteMergesBothFillers) {
    Layout l;
    l.entries = threeEntries();
    OnDisk d(l);
    EXPECT_EQ(1, FastDeleteAYAXData(d.info, 1, nullptr, 0));
    // the next delete works on the file as it now stands
    Layout mid = l;
    mid.entries = {filler(tb::blockLength(l.entries[1])), l.entries[0], l.entries[2]};
    ASSERT_EQ(mid.bytes(), d.now());
    YaxInfo *again = makeInfo(mid);
    again->fp = d.info->fp;
    EXPECT_EQ(1, FastDeleteAYAXData(again, 2, nullptr, 0));
    const uint32_t merged = tb::blockLength(l.entries[1]) + tb::blockLength(l.entries[2]) + 12;
    EXPECT_EQ(l.image + tb::trailer({filler(merged), l.entries[0]}), d.now());
    EXPECT_EQ(l.bytes().size(), d.now().size());
    freeInfo(again);
}

TEST(FastDelete, AllDataKeepsTheLengthAndTheYaxFlavourGrowsByTheEndRecord) {
    Layout l;
    l.entries = threeEntries();
    l.vono = vonoEnd(1, 100, 200);
    const uint32_t region = static_cast<uint32_t>(l.bytes().size() - l.image.size());
    {
        OnDisk d(l);
        EXPECT_EQ(1, FastDeleteAllData(d.info));
        EXPECT_EQ(l.image + tb::trailer({filler(region - 32)}), d.now());
    }
    {
        OnDisk d(l);
        FILE *fp = d.info->fp;
        EXPECT_EQ(1, FastDeleteAllYAXData(d.info));
        EXPECT_EQ(fp, d.info->fp);
        EXPECT_EQ(l.image + tb::trailer({filler(region - 32)}) + vonoEnd(1, 100, 200), d.now());
    }
}

TEST(FastDelete, MessagesAndRefusals) {
    const std::string tag = "FastDeleteAYAXData";
    EXPECT_EQ(tu::errLine(tag, "YAX_info null"),
              tu::capture([] { EXPECT_EQ(0, FastDeleteAYAXData(nullptr, 0, nullptr, 0)); }));

    Layout l;
    l.entries = threeEntries();
    OnDisk d(l);
    FILE *fp = d.info->fp;
    d.info->fp = nullptr;
    EXPECT_EQ(tu::errLine(tag, "YAX_info->fp, YAX_info->file_size null"),
              tu::capture([&] { EXPECT_EQ(0, FastDeleteAYAXData(d.info, 0, nullptr, 0)); }));
    d.info->fp = fp;
    d.info->file_size = 0;
    EXPECT_EQ(tu::errLine(tag, "YAX_info->fp, YAX_info->file_size null"),
              tu::capture([&] { EXPECT_EQ(0, FastDeleteAYAXData(d.info, 0, nullptr, 0)); }));
    d.info->file_size = static_cast<int64_t>(l.bytes().size());
    EXPECT_EQ(tu::errLine(tag, "index <0, YAX_info->meta_count fail"),
              tu::capture([&] { EXPECT_EQ(0, FastDeleteAYAXData(d.info, 3, nullptr, 0)); }));
    EXPECT_EQ(l.bytes(), d.now());
}

TEST(FastDelete, TooSmallForAFillerFailsBeforeWriting) {
    // A block shorter than the filler's own head cannot become one.
    Layout l;
    l.entries = threeEntries();
    l.entries[1] = Entry{2, "s", "tiny", ""};  // 13 bytes
    OnDisk d(l);
    EXPECT_EQ(tu::errLine("FastDeleteAYAXData", "no room for the filler entry"),
              tu::capture([&] { EXPECT_EQ(0, FastDeleteAYAXData(d.info, 1, nullptr, 0)); }));
    EXPECT_EQ(l.bytes(), d.now());

    Layout one;
    one.entries = {Entry{2, "s", "tiny", ""}};
    OnDisk o(one);
    EXPECT_EQ(tu::errLine("YAXEncoder::FastDeleteAllData", "no room for the filler entry"),
              tu::capture([&] { EXPECT_EQ(0, FastDeleteAllData(o.info)); }));
    EXPECT_EQ(one.bytes(), o.now());
}

// ---------------------------------------------------------------------------
// Beyond 4 GiB: a sparse host with the trailer at its end. Positions are
// 64-bit throughout; an in-place delete that would need a scratch area larger
// than the address space refuses cleanly.

class BeyondFourGiB : public ::testing::Test {
protected:
    static constexpr int64_t kHost = (int64_t{5} << 30) + 3;
    tu::TempDir dir;
    std::string path = dir.path("big.jpg");
    Layout l;
    YaxInfo *info = nullptr;

    void SetUp() override {
        l.image.clear();
        l.entries = threeEntries();
        l.vono = vonoEnd(1, 70, 90);
        const Bytes tail = l.bytes();
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        const bool ok = ::ftruncate64(fd, kHost) == 0 &&
                        ::pwrite64(fd, tail.data(), tail.size(), kHost) ==
                            static_cast<ssize_t>(tail.size());
        ::close(fd);
        if (!ok) GTEST_SKIP() << "no sparse files here";
        info = makeInfo(l);
        info->file_size += kHost;
        info->data_start_position += kHost;
        info->fp = std::fopen(path.c_str(), "r+b");
    }
    void TearDown() override {
        if (info == nullptr) return;
        std::fclose(info->fp);
        freeInfo(info);
    }
    // Size of the file and the bytes from the host's end on.
    std::pair<int64_t, Bytes> tail() const {
        int fd = ::open(path.c_str(), O_RDONLY);
        const int64_t size = ::lseek64(fd, 0, SEEK_END);
        Bytes b(static_cast<size_t>(size - kHost));
        EXPECT_EQ(static_cast<ssize_t>(b.size()), ::pread64(fd, b.data(), b.size(), kHost));
        ::close(fd);
        return {size, b};
    }
};

TEST_F(BeyondFourGiB, FastDeleteRewritesTheTrailerInPlace) {
    VonoInfo *v = makeVono(70, 90, 0);
    EXPECT_EQ(1, FastDeleteAYAXData(info, 1, v, 0));
    auto [size, got] = tail();
    EXPECT_EQ(kHost + static_cast<int64_t>(l.bytes().size()), size);
    EXPECT_EQ(tb::trailer({filler(tb::blockLength(l.entries[1])), l.entries[0], l.entries[2]}) +
                  l.vono,
              got);
    _destroyVONODATA(v);
}

TEST_F(BeyondFourGiB, InPlaceDeleteAllCutsAtTheFirstBlock) {
    EXPECT_EQ(1, DeleteAllYAXDataFP(info->fp, info));
    auto [size, got] = tail();
    EXPECT_EQ(kHost + 30, size);
    EXPECT_EQ(vonoEnd(0, 70, 90), got);
}

TEST_F(BeyondFourGiB, InPlaceSingleDeleteNeedsTheWholeFileInMemory) {
    if (uint64_t{SIZE_MAX} >= static_cast<uint64_t>(info->file_size))
        GTEST_SKIP() << "the scratch area would fit this address space";
    EXPECT_EQ(tu::errLine("YAXEncoder::DeleteAYAXDataFP", "file is too large to edit in memory"),
              tu::capture([&] { EXPECT_EQ(0, DeleteAYAXDataFP(info->fp, info, 1, nullptr)); }));
    EXPECT_EQ(l.bytes(), tail().second);
}

// ---------------------------------------------------------------------------
// With the library's own parser: what a delete leaves parses again into the
// expected table.

TEST(DeleteRoundTrip, ParsedFileDeletedAndParsedAgain) {
    Layout l;
    l.entries = threeEntries();
    tu::TempDir dir;
    const std::string path = dir.path("photo.jpg");
    tu::writeFile(path, l.bytes());
    YaxInfo *info = ParseYAX(path.c_str(), getSignature(path.c_str()));
    ASSERT_NE(nullptr, info);
    ASSERT_EQ(1, getYAXList(info));
    EXPECT_EQ(1, DeleteAYAXData(path.c_str(), info, 0, nullptr));
    DestroyYAX(info);

    info = ParseYAX(path.c_str(), getSignature(path.c_str()));
    ASSERT_NE(nullptr, info);
    ASSERT_EQ(1, getYAXList(info));
    EXPECT_EQ(1, FastDeleteAYAXData(info, 1, nullptr, 0));
    DestroyYAX(info);

    info = ParseYAX(path.c_str(), getSignature(path.c_str()));
    ASSERT_NE(nullptr, info);
    ASSERT_EQ(1, getYAXList(info));
    auto want = tb::rowsFor({filler(tb::blockLength(l.entries[2])), l.entries[1]});
    ASSERT_EQ(2u, info->meta_count);
    for (uint32_t i = 0; i < 2; ++i) {
        EXPECT_EQ(want[i].offset, info->meta_data[i]->offset);
        EXPECT_EQ(want[i].length, info->meta_data[i]->length);
        EXPECT_EQ(want[i].meta_type, info->meta_data[i]->meta_type);
    }
    EXPECT_EQ(static_cast<int64_t>(l.image.size()), info->data_start_position);
    DestroyYAX(info);
}

}  // namespace
