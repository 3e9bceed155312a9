// Adds: the bytes each flavour leaves (path, FILE* and buffer alike), rows
// after an insert, the legacy block behind the new tail, the three places a
// fast add puts its block, the log lines of every refusal, how failed writes
// are noticed, the size check and temporary names.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "testutil.hpp"
#include "yax_container.h"
#include "yax_support.h"

using tb::Builder;
using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

const std::string kUserMsg = "if Data type is UserData then must use DataSubInfo";

const Bytes kImage = tb::fakeImage(4096);

// 60, 40 and 100 bytes: rows at offsets 100 and 40, then a new 100-byte block.
const Entry kA{1, "alpha", std::string(47, 'a'), ""};
const Entry kB{2, "b", std::string(31, 'b'), ""};
const Entry kNew{3, "new", std::string(89, 'n'), ""};
// A first entry with sub-information.
const Entry kCaption{7, "caption", "hello world", "meta"};

uint32_t size32(const Bytes &b) { return static_cast<uint32_t>(b.size()); }
const void *bytesOf(const std::string &s) { return s.empty() ? nullptr : s.data(); }

// A parsed trailer as the parser would leave it, built by hand.
struct HandInfo {
    YaxInfo info{};
    std::vector<YaxEntry> rows;
    std::vector<YaxEntry *> ptrs;
    HandInfo(const std::vector<tb::Row> &table, int64_t file_size, uint32_t after_tail = 0) {
        for (const tb::Row &r : table) {
            YaxEntry e{};
            e.meta_type = r.meta_type;
            e.offset = r.offset;
            e.length = r.length;
            e.has_sub_info = (r.meta_type & 0x8000) ? 1 : 0;
            rows.push_back(e);
        }
        for (YaxEntry &e : rows) ptrs.push_back(&e);
        info.valid = 1;
        info.version = 105;
        info.file_size = file_size;
        info.meta_count = static_cast<uint32_t>(rows.size());
        info.meta_data = ptrs.data();
        info.header_offset = 12 + 12 * info.meta_count + 8 + after_tail;
    }
    HandInfo(const HandInfo &) = delete;
};

// Runs `fn` on an "r+b" stream of a file holding `start`; returns the bytes after.
Bytes onFile(const Bytes &start, const std::function<void(FILE *)> &fn) {
    tu::TempDir dir;
    std::string path = dir.path("f.jpg");
    tu::writeFile(path, start);
    FILE *fp = _qfopen(path.c_str(), "r+b");
    EXPECT_NE(fp, nullptr);
    fn(fp);
    _qfclose(fp);
    return tu::readFile(path);
}

// Runs `fn` on a buffer stream of `capacity` holding `start`.
Bytes onBuffer(const Bytes &start, uint32_t capacity, const std::function<void(YAXBUFFER *)> &fn) {
    YAXBUFFER *h = _qbopen(capacity);
    EXPECT_NE(h, nullptr);
    if (!start.empty()) _qbwrite(start.data(), size32(start), h);
    fn(h);
    Bytes out(h->buffer, h->buffer + h->write_size);
    _qbclose(h);
    return out;
}

// Arguments of one add, taken from a builder entry.
struct Args {
    const Entry &e;
    const char *name() const { return e.name.c_str(); }
    uint32_t nameLen() const { return static_cast<uint32_t>(e.name.size()); }
    const void *sub() const { return bytesOf(e.sub); }
    uint32_t subLen() const { return static_cast<uint32_t>(e.sub.size()); }
    const void *data() const { return e.payload.data(); }
    uint32_t dataLen() const { return static_cast<uint32_t>(e.payload.size()); }
};

// Lowers the file size limit for the test's lifetime, so that writes past it
// fail with -1 as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &old_);
        old_handler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit lower = old_;
        lower.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lower);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, old_handler_);
    }

private:
    rlimit old_{};
    void (*old_handler_)(int) = nullptr;
};

// Each call is refused with 0 and exactly its one console line.
struct Refusal {
    std::function<int()> call;
    std::string line;
};
void expectRefusals(const std::vector<Refusal> &cases) {
    for (size_t i = 0; i < cases.size(); ++i) {
        int r = -1;
        EXPECT_EQ(tu::capture([&] { r = cases[i].call(); }), cases[i].line) << "case " << i;
        EXPECT_EQ(r, 0) << "case " << i;
    }
}

}  // namespace

