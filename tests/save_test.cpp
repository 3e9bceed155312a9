// Saving one entry by path, by stream and into a buffer stream written out to
// the file: whole files compared with bytes the builder computes, the replace and refuse rules, the legacy audio branches,
// the refusals with their exact log lines, payload files, formatted blocks
// and the streaming header/tail pair.
#include <functional>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_support.h"

using namespace at;
using tb::trailer;
using tu::errLine;

namespace {

constexpr const char *kFP = "YAXAPIs::saveYAXDataToFP";
constexpr const char *kBuf = "YAXAPIs::saveYAXDataToBuffer";
const std::string kNoRoom = errLine(
    "checkYAXInfoForSaving", "There is no storage for saving YAX data in the source file, delete a yax data");
const Entry kA{5, "a", "first payload", ""}, kB{6, "bee", "second", "sub-info"};
const Entry kC{7, "c", "third payload!", ""};

// A call by path or by stream, for the refusal tables.
#define BY_PATH(x) [=]([[maybe_unused]] const char *f, FILE *) { return x; }
#define BY_FP(x) [=](const char *, FILE *fp) { return x; }

// The path, stream and buffer flavours, driven alike. The buffer holds the
// file's bytes with room to spare and is written back over the file.
enum class Via { Path, Stream, Buffer };

class Save : public ApiTest, public ::testing::WithParamInterface<Via> {
protected:
    // `name_length` below the name's size stores only its first bytes
    int save(const Entry &e, int option = 0, size_t name_length = std::string::npos) {
        const void *sub = e.hasSub() ? e.sub.data() : nullptr;
        const auto sl = uint32_t(e.sub.size()), len = uint32_t(e.payload.size());
        const auto nl = static_cast<uint32_t>(std::min(name_length, e.name.size()));
        const char *name = e.name.c_str(), *data = e.payload.data();
        if (GetParam() == Via::Path)
            return saveYAXDataToFile(file.c_str(), name, nl, sub, sl, data, len, e.type, option);
        if (GetParam() == Via::Buffer) {
            const Bytes before = now();
            YAXBUFFER *b = initYAXBuffer(u32size(before) + 4096);
            EXPECT_EQ(_qbwrite(before.data(), u32size(before), b), int(before.size()));
            const int r = saveYAXDataToBuffer(b, name, nl, sub, sl, data, len, e.type, option);
            EXPECT_EQ(WriteHandle_FilePath(file.c_str(), b), getYAXWriteSize(b));
            destroyYAXBuffer(b);
            return r;
        }
        FILE *fp = _qfopen(file.c_str(), "r+b");
        const int r = saveYAXDataToFP(fp, name, nl, sub, sl, data, len, e.type, option);
        return _qfclose(fp), r;
    }
};

// Replacing the only entry starts a new trailer; later saves append; a present
// name is refused without bit 0 of the option (the path flavour silently) and
// moved to the end with it; the name is looked up by its given bytes.
// Legacy audio alone: the sound becomes the TonePhoto pair, the new entry
// follows, and a legacy block pointing into the sound entry closes the file;
// later saves keep that block behind the new tail. A buffer with legacy audio
// is refused as it is.
TEST_P(Save, AppendRefuseReplaceAndConvert) {
    const Entry a0{3, "a", "x", ""}, a2{9, "a", "replacement of another length", "s"};
    const Entry b2{6, "bee", "other", ""};
    put(host() + trailer({a0}));
    // (a braced list is evaluated in order)
    EXPECT_EQ(std::vector<int>({save(kA, 1), save(kB), save(kC)}), std::vector<int>({1, 1, 1}));
    const std::string notUpdate = "SIGNATURE_YAX NOT UPDATE!!";
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(save(a2, 2), 0); }),
              GetParam() == Via::Path     ? ""
              : GetParam() == Via::Stream ? errLine(kFP, notUpdate)
                                          : errLine(kBuf, notUpdate));
    EXPECT_EQ(save(Entry{5, "beezzz", "y", ""}, 0, 3), 0);  // "bee" is present
    EXPECT_EQ(now(), host() + trailer({kA, kB, kC}));
    EXPECT_EQ(save(a2, 1), 1);
    EXPECT_EQ(now(), host() + trailer({kB, kC, a2}));
    expectDecodes();

    const std::string sound = "RIFF....legacy sound bytes";
    const uint32_t p = u32size(host()), s = static_cast<uint32_t>(sound.size());
    put(host() + tb::bytes(sound) + vono1(p, p + s));
    if (GetParam() == Via::Buffer) {
        const Bytes legacy = now(), both = host() + trailer({kA}) + vono1(p, p + s);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(save(kB), 0); }),
                  errLine(kBuf, "Signature File!! mode : 2\n"));
        EXPECT_EQ(now(), legacy);
        put(both);
        EXPECT_EQ(tu::capture([&] { EXPECT_EQ(save(kB, 1), 0); }),
                  errLine(kBuf, "Signature File!! mode : 4\n"));
        EXPECT_EQ(now(), both);
        return;
    }
    EXPECT_EQ(std::vector<int>({save(kB), save(kC), save(b2, 0), save(b2, 1)}),
              std::vector<int>({1, 1, 0, 1}));
    EXPECT_EQ(now(), host() + trailer({toneSound(sound), toneMeta(), kC, b2}) + vono1(p + 21, p + 21 + s));
    expectAlone();
    expectDecodes();
}