// ---- first adds ----

TEST(FirstAdd, PathFpAndBufferWriteTheSameBlockAndOneRowHeader) {
    const Args a{kCaption};
    const Bytes want = kImage + tb::trailer({kCaption});
    tu::TempDir dir;
    std::string path = dir.path("p.jpg");
    tu::writeFile(path, kImage);
    EXPECT_EQ(AddYAXDataInFirstTime(path.c_str(), a.name(), a.nameLen(), 7, a.sub(), a.subLen(),
                                    a.data(), a.dataLen()),
              1);
    EXPECT_EQ(tu::readFile(path), want);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"p.jpg"});

    int r = 0;
    EXPECT_EQ(onFile(kImage,
                     [&](FILE *fp) {
                         r = AddYAXDataInFirstTimeFP(fp, a.name(), a.nameLen(), 7, a.sub(),
                                                     a.subLen(), a.data(), a.dataLen());
                     }),
              want);
    EXPECT_EQ(r, 1);
    EXPECT_EQ(onBuffer(kImage, 8192,
                       [&](YAXBUFFER *h) {
                           r = AddYAXDataInFirstTimeBuffer(h, a.name(), a.nameLen(), 7, a.sub(),
                                                           a.subLen(), a.data(), a.dataLen());
                       }),
              want);
    EXPECT_EQ(r, 1);

    // sub-information needs both bytes and a length
    const Bytes plain = kImage + tb::trailer({Entry{7, "caption", "hello world", ""}});
    EXPECT_EQ(onFile(kImage, [](FILE *fp) { AddYAXDataInFirstTimeFP(fp, "caption", 7, 7, "meta", 0, "hello world", 11); }),
              plain);
    EXPECT_EQ(onFile(kImage, [](FILE *fp) { AddYAXDataInFirstTimeFP(fp, "caption", 7, 7, nullptr, 9, "hello world", 11); }),
              plain);
}

TEST(FirstAdd, EmptyFileIsRefusedButAnEmptyBufferIsNot) {
    const Args a{kA};
    tu::TempDir dir;
    std::string path = dir.path("empty.jpg");
    tu::writeFile(path, {});
    int r = -1;
    std::string out = tu::capture([&] {
        r = AddYAXDataInFirstTime(path.c_str(), a.name(), a.nameLen(), 1, nullptr, 0, a.data(),
                                  a.dataLen());
    });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, tu::errLine("YAX::AddYAXDataInFirstTime", "file search error = 0\n"));
    EXPECT_TRUE(tu::readFile(path).empty());

    out = tu::capture([&] {
        onFile({}, [&](FILE *fp) {
            r = AddYAXDataInFirstTimeFP(fp, a.name(), a.nameLen(), 1, nullptr, 0, a.data(),
                                        a.dataLen());
        });
    });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, tu::errLine("YAXEncoder::AddYAXDataInFirstTimeFP", "file Search error\n"));

    Bytes got = onBuffer({}, 256, [&](YAXBUFFER *h) {
        r = AddYAXDataInFirstTimeBuffer(h, a.name(), a.nameLen(), 1, nullptr, 0, a.data(),
                                        a.dataLen());
    });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(got, tb::trailer({kA}));
}

TEST(FirstAdd, RefusalsLogUnderEachFlavoursTags) {
    tu::TempDir dir;
    std::string path = dir.path("p.jpg");
    tu::writeFile(path, kImage);
    const char *p = path.c_str();
    std::string missing = dir.path("missing.jpg");
    FILE *fp = _qfopen(p, "r+b");
    YAXBUFFER *h = _qbopen(8192);
    _qbwrite(kImage.data(), size32(kImage), h);
    const std::string P = "YAX::AddYAXDataInFirstTime", F = "YAX::AddYAXDataInFirstTimeFP";
    // the buffer flavour speaks with the FILE* flavour's tags
    expectRefusals({
        {[&] { return AddYAXDataInFirstTime(p, "n", 1, 0, nullptr, 0, "d", 1); }, tu::errLine(P, kUserMsg)},
        {[&] { return AddYAXDataInFirstTime(p, "n", 0, 1, nullptr, 0, "d", 1); }, tu::errLine(P, "name null")},
        {[&] { return AddYAXDataInFirstTime(p, "n", 1, 1, nullptr, 0, "d", 0); }, tu::errLine(P, "data null")},
        {[&] { return AddYAXDataInFirstTime(missing.c_str(), "n", 1, 1, nullptr, 0, "d", 1); },
         tu::errLine("YAXEncoder::AddYAXDataInFirstTime", "file open error")},
        {[&] { return AddYAXDataInFirstTimeFP(fp, "n", 1, 0, "s", 0, "d", 1); }, tu::errLine(F, kUserMsg)},
        {[&] { return AddYAXDataInFirstTimeFP(fp, nullptr, 1, 1, nullptr, 0, "d", 1); },
         tu::errLine(F, "name_size <= 0 || name == NULL")},
        {[&] { return AddYAXDataInFirstTimeFP(fp, "n", 1, 1, nullptr, 0, nullptr, 1); },
         tu::errLine(F, "data == 0 || data_size <= 0")},
        {[&] { return AddYAXDataInFirstTimeFP(nullptr, "n", 1, 1, nullptr, 0, "d", 1); }, tu::errLine(F, "fp == NULL")},
        {[&] { return AddYAXDataInFirstTimeBuffer(h, "n", 1, 0, nullptr, 0, "d", 1); }, tu::errLine(F, kUserMsg)},
        {[&] { return AddYAXDataInFirstTimeBuffer(nullptr, "n", 1, 1, nullptr, 0, "d", 1); },
         tu::errLine(F, "handle == NULL")},
    });
    _qfclose(fp);
    EXPECT_EQ(tu::readFile(path), kImage);
    EXPECT_EQ(h->write_size, static_cast<int32_t>(kImage.size()));
    EXPECT_FALSE(tu::exists(missing));
    // type 0 is fine with sub-information
    EXPECT_EQ(AddYAXDataInFirstTimeBuffer(h, "n", 1, 0, "s", 1, "d", 1), 1);
    _qbclose(h);
}

TEST(FirstAdd, WritesAfterTheBlockAreTestedForZero) {
    const Args a{kA};
    const uint32_t base = size32(kImage) + tb::blockLength(kA);
    const std::string T = "YAXEncoder::AddYAXDataInFirstTimeFP";
    struct Case {
        uint32_t capacity;
        std::string line;
    };
    // The row writer reports 1 even when its words are lost, so a row that
    // does not fit is noticed only at the header size.
    const std::vector<Case> cases = {
        {base - 1, tu::errLine(T, "file write error\n")},
        {base, tu::errLine(T, "file _writeYAX_QTSS error\n")},
        {base + 8, tu::errLine(T, "file _writeYAX_QCnt error\n")},
        {base + 16, tu::errLine(T, "file _writeYAX_QTHO error\n")},
        {base + 28, tu::errLine(T, "file _writeYAX_QTS error\n")},
    };
    for (const Case &c : cases) {
        int r = -1;
        std::string out = tu::capture([&] {
            onBuffer(kImage, c.capacity, [&](YAXBUFFER *h) {
                r = AddYAXDataInFirstTimeBuffer(h, a.name(), a.nameLen(), 1, nullptr, 0, a.data(),
                                                a.dataLen());
            });
        });
        EXPECT_EQ(out, c.line) << c.capacity;
        EXPECT_EQ(r, 0) << c.capacity;
    }

    // A file reports a failed write with -1, which a test for 0 never sees:
    // the first add on a full disk still answers 1.
    int r = -1;
    Bytes got;
    std::string out = tu::capture([&] {
        FileSizeLimit limit(base + 4);
        got = onFile(kImage, [&](FILE *fp) {
            r = AddYAXDataInFirstTimeFP(fp, a.name(), a.nameLen(), 1, nullptr, 0, a.data(),
                                        a.dataLen());
        });
    });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(out.find("YAXEncoder"), std::string::npos) << out;
    EXPECT_EQ(got, kImage + tb::block(kA) + tb::bytes("YAXH"));

    // whereas the leading fields are caught: they report 1 or 0 themselves
    out = tu::capture([&] {
        FileSizeLimit limit(size32(kImage) + 4);
        onFile(kImage, [&](FILE *fp) {
            r = AddYAXDataInFirstTimeFP(fp, a.name(), a.nameLen(), 1, nullptr, 0, a.data(),
                                        a.dataLen());
        });
    });
    EXPECT_EQ(r, 0);
    EXPECT_EQ(out, tu::errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
                       tu::errLine(T, "File _writeDataTagInfo Error"));
}