INSTANTIATE_TEST_SUITE_P(Flavours, Save, ::testing::Values(Via::Path, Via::Stream, Via::Buffer));

class SaveChecks : public ApiTest {
protected:
    // Each call on a file holding `content` answers 0, prints exactly `lines`
    // and leaves the file as it was.
    struct Refusal { Bytes content; std::function<int(const char *, FILE *)> call; std::string lines; };
    void expectRefusals(const std::vector<Refusal> &cases) {
        for (size_t i = 0; i < cases.size(); ++i) {
            put(cases[i].content);
            FILE *fp = _qfopen(file.c_str(), "r+b");
            int r = -1;
            const std::string printed = tu::capture([&] { r = cases[i].call(file.c_str(), fp); });
            _qfclose(fp);
            EXPECT_EQ(printed, cases[i].lines) << "case " << i;
            EXPECT_EQ(r, 0) << "case " << i;
            EXPECT_EQ(now(), cases[i].content) << "case " << i;
        }
    }
};

// Size limits: the path flavour looks at the payload size before anything
// else, the stream flavour after its argument checks; 0xFFF00000 passes that
// limit and meets the trailer's room check before a byte of the payload is
// read. With a legacy block behind the trailer the path flavour leaves the
// sub-information out of the room check: a payload that exactly fills the
// limit without it passes and is refused as a present name, while the stream
// flavour and the plain trailer count it.
// Then an unreadable ending (the primitive and the detection report the
// failed seek), payload files that are empty or one byte over the limit
// (sparse, refused on their size alone), a present name with a payload file
// (silent), and the one message written without blanks inside its
// parentheses.
TEST_F(SaveChecks, RefusalsWithTheirLines) {
    static char buf[8] = "payload", sub[100] = {};
    const std::string payload = dir.path("payload.bin"), empty = dir.path("empty.bin");
    const std::string small = dir.path("small.bin");
    tu::writeFile(empty, {}), tu::writeFile(small, tb::bytes("small")), tu::writeFile(payload, {});
    ASSERT_EQ(truncate64(payload.c_str(), 0xFFF00001LL), 0);
    const char *pl = payload.c_str(), *em = empty.c_str(), *sm = small.c_str();
    const uint32_t p = u32size(host()), rows = 12 + 12 * 3, limit = 0xFFF00000u, over = limit + 1;
    const Bytes t = trailer({toneSound("snd"), toneMeta(), kA}), legacy = host() + t + vono1(p + 21, p + 24);
    const Bytes h = host(), hA = host() + trailer({kA});
    const uint32_t blocks = u32size(t) - rows - 8, room = limit - (1 + rows + blocks + 16);
    const uint32_t fillLegacy = room - 38, fillPlain = room - 8;
    const std::string F = "YAXAPIs::saveYAXFileDataToFP", tooBig = "Too big YAX data to add in the file";
    expectRefusals({
        {h, BY_PATH(saveYAXDataToFile(nullptr, nullptr, 0, nullptr, 0, nullptr, over, 0, 0)),
         errLine("YAXAPI", tooBig)},
        {h, BY_PATH(saveYAXDataToFile(nullptr, "a", 1, nullptr, 0, buf, limit, 1, 0)),
         errLine("YAXAPI", "filename == VELTA_YAX_NULL")},
        {h, BY_FP(saveYAXDataToFP(fp, "a", 1, nullptr, 0, buf, over, YAX_USER_DEFINED_DATA, 0)),
         errLine(kFP, "type & sub wrong !!")},
        {h, BY_FP(saveYAXDataToFP(fp, "a", 1, nullptr, 0, buf, over, 1, 0)), errLine(kFP, tooBig)},
        {hA, BY_PATH(saveYAXDataToFile(f, "z", 1, nullptr, 0, buf, limit, 1, 0)), kNoRoom},
        {hA, BY_FP(saveYAXDataToFP(fp, "z", 1, nullptr, 0, buf, limit, 1, 0)),
         kNoRoom + errLine(kFP, "SIGNATURE_YAX checkYAXInfoForSaving fail!!")},
        {legacy, BY_PATH(saveYAXDataToFile(f, "a", 1, sub, 100, buf, fillLegacy, 5, 0)), ""},
        {legacy, BY_FP(saveYAXDataToFP(fp, "a", 1, sub, 100, buf, fillLegacy, 5, 0)),
         kNoRoom + errLine(kFP, "SIGNATURE_VONO_YAX checkYAXInfoForSaving ERROR!!")},
        {host() + t, BY_PATH(saveYAXDataToFile(f, "a", 1, sub, 100, buf, fillPlain, 5, 0)), kNoRoom},
        {tb::bytes("abc"), BY_FP(saveYAXDataToFP(fp, "a", 1, nullptr, 0, "d", 1, 1, 0)),
         errLine("_qlseek", "errno : 22") + errLine("YAX::getSignatureFP", "File Search Error") +
             errLine(kFP, "Signature File!! mode : 0\n")},
        {h, BY_PATH(saveYAXFileDataToFile(f, "a", 1, nullptr, 0, em, 1, 0)), ""},
        {h, BY_FP(saveYAXFileDataToFP(fp, "a", 1, nullptr, 0, em, 1, 0)),
         errLine(F, "File Search Error 0\n")},
        {h, BY_PATH(saveYAXFileDataToFile(f, "a", 1, nullptr, 0, pl, 1, 0)), errLine("YAXAPI", tooBig)},
        {h, BY_FP(saveYAXFileDataToFP(fp, "a", 1, nullptr, 0, pl, 1, 0)), errLine(F, tooBig)},
        {hA, BY_FP(saveYAXFileDataToFP(fp, "a", 1, nullptr, 0, sm, 3, 0)), ""},
        {h, BY_FP(saveYAXDataHeaderToFP(fp, "x", 1, "s", 0, YAX_USER_DEFINED_DATA)),
         errLine("YAXAPIs::saveYAXDataHeaderToFP", "data_type == YAX_USER_DEFINED_DATA && (data_sub_info == "
                                                   "VELTA_YAX_NULL || data_sub_info_len <= 0)")},
    });
}

// Caller-formatted blocks are stored as they are, first or later, with the
// same replace rule; payload files are stored whole; the streaming pair
// writes a first trailer around a payload the caller writes, and nothing on a
// file that already has one.
TEST_F(SaveChecks, FormattedBlocksPayloadFilesAndStreaming) {
    const std::string payload = dir.path("payload.bin");
    const Entry d{8, "d", "direct", "si"}, d2{8, "d", "direct again", "si"}, q{3, "q", "again", ""};
    const Entry p{4, "p", "the payload file", "ss"};
    put(host());
    FILE *fp = _qfopen(file.c_str(), "r+b");
    auto direct = [&](const Entry &x, int option) {
        Bytes b = tb::block(x);
        return saveDirectYAXData(fp, b.data(), u32size(b), x.name.c_str(), x.hasSub(), x.type, option);
    };
    EXPECT_EQ(direct(d, 0), 1);
    tu::writeFile(payload, tb::bytes(q.payload));
    EXPECT_EQ(saveYAXFileDataToFP(fp, "q", 1, nullptr, 0, payload.c_str(), 3, 0), 1);
    EXPECT_EQ(std::vector<int>({direct(d2, 0), direct(d2, 1)}), std::vector<int>({0, 1}));
    _qfclose(fp);
    tu::writeFile(payload, tb::bytes(p.payload));
    EXPECT_EQ(saveYAXFileDataToFile(file.c_str(), "p", 1, "ss", 2, payload.c_str(), 4, 0), 1);
    EXPECT_EQ(now(), host() + trailer({q, d2, p}));

    put(host());
    fp = _qfopen(file.c_str(), "r+b");
    EXPECT_EQ(saveYAXDataHeaderToFP(fp, "hd", 2, "si", 2, 9), 8 + 2 + 4 + 2);
    EXPECT_EQ(_qfwrite("PAYLOAD", 7, fp), 7);
    EXPECT_EQ(saveYAXTailToFP(fp, 16 + 7, 9, 1), 1);
    EXPECT_EQ(saveYAXDataHeaderToFP(fp, "x", 1, nullptr, 0, 3), 1);
    EXPECT_EQ(saveYAXTailToFP(fp, 9 + 5, 3, 0), 1);
    _qfclose(fp);
    EXPECT_EQ(now(), host() + trailer({Entry{9, "hd", "PAYLOAD", "si"}}));
    expectDecodes();
}

}  // namespace