// ---- adds to an existing trailer ----

TEST(LaterAdd, NewBlockOverTheOldHeaderAndEveryRowShifted) {
    const Args a{kNew};
    const Bytes before = kImage + tb::trailer({kA, kB});
    const Bytes want = kImage + tb::trailer({kA, kB, kNew});
    ASSERT_EQ(tb::rowsFor({kA, kB})[0].offset, 100u);
    ASSERT_EQ(tb::rowsFor({kA, kB})[1].offset, 40u);
    // the file grows by the block and one row, nothing before the old header moves
    ASSERT_EQ(want.size(), before.size() + 100 + 12);

    int r = 0;
    HandInfo fp_info(tb::rowsFor({kA, kB}), size32(before));
    EXPECT_EQ(onFile(before,
                     [&](FILE *fp) {
                         r = AddYAXDataFP(fp, &fp_info.info, a.name(), a.nameLen(), 3, nullptr, 0,
                                          a.data(), a.dataLen(), nullptr);
                     }),
              want);
    EXPECT_EQ(r, 1);
    // the record keeps the shifted offsets and does not get the new row
    EXPECT_EQ(fp_info.rows[0].offset, 200u);
    EXPECT_EQ(fp_info.rows[1].offset, 140u);
    EXPECT_EQ(fp_info.info.meta_count, 2u);

    HandInfo buf_info(tb::rowsFor({kA, kB}), size32(before));
    EXPECT_EQ(onBuffer(before, 8192,
                       [&](YAXBUFFER *h) {
                           buf_info.info.handle = h;
                           r = AddYAXDataBuffer(h, &buf_info.info, a.name(), a.nameLen(), 3,
                                                nullptr, 0, a.data(), a.dataLen(), nullptr);
                       }),
              want);
    EXPECT_EQ(r, 1);

    // the path flavour closes the record's stream and reopens the file
    tu::TempDir dir;
    std::string path = dir.path("p.jpg");
    tu::writeFile(path, before);
    HandInfo path_info(tb::rowsFor({kA, kB}), size32(before));
    path_info.info.fp = _qfopen(path.c_str(), "rb");
    EXPECT_EQ(AddYAXData(path.c_str(), &path_info.info, a.name(), a.nameLen(), 3, nullptr, 0,
                         a.data(), a.dataLen(), nullptr),
              1);
    EXPECT_EQ(path_info.info.fp, nullptr);
    EXPECT_EQ(tu::readFile(path), want);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"p.jpg"});

}

TEST(LaterAdd, LegacyBlockIsRewrittenBehindTheNewTail) {
    const Args a{kNew};
    const Bytes legacy = tb::vonoBlock({{4200, 4230}});
    const Bytes before = kImage + tb::trailer({kA}) + legacy;
    const Bytes want = kImage + tb::trailer({kA, kNew}) + legacy;
    uint32_t sound[2] = {4200, 4230};

    // FILE*: the one-sound block writer
    VonoInfo vono{};
    vono.count = 1;
    vono.offsets = sound;
    HandInfo fp_info(tb::rowsFor({kA}), size32(before), 30);
    int r = 0;
    EXPECT_EQ(onFile(before,
                     [&](FILE *fp) {
                         r = AddYAXDataFP(fp, &fp_info.info, a.name(), a.nameLen(), 3, nullptr, 0,
                                          a.data(), a.dataLen(), &vono);
                     }),
              want);
    EXPECT_EQ(r, 1);

    // path: written word by word from the record (its count too), and the
    // record's own stream is closed
    tu::TempDir dir;
    std::string path = dir.path("v.jpg");
    tu::writeFile(path, before);
    vono.count = 2;
    vono.fp = _qfopen(path.c_str(), "rb");
    HandInfo path_info(tb::rowsFor({kA}), size32(before), 30);
    EXPECT_EQ(AddYAXData(path.c_str(), &path_info.info, a.name(), a.nameLen(), 3, nullptr, 0,
                         a.data(), a.dataLen(), &vono),
              1);
    EXPECT_EQ(vono.fp, nullptr);
    Bytes two = Builder().str("VONO").u32(105).u32(2).u32(4200).u32(4230).u32(20).str("VONOBS").done();
    EXPECT_EQ(tu::readFile(path), kImage + tb::trailer({kA, kNew}) + two);

    // buffer: the buffer block writer cannot finish its tail marker, and the
    // add reports it
    HandInfo buf_info(tb::rowsFor({kA}), size32(before), 30);
    vono.count = 1;
    std::string out = tu::capture([&] {
        onBuffer(before, 8192, [&](YAXBUFFER *h) {
            r = AddYAXDataBuffer(h, &buf_info.info, a.name(), a.nameLen(), 3, nullptr, 0, a.data(),
                                 a.dataLen(), &vono);
        });
    });
    EXPECT_EQ(r, 0);
    const std::string last = tu::errLine("YAXEncoder::AddYAXDataFP", "file _writeVonoHeader error\n");
    ASSERT_GE(out.size(), last.size());
    EXPECT_EQ(out.substr(out.size() - last.size()), last);
}