namespace {

// ---- the buffer flavour's own rules ----

// A buffer stream holding `content` with `spare` bytes of room behind it.
struct Buf {
    YAXBUFFER *h;
    explicit Buf(const Bytes &content, uint32_t spare = 256)
        : h(initYAXBuffer(u32size(content) + spare)) {
        if (!content.empty()) _qbwrite(content.data(), u32size(content), h);
    }
    ~Buf() { destroyYAXBuffer(h); }
    Bytes written() const { return Bytes(h->buffer, h->buffer + h->write_size); }
    Bytes storage() const { return Bytes(h->buffer, h->buffer + h->buffer_size + 1); }
};

int saveTo(YAXBUFFER *h, const Entry &e, int option = 0) {
    return saveYAXDataToBuffer(h, e.name.c_str(), uint32_t(e.name.size()),
                               e.hasSub() ? e.sub.data() : nullptr, uint32_t(e.sub.size()),
                               e.payload.data(), uint32_t(e.payload.size()), e.type, option);
}

// Each refusal answers 0, logs exactly its lines and leaves every byte of the
// storage and the written size as they were. 0xFFF00000 passes the size
// limit and meets the trailer's room check without a byte of the payload
// being read; one more is too big. A buffer without capacity is refused
// silently. Beyond the old checks: a missing name, and a handle whose written
// size lies outside its storage (read by nothing, under the sanitizers too).
// An add that does not fit the capacity fails without touching the buffer.
TEST(BufferSave, RefusalsLeaveTheBufferAsItWas) {
    static const char data[8] = "payload";
    const Bytes h = host(), hA = host() + trailer({kA});
    const uint32_t limit = 0xFFF00000u;
    struct Case { Bytes content; uint32_t spare; std::function<int(YAXBUFFER *)> call; std::string lines; };
    const std::vector<Case> cases{
        {h, 64, [](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "a", 1, nullptr, 0, nullptr, 1, 1, 0); },
         errLine(kBuf, "data == VELTA_YAX_NULL || data_len <= 0")},
        {h, 64, [](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "a", 1, nullptr, 0, data, 0, 1, 0); },
         errLine(kBuf, "data == VELTA_YAX_NULL || data_len <= 0")},
        {h, 64, [](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "a", 1, "s", 0, data, 1, 0, 0); },
         errLine(kBuf, "type & sub wrong !!")},
        {hA, 64, [=](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "z", 1, nullptr, 0, data, limit + 1, 1, 0); },
         errLine(kBuf, "Too big YAX data to add in the file")},
        {hA, 64, [=](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "z", 1, nullptr, 0, data, limit, 1, 0); },
         kNoRoom + errLine(kBuf, "SIGNATURE_YAX checkYAXInfoForSaving fail!!")},
        {{}, 0, [](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "a", 1, nullptr, 0, data, 1, 1, 0); }, ""},
        {h, 64, [](YAXBUFFER *b) { return saveYAXDataToBuffer(b, nullptr, 1, nullptr, 0, data, 1, 1, 0); },
         errLine(kBuf, "YAXName == VELTA_YAX_NULL || YAXName_len <= 0")},
        {hA, 64, [](YAXBUFFER *b) { return saveYAXDataToBuffer(b, "a", 0, nullptr, 0, data, 1, 1, 1); },
         errLine(kBuf, "YAXName == VELTA_YAX_NULL || YAXName_len <= 0")},
        {hA, 64, [](YAXBUFFER *b) { return saveTo(b, kA, 0); }, errLine(kBuf, "SIGNATURE_YAX NOT UPDATE!!")},
        {hA, 4, [](YAXBUFFER *b) { return saveTo(b, kB, 0); },
         errLine("YAXEncoder::AddYAXDataFP", "file _writeYAX_QVER error\n")},
        {h, 4, [](YAXBUFFER *b) { return saveTo(b, kB, 0); },
         errLine("YAXInternal::_writeDataTagInfo", "File Write Error") +
             errLine("YAXEncoder::AddYAXDataInFirstTimeFP", "File _writeDataTagInfo Error")},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        Buf b(cases[i].content, cases[i].spare);
        const Bytes before = b.storage();
        int r = -1;
        EXPECT_EQ(tu::capture([&] { r = cases[i].call(b.h); }), cases[i].lines) << "case " << i;
        EXPECT_EQ(r, 0) << "case " << i;
        EXPECT_EQ(b.storage(), before) << "case " << i;
        EXPECT_EQ(b.h->write_size, int32_t(cases[i].content.size())) << "case " << i;
    }
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(saveYAXDataToBuffer(nullptr, "a", 1, nullptr, 0, data, 1, 1, 1), 0); }),
              errLine(kBuf, "Buffer NULL !!"));

    // 16 bytes of storage that claim 64 written
    unsigned char storage[17] = {};
    YAXBUFFER lying{storage, 16, 64, 0, 0};
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(saveTo(&lying, kB, 1), 0); }),
              errLine(kBuf, "buffer write size out of range"));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(WriteHandle_Fp(&lying, stdout), -1); }),
              "WriteHandle : write error \n");
}

// An unwritten buffer takes its first entry at byte 0 whatever its storage
// holds (here an old trailer). A replace whose add does not fit leaves the
// old entry deleted. The buffer record: validity 1, the rows' names, the
// TonePhoto list (a trailer followed by legacy audio is parsed too), no path;
// it is released with either destroy (the save uses the stream one), and
// neither touches the buffer. No trailer, or legacy audio alone: no record.
TEST(BufferSave, FirstEntryReplaceThatDoesNotFitAndRecords) {
    const Entry tiny{1, "n", "p", ""}, big{5, "a", std::string(64, 'x'), ""};
    Bytes storage = host() + trailer({kA});
    storage.push_back(0);  // the stream's end marker
    YAXBUFFER *raw = initYAXAllocatedBuffer(storage.data(), u32size(storage) - 1);
    EXPECT_EQ(saveTo(raw, tiny), 1);
    EXPECT_EQ(Bytes(storage.begin(), storage.begin() + raw->write_size), trailer({tiny}));
    destroyYAXBuffer(raw);

    Buf tight(host() + trailer({kA, kB}), 16);
    EXPECT_EQ(saveTo(tight.h, big, 1), 0);
    EXPECT_EQ(tight.written(), host() + trailer({kB}));

    const uint32_t p = u32size(host());
    const Bytes tone = host() + trailer({toneSound("snd"), toneMeta(), tiny}) + vono1(p + 21, p + 24);
    for (auto destroy : {destroyYAXDATA_Buffer, destroyYAXDATA_FP}) {
        Buf b(tone);
        YAXDATA *yd = checkYAXInBuffer(b.h);
        ASSERT_NE(yd, nullptr);
        EXPECT_EQ(yd->type, 1);
        ASSERT_EQ(yd->count, 3u);
        EXPECT_STREQ(yd->YAX_name_list[0], "TonePhoto_000");
        EXPECT_STREQ(yd->YAX_name_list[2], "n");
        ASSERT_EQ(yd->tonephoto_count, 1u);
        EXPECT_STREQ(yd->tonephoto_name_list[0], "TonePhoto_000");
        EXPECT_EQ(yd->filename, nullptr);
        EXPECT_EQ(yd->filename_size, 0u);
        EXPECT_EQ(yd->yax_info->handle, b.h);
        destroy(yd);
        EXPECT_EQ(b.written(), tone);
        EXPECT_EQ(saveTo(b.h, kC), 0);  // legacy audio behind: not saved into
    }
    destroyYAXDATA_Buffer(nullptr);
    Buf none(host()), legacy(host() + tb::bytes("snd") + vono1(p, p + 3));
    for (YAXBUFFER *h : {static_cast<YAXBUFFER *>(nullptr), none.h, legacy.h})
        EXPECT_EQ(checkYAXInBuffer(h), nullptr);
}