TEST(LaterAdd, RefusalsAndFailuresWithTheirLines) {
    const Bytes before = kImage + tb::trailer({kA});
    tu::TempDir dir;
    std::string path = dir.path("p.jpg");
    tu::writeFile(path, before);
    const char *p = path.c_str();
    const std::string E = "YAXEncoder::AddYAXDataFP", P = "YAX::AddYAXData";
    HandInfo info(tb::rowsFor({kA}), size32(before));
    HandInfo far(tb::rowsFor({kA}), size32(before));  // header beyond the file's start
    far.info.header_offset = size32(before) + 1;
    FILE *ro = _qfopen(p, "rb");
    std::string missing = dir.path("gone.jpg");
    const std::string seek_errno = tu::errLine("_qlseek", "errno : 22");
    expectRefusals({
        {[&] { return AddYAXData(p, nullptr, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine(P, "YAX_info == NULL")},
        {[&] { return AddYAXData(p, &info.info, "n", 1, 0, nullptr, 0, "d", 1, nullptr); }, tu::errLine(P, kUserMsg)},
        {[&] { return AddYAXData(p, &info.info, "n", 0, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine(P, "name_size <= 0 || name == NULL")},
        {[&] { return AddYAXData(p, &info.info, "n", 1, 1, nullptr, 0, "d", 0, nullptr); },
         tu::errLine(P, "data == NULL || data_size <= 0")},
        {[&] { return AddYAXData(missing.c_str(), &info.info, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine("YAXEncoder::AddYAXData", "file open error")},
        {[&] { return AddYAXDataFP(ro, nullptr, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine(E, "YAX_info == NUL")},
        {[&] { return AddYAXDataFP(nullptr, &info.info, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine(E, "fp == NUL")},
        {[&] { return AddYAXDataFP(ro, &info.info, "n", 1, 0, nullptr, 0, "d", 1, nullptr); }, tu::errLine(E, kUserMsg)},
        {[&] { return AddYAXDataFP(ro, &far.info, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         seek_errno + tu::errLine(E, "File Search Error ")},
        {[&] {
             far.info.fp = ro;
             return AddYAXData(p, &far.info, "n", 1, 1, nullptr, 0, "d", 1, nullptr);
         },
         seek_errno + tu::errLine("YAXEncoder::AddYAXData", "file search error = -1\n")},
        {[&] { return AddYAXDataFP(ro, &info.info, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
             tu::errLine(E, "File _writeDataTagInfo Error")},
        {[&] { return AddYAXDataBuffer(nullptr, &info.info, "n", 1, 1, nullptr, 0, "d", 1, nullptr); },
         tu::errLine(E, "fp == NUL")},
    });
    _qfclose(ro);
    EXPECT_FALSE(tu::exists(missing));
    EXPECT_EQ(tu::readFile(path), before);

    // a buffer without room for the header: the field is named
    const std::string payload(40, 'd');
    const uint32_t room = size32(before) - 32 + tb::blockLength(Entry{1, "n", payload, ""});
    HandInfo bi(tb::rowsFor({kA}), size32(before));
    int r = -1;
    std::string out = tu::capture([&] {
        onBuffer(before, room, [&](YAXBUFFER *b) {
            r = AddYAXDataBuffer(b, &bi.info, "n", 1, 1, nullptr, 0, payload.data(), 40, nullptr);
        });
    });
    EXPECT_EQ(out, tu::errLine(E, "file _writeYAX_QTSS error\n"));
    EXPECT_EQ(r, 0);
}

TEST(LaterAdd, FileWriteFailuresAreCaughtUnlikeInTheFirstAdd) {
    const Args a{kNew};
    const Bytes before = kImage + tb::trailer({kA});
    // room for the block's leading fields, not for its payload
    const uint32_t limit = size32(before) - 32 + 8 + 3;
    HandInfo info(tb::rowsFor({kA}), size32(before));
    int r = -1;
    std::string out = tu::capture([&] {
        FileSizeLimit lower(limit);
        onFile(before, [&](FILE *fp) {
            r = AddYAXDataFP(fp, &info.info, a.name(), a.nameLen(), 3, nullptr, 0, a.data(),
                             a.dataLen(), nullptr);
        });
    });
    EXPECT_EQ(r, 0);
    const std::string last = tu::errLine("YAXEncoder::AddYAXDataFP", "file write error\n");
    ASSERT_GE(out.size(), last.size());
    EXPECT_EQ(out.substr(out.size() - last.size()), last);
}

// ---- direct adds ----

TEST(DirectAdd, CallerFormattedBlocksGetTheSameTrailer) {
    const Bytes block = tb::block(kCaption);
    const Bytes first = kImage + tb::trailer({kCaption});
    int r = 0;
    EXPECT_EQ(onFile(kImage, [&](FILE *fp) {
                  r = AddDirectYAXDataInFirstTimeFP(fp, 7, 1, block.data(), size32(block));
              }),
              first);
    EXPECT_EQ(r, 1);
    // the block appended by the caller, then only the one-row header
    EXPECT_EQ(onFile(kImage, [&](FILE *fp) {
                  _qlseek64(fp, 0, SEEK_END);
                  _qfwrite(block.data(), size32(block), fp);
                  r = saveFirstYAXTailToFP(fp, size32(block), 7, 1);
              }),
              first);
    EXPECT_EQ(r, 1);

    const Bytes nb = tb::block(kNew);
    const Bytes legacy = tb::vonoBlock({{10, 20}});
    const Bytes before = first + legacy;
    uint32_t sound[2] = {10, 20};
    VonoInfo vono{};
    vono.count = 1;
    vono.offsets = sound;
    HandInfo info(tb::rowsFor({kCaption}), size32(before), 30);
    EXPECT_EQ(onFile(before, [&](FILE *fp) {
                  r = AddDirectYAXDataFP(fp, &info.info, 3, 0, nb.data(), size32(nb), &vono);
              }),
              kImage + tb::trailer({kCaption, kNew}) + legacy);
    EXPECT_EQ(r, 1);

    const std::string D = "YAX::AddDirectYAXDataFP", F = "YAXEncoder::AddDirectYAXDataInFirstTimeFP";
    expectRefusals({
        {[&] { return AddDirectYAXDataInFirstTimeFP(nullptr, 0, 0, "x", 1); }, tu::errLine(F, kUserMsg)},
        {[&] { return AddDirectYAXDataInFirstTimeFP(nullptr, 1, 0, "x", 0); },
         tu::errLine(F, "data == VELTA_YAX_NULL || data_size <= 0")},
        {[&] { return AddDirectYAXDataInFirstTimeFP(nullptr, 1, 0, "x", 1); }, tu::errLine(F, "fp == VELTA_YAX_NULL")},
        {[&] { return AddDirectYAXDataFP(nullptr, &info.info, 0, 0, "x", 1, nullptr); }, tu::errLine(D, kUserMsg)},
        {[&] { return AddDirectYAXDataFP(nullptr, nullptr, 1, 0, "x", 1, nullptr); },
         tu::errLine(D, "YAX_info == VELTA_YAX_NULL")},
        {[&] { return AddDirectYAXDataFP(nullptr, &info.info, 1, 0, "x", 1, nullptr); },
         tu::errLine(D, "fp == VELTA_YAX_NULL")},
    });
}

// ---- fast add ----

namespace {

// A 60-byte filler entry as a fast delete leaves it, and an entry behind it.
const Entry kFiller{0x7FFE, "Invalid_Data", std::string(40, '\0'), ""};
const Entry kX{5, "xray", "payload-x", ""};

int fastAdd(HandInfo &h, const Entry &e, int reuse_first) {
    const Args a{e};
    return FastAddYAXData(&h.info, a.name(), a.nameLen(), e.type, a.sub(), a.subLen(), a.data(),
                          a.dataLen(), reuse_first);
}

}  // namespace

TEST(FastAdd, ABlockOfTheFillersSizeTakesItsPlace) {
    const Entry fit{9, "n60", std::string(49, 'f'), ""};
    ASSERT_EQ(tb::blockLength(fit), 60u);
    const Bytes before = kImage + tb::trailer({kFiller, kX});
    HandInfo h(tb::rowsFor({kFiller, kX}), size32(before));
    int r = 0;
    Bytes got = onFile(before, [&](FILE *fp) {
        h.info.fp = fp;
        r = fastAdd(h, fit, 1);
    });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(got, kImage + tb::trailer({fit, kX}));
    EXPECT_EQ(got.size(), before.size());
    EXPECT_EQ(h.rows[0].meta_type, 9u << 16);  // retyped in the record as well
}

TEST(FastAdd, ASmallerBlockGoesBehindASmallerFiller) {
    // 39 bytes with sub-information: 21 bytes are left for the new filler
    const Entry small{6, "s", std::string(25, 'p'), "q"};
    ASSERT_EQ(tb::blockLength(small), 39u);
    const Bytes before = kImage + tb::trailer({kFiller, kX});
    const uint32_t off0 = 60 + tb::blockLength(kX);
    HandInfo h(tb::rowsFor({kFiller, kX}), size32(before));
    int r = 0;
    tu::TempDir dir;
    std::string path = dir.path("f.jpg");
    tu::writeFile(path, before);
    FILE *fp = _qfopen(path.c_str(), "r+b");
    h.info.fp = fp;
    r = fastAdd(h, small, 1);
    EXPECT_EQ(r, 1);

    // the filler row takes the new entry's sub-information flag; the header
    // gains one row, so the file grows by 12
    const std::vector<tb::Row> rows = {{(0x7FFEu << 16) | 0x8000, off0, 21},
                                       {(6u << 16) | 0x8000, off0 - 21, 39},
                                       tb::rowsFor({kFiller, kX})[1]};
    const Bytes want = kImage + tb::fillerBlock(21) + tb::block(small) + tb::block(kX) + tb::header(rows);
    EXPECT_EQ(tu::readFile(path), want);
    EXPECT_EQ(want.size(), before.size() + 12);

    // the result reads back as three entries at those places
    EXPECT_EQ(getSignatureFP(fp), static_cast<unsigned>(SIGNATURE_YAX));
    YaxInfo *parsed = ParseYAX_FP(fp, SIGNATURE_YAX);
    ASSERT_NE(parsed, nullptr);
    ASSERT_EQ(getYAXList(parsed), 1);
    ASSERT_EQ(parsed->meta_count, 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(parsed->meta_data[i]->offset, rows[i].offset) << i;
        EXPECT_EQ(parsed->meta_data[i]->length, rows[i].length) << i;
    }
    EXPECT_EQ(parsed->data_start_position, static_cast<int64_t>(kImage.size()));
    DestroyYAX_FP(parsed);
    _qfclose(fp);
}

TEST(FastAdd, AppendsWhenNoRoomIsLeftForAFiller) {
    const Bytes before = kImage + tb::trailer({kFiller, kX});
    // 40 + 20 >= 60: appended where the old header stood
    const Entry forty{6, "f", std::string(31, 'g'), ""};
    ASSERT_EQ(tb::blockLength(forty), 40u);
    HandInfo h(tb::rowsFor({kFiller, kX}), size32(before));
    int r = 0;
    Bytes got = onFile(before, [&](FILE *fp) {
        h.info.fp = fp;
        r = fastAdd(h, forty, 1);
    });
    EXPECT_EQ(r, 1);
    EXPECT_EQ(got, kImage + tb::trailer({kFiller, kX, forty}));

    // without reuse_first even a block that would fit is appended
    const Entry small{6, "s", std::string(25, 'p'), "q"};
    HandInfo h2(tb::rowsFor({kFiller, kX}), size32(before));
    got = onFile(before, [&](FILE *fp) {
        h2.info.fp = fp;
        r = fastAdd(h2, small, 0);
    });
    EXPECT_EQ(got, kImage + tb::trailer({kFiller, kX, small}));

    // a block bigger than entry 0 is appended too
    HandInfo h3(tb::rowsFor({kFiller, kX}), size32(before));
    got = onFile(before, [&](FILE *fp) {
        h3.info.fp = fp;
        r = fastAdd(h3, kNew, 1);
    });
    EXPECT_EQ(got, kImage + tb::trailer({kFiller, kX, kNew}));
}

TEST(FastAdd, RefusalsSayNothingButTheUserDataRule) {
    HandInfo h(tb::rowsFor({kFiller}), 4096 + 100);
    expectRefusals({
        {[&] { return FastAddYAXData(&h.info, "n", 1, 0, nullptr, 0, "d", 1, 1); },
         tu::errLine("YAX::AddYAXDataInFirstTime", kUserMsg)},
        {[&] { return FastAddYAXData(&h.info, nullptr, 1, 1, nullptr, 0, "d", 1, 1); }, ""},
        {[&] { return FastAddYAXData(nullptr, "n", 1, 1, nullptr, 0, "d", 1, 1); }, ""},
        {[&] { return FastAddYAXData(&h.info, "n", 1, 1, nullptr, 0, "d", 0, 1); }, ""},
        {[&] { return FastAddYAXData(&h.info, "n", 1, 1, nullptr, 0, "d", 1, 1); }, ""},  // no stream
    });
}

// ---- size check and temporary names ----

TEST(SizeCheck, TrailerMustStayWithin4GiBLess1MiB) {
    HandInfo h({{1u << 16, 100, 100}}, 5000);  // header_offset 32
    // 10 + 0 + data + 32 + 100 + 16
    const uint32_t at_limit = 0xFFF00000u - 158;
    EXPECT_EQ(checkYAXInfoForSaving(&h.info, at_limit, 0, 10), 1);
    EXPECT_EQ(checkYAXInfoForSaving(&h.info, at_limit - 5, 5, 10), 1);
    const std::string refusal =
        tu::errLine("checkYAXInfoForSaving",
                    "There is no storage for saving YAX data in the source file, delete a yax data");
    int r = -1;
    EXPECT_EQ(tu::capture([&] { r = checkYAXInfoForSaving(&h.info, at_limit + 1, 0, 10); }), refusal);
    EXPECT_EQ(r, 0);
    // sums that wrap in 32 bits are still refused
    EXPECT_EQ(tu::capture([&] { r = checkYAXInfoForSaving(&h.info, 0xFFFFFFFFu, 0xFFFFFFFFu, 10); }),
              refusal);
    EXPECT_EQ(r, 0);
    EXPECT_EQ(tu::capture([&] { r = checkYAXInfoForSaving(nullptr, 1, 1, 1); }),
              tu::errLine("checkYAXInfoForSaving", "yax info null"));
    EXPECT_EQ(r, 0);
}

TEST(TempName, FirstFreeNumberBesideThePathStoppingAt998) {
    tu::TempDir dir;
    const std::string photo = dir.path("photo.jpg");
    auto name = [](const std::string &path) {
        char *n = _getTempFileName(path.c_str());
        std::string s = n ? n : "(null)";
        _qfree(n);
        return s;
    };
    EXPECT_EQ(name(photo), dir.path("photo000.tmp"));
    tu::writeFile(dir.path("photo000.tmp"), {});
    EXPECT_EQ(name(photo), dir.path("photo001.tmp"));
    for (int n = 0; n <= 998; ++n) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "photo%03d.tmp", n);
        tu::writeFile(dir.path(buf), {});
    }
    // every candidate taken: the last one is returned anyway
    EXPECT_EQ(name(photo), dir.path("photo998.tmp"));
    EXPECT_FALSE(tu::exists(dir.path("photo999.tmp")));

    // no dot: the last character is taken for the extension
    EXPECT_EQ(name("clip"), "cli000.tmp");
    EXPECT_EQ(name(".jpg"), "(null)");
    EXPECT_EQ(_getTempFileName(nullptr), nullptr);
    EXPECT_EQ(_getTempFileName(""), nullptr);
}