// Writing out: the written bytes and their count, nothing printed, the stream
// left open where the bytes end; a stream that
// cannot take them, a path that cannot be opened (or none) answer -1 with
// their console lines; an existing longer file is replaced; an empty buffer
// writes an empty file.
TEST(BufferSave, WriteOutAndItsConsoleLines) {
    tu::TempDir dir;
    const std::string out = dir.path("out.jpg"), ro = dir.path("ro.jpg");
    const Bytes content = host() + trailer({kA});
    Buf b(content), empty(Bytes{});
    const int n = int(content.size());

    FILE *fp = std::fopen(out.c_str(), "wb");
    int r = 0;
    EXPECT_EQ(tu::capture([&] { r = WriteHandle_Fp(b.h, fp); }), "");
    EXPECT_EQ(r, n);
    EXPECT_EQ(std::ftell(fp), n);
    EXPECT_EQ(std::fputc('!', fp), '!');  // still open
    EXPECT_EQ(std::fclose(fp), 0);
    EXPECT_EQ(tu::readFile(out), content + tb::bytes("!"));

    tu::writeFile(ro, {});
    fp = std::fopen(ro.c_str(), "rb");
    EXPECT_EQ(tu::capture([&] { r = WriteHandle_Fp(b.h, fp); }), "WriteHandle : write error \n");
    EXPECT_EQ(r, -1);
    std::fclose(fp);

    EXPECT_EQ(tu::capture([&] { r = WriteHandle_FilePath(dir.path("no/such.jpg").c_str(), b.h); }),
              "fp null!!\n");
    EXPECT_EQ(r, -1);
    EXPECT_EQ(tu::capture([&] { r = WriteHandle_FilePath(nullptr, b.h); }), "fp null!!\n");
    EXPECT_EQ(r, -1);

    tu::writeFile(out, content + content);
    EXPECT_EQ(tu::capture([&] { r = WriteHandle_FilePath(out.c_str(), b.h); }), "");
    EXPECT_EQ(r, n);
    EXPECT_EQ(tu::readFile(out), content);
    EXPECT_EQ(WriteHandle_FilePath(out.c_str(), empty.h), 0);
    EXPECT_EQ(tu::readFile(out).size(), 0u);
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"out.jpg", "ro.jpg"}));
}

}  // namespace
