// Saving one entry by path and by stream: whole files compared with bytes the
// builder computes, the replace and refuse rules, the legacy audio branches,
// the argument and size refusals with their exact log lines, and the
// streaming header/tail pair.
#include <cstring>

#include "api_fixture.hpp"
#include "yax_api.h"
#include "yax_support.h"

using at::Bytes;
using at::Entry;
using tb::trailer;
using tb::operator+;

namespace {

constexpr const char *kFP = "YAXAPIs::saveYAXDataToFP";
constexpr const char *kNoRoom =
    "There is no storage for saving YAX data in the source file, delete a yax data";

// The two flavours of the in-memory save, driven alike.
enum class Via { Path, Stream };

class Save : public at::ApiTest, public ::testing::WithParamInterface<Via> {
protected:
    int save(const Entry &e, int option = 0) {
        const void *sub = e.hasSub() ? e.sub.data() : nullptr;
        auto sub_len = static_cast<uint32_t>(e.sub.size());
        auto len = static_cast<uint32_t>(e.payload.size());
        auto name_len = static_cast<uint32_t>(e.name.size());
        if (GetParam() == Via::Path)
            return saveYAXDataToFile(file.c_str(), e.name.c_str(), name_len, sub, sub_len,
                                     e.payload.data(), len, e.type, option);
        FILE *fp = _qfopen(file.c_str(), "r+b");
        EXPECT_NE(fp, nullptr);
        int r = saveYAXDataToFP(fp, e.name.c_str(), name_len, sub, sub_len, e.payload.data(), len,
                                e.type, option);
        _qfclose(fp);
        return r;
    }
};

const Entry kA{5, "a", "first payload", ""};
const Entry kB{6, "bee", "second", "sub-info"};
const Entry kC{7, "c", "third payload!", ""};

TEST_P(Save, FirstAndFollowingEntriesAppendTrailer) {
    put(at::host());
    EXPECT_EQ(save(kA), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA}));
    EXPECT_EQ(save(kB), 1);
    EXPECT_EQ(save(kC), 1);
    EXPECT_EQ(now(), at::host() + trailer({kA, kB, kC}));
    expectAlone();
    expectDecodes();
}

TEST_P(Save, SameNameIsRefusedWithoutBitZeroAndMovedToTheEndWithIt) {
    put(at::host() + trailer({kA, kB, kC}));
    Entry a2{9, "a", "replacement of another length", "s"};
    std::string log = tu::capture([&] { EXPECT_EQ(save(a2, 2), 0); });  // bit 0 clear
    EXPECT_EQ(now(), at::host() + trailer({kA, kB, kC}));
    EXPECT_EQ(log, GetParam() == Via::Path ? "" : tu::errLine(kFP, "SIGNATURE_YAX NOT UPDATE!!"));

    EXPECT_EQ(save(a2, 1), 1);
    EXPECT_EQ(now(), at::host() + trailer({kB, kC, a2}));
    expectAlone();
    expectDecodes();
}

TEST_P(Save, ReplacingTheOnlyEntryStartsANewTrailer) {
    put(at::host() + trailer({kA}));
    Entry a2{3, "a", "x", ""};
    EXPECT_EQ(save(a2, 1), 1);
    EXPECT_EQ(now(), at::host() + trailer({a2}));
    expectAlone();
}

// A file holding only legacy audio: the sound becomes the TonePhoto pair, the
// new entry follows, and a legacy block pointing into the sound entry closes
// the file.
TEST_P(Save, LegacyAudioIsConvertedBeforeTheAdd) {
    const std::string sound = "RIFF....legacy sound bytes";
    const uint32_t p = at::u32size(at::host());
    const auto s = static_cast<uint32_t>(sound.size());
    put(at::host() + tb::bytes(sound) + at::vono1(p, p + s));

    EXPECT_EQ(save(kB), 1);
    EXPECT_EQ(now(), at::host() + trailer({at::toneSound(sound), at::toneMeta(), kB}) +
                         at::vono1(p + 21, p + 21 + s));
    expectAlone();
    expectDecodes();
}

TEST_P(Save, TrailerWithLegacyBlockKeepsTheBlockBehindTheNewTail) {
    const std::string sound = "sound";
    const uint32_t p = at::u32size(at::host());
    const Bytes block = at::vono1(p + 21, p + 26);
    put(at::host() + trailer({at::toneSound(sound), at::toneMeta(), kA}) + block);

    EXPECT_EQ(save(kC), 1);
    EXPECT_EQ(now(), at::host() + trailer({at::toneSound(sound), at::toneMeta(), kA, kC}) + block);
    Entry a2{5, "a", "other", ""};
    EXPECT_EQ(save(a2, 0), 0);
    EXPECT_EQ(save(a2, 1), 1);
    EXPECT_EQ(now(), at::host() + trailer({at::toneSound(sound), at::toneMeta(), kC, a2}) + block);
    expectAlone();
}

TEST_P(Save, LookupUsesExactlyTheGivenNameBytes) {
    put(at::host() + trailer({Entry{5, "abc", "x", ""}}));
    // "abcdef" cut to three bytes is the stored "abc"
    const char *name = "abcdef";
    int r = GetParam() == Via::Path
                ? saveYAXDataToFile(file.c_str(), name, 3, nullptr, 0, "y", 1, 5, 0)
                : [&] {
                      FILE *fp = _qfopen(file.c_str(), "r+b");
                      int v = saveYAXDataToFP(fp, name, 3, nullptr, 0, "y", 1, 5, 0);
                      _qfclose(fp);
                      return v;
                  }();
    EXPECT_EQ(r, 0);
    EXPECT_EQ(now(), at::host() + trailer({Entry{5, "abc", "x", ""}}));
}

INSTANTIATE_TEST_SUITE_P(Flavours, Save, ::testing::Values(Via::Path, Via::Stream));

class SaveChecks : public at::ApiTest {};

// The path flavour looks at the size before anything else; the stream
// flavour only after its argument checks.
TEST_F(SaveChecks, WhereTheSizeLimitIsChecked) {
    char buf[8] = "payload";
    put(at::host());
    FILE *fp = _qfopen(file.c_str(), "r+b");
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveYAXDataToFile(nullptr, nullptr, 0, nullptr, 0, nullptr, 0xFFF00001u, 0, 0), 0);
        EXPECT_EQ(saveYAXDataToFile(nullptr, "a", 1, nullptr, 0, buf, 0xFFF00000u, 1, 0), 0);
        EXPECT_EQ(saveYAXDataToFP(fp, "a", 1, nullptr, 0, buf, 0xFFF00001u, YAX_USER_DEFINED_DATA, 0), 0);
        EXPECT_EQ(saveYAXDataToFP(fp, "a", 1, nullptr, 0, buf, 0xFFF00001u, 1, 0), 0);
    });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine("YAXAPI", "Too big YAX data to add in the file") +
                       tu::errLine("YAXAPI", "filename == VELTA_YAX_NULL") +
                       tu::errLine(kFP, "type & sub wrong !!") +
                       tu::errLine(kFP, "Too big YAX data to add in the file"));
    EXPECT_EQ(now(), at::host());
}

// 0xFFF00000 passes the payload limit; the trailer's room check then refuses
// it before a byte of the payload is read.
TEST_F(SaveChecks, LargestPayloadReachesTheTrailerRoomCheck) {
    const Bytes before = at::host() + trailer({kA});
    put(before);
    char small[4] = "abc";
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveYAXDataToFile(file.c_str(), "z", 1, nullptr, 0, small, 0xFFF00000u, 1, 0),
                  0);
    });
    EXPECT_EQ(log, tu::errLine("checkYAXInfoForSaving", kNoRoom));
    FILE *fp = _qfopen(file.c_str(), "r+b");
    log = tu::capture([&] {
        EXPECT_EQ(saveYAXDataToFP(fp, "z", 1, nullptr, 0, small, 0xFFF00000u, 1, 0), 0);
    });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine("checkYAXInfoForSaving", kNoRoom) +
                       tu::errLine(kFP, "SIGNATURE_YAX checkYAXInfoForSaving fail!!"));
    EXPECT_EQ(now(), before);
}

// With a legacy block behind the trailer, the path flavour leaves the
// sub-information out of the room check; the plain-trailer branch and the
// stream flavour count it. The payload length is chosen so that the trailer
// exactly fills the limit without the sub-information: the save then goes on
// to the same-name refusal, which comes before any use of the payload.
TEST_F(SaveChecks, LegacyBranchRoomCheckIgnoresSubInfoByPath) {
    const uint32_t p = at::u32size(at::host());
    const std::vector<Entry> entries{at::toneSound("snd"), at::toneMeta(), kA};
    const Bytes t = trailer(entries);
    const uint32_t rows = 12 + 12 * 3;
    const uint32_t blocks = at::u32size(t) - rows - 8;
    const Bytes withLegacy = at::host() + t + at::vono1(p + 21, p + 24);
    char small[4] = "abc";
    char sub[100] = {};

    auto fill = [&](uint32_t header_offset) { return 0xFFF00000u - (1 + header_offset + blocks + 16); };

    put(withLegacy);
    uint32_t len = fill(rows + 38);  // legacy tail: header size + 20 + 18
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveYAXDataToFile(file.c_str(), "a", 1, sub, 100, small, len, 5, 0), 0);
    });
    EXPECT_EQ(log, "");  // passed the room check, refused as a present name
    FILE *fp = _qfopen(file.c_str(), "r+b");
    log = tu::capture([&] { EXPECT_EQ(saveYAXDataToFP(fp, "a", 1, sub, 100, small, len, 5, 0), 0); });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine("checkYAXInfoForSaving", kNoRoom) +
                       tu::errLine(kFP, "SIGNATURE_VONO_YAX checkYAXInfoForSaving ERROR!!"));
    EXPECT_EQ(now(), withLegacy);

    put(at::host() + t);
    len = fill(rows + 8);
    log = tu::capture([&] {
        EXPECT_EQ(saveYAXDataToFile(file.c_str(), "a", 1, sub, 100, small, len, 5, 0), 0);
    });
    EXPECT_EQ(log, tu::errLine("checkYAXInfoForSaving", kNoRoom));
}

TEST_F(SaveChecks, UnreadableEndingIsAnUnknownSignature) {
    put(tb::bytes("abc"));
    FILE *fp = _qfopen(file.c_str(), "r+b");
    std::string log = tu::capture([&] { EXPECT_EQ(saveYAXDataToFP(fp, "a", 1, nullptr, 0, "d", 1, 1, 0), 0); });
    _qfclose(fp);
    // the failed seek is reported by the primitive, then by the detection
    EXPECT_EQ(log, tu::errLine("_qlseek", "errno : 22") +
                       tu::errLine("YAX::getSignatureFP", "File Search Error") +
                       tu::errLine(kFP, "Signature File!! mode : 0\n"));
    EXPECT_EQ(now(), tb::bytes("abc"));
}

class SaveFromFile : public at::ApiTest {
protected:
    std::string payload = dir.path("payload.bin");
};

TEST_F(SaveFromFile, PayloadFileIsStoredWhole) {
    put(at::host() + trailer({kA}));
    tu::writeFile(payload, tb::bytes("the payload file"));
    EXPECT_EQ(saveYAXFileDataToFile(file.c_str(), "p", 1, "ss", 2, payload.c_str(), 4, 0), 1);
    Entry p{4, "p", "the payload file", "ss"};
    EXPECT_EQ(now(), at::host() + trailer({kA, p}));

    tu::writeFile(payload, tb::bytes("again"));
    FILE *fp = _qfopen(file.c_str(), "r+b");
    EXPECT_EQ(saveYAXFileDataToFP(fp, "q", 1, nullptr, 0, payload.c_str(), 3, 0), 1);
    // the branch refusals are silent here
    std::string log = tu::capture(
        [&] { EXPECT_EQ(saveYAXFileDataToFP(fp, "q", 1, nullptr, 0, payload.c_str(), 3, 0), 0); });
    _qfclose(fp);
    EXPECT_EQ(log, "");
    EXPECT_EQ(now(), at::host() + trailer({kA, p, Entry{3, "q", "again", ""}}));
}

TEST_F(SaveFromFile, EmptyPayloadIsRefused) {
    put(at::host());
    tu::writeFile(payload, {});
    FILE *fp = _qfopen(file.c_str(), "r+b");
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveYAXFileDataToFile(file.c_str(), "a", 1, nullptr, 0, payload.c_str(), 1, 0), 0);
        EXPECT_EQ(saveYAXFileDataToFP(fp, "a", 1, nullptr, 0, payload.c_str(), 1, 0), 0);
    });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine("YAXAPIs::saveYAXFileDataToFP", "File Search Error 0\n"));
    EXPECT_EQ(now(), at::host());
}

// A sparse payload file one byte over the limit is refused on its size alone.
TEST_F(SaveFromFile, OversizedPayloadFileIsRefusedBeforeReading) {
    put(at::host());
    FILE *big = fopen(payload.c_str(), "wb");
    ASSERT_NE(big, nullptr);
    ASSERT_EQ(ftruncate64(fileno(big), 0xFFF00001LL), 0);
    fclose(big);
    std::string log = tu::capture([&] {
        EXPECT_EQ(saveYAXFileDataToFile(file.c_str(), "a", 1, nullptr, 0, payload.c_str(), 1, 0), 0);
    });
    EXPECT_EQ(log, tu::errLine("YAXAPI", "Too big YAX data to add in the file"));
    FILE *fp = _qfopen(file.c_str(), "r+b");
    log = tu::capture([&] {
        EXPECT_EQ(saveYAXFileDataToFP(fp, "a", 1, nullptr, 0, payload.c_str(), 1, 0), 0);
    });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine("YAXAPIs::saveYAXFileDataToFP", "Too big YAX data to add in the file"));
    EXPECT_EQ(now(), at::host());
}

class SaveDirect : public at::ApiTest {};

TEST_F(SaveDirect, FormattedBlocksAreStoredAsTheyAre) {
    put(at::host());
    const Entry d{8, "d", "direct", "si"};
    const Entry e{2, "e", "more", ""};
    const Entry d2{8, "d", "direct again", "si"};
    FILE *fp = _qfopen(file.c_str(), "r+b");
    auto direct = [&](const Entry &x, int option) {
        Bytes b = tb::block(x);
        return saveDirectYAXData(fp, b.data(), at::u32size(b), x.name.c_str(), x.hasSub() ? 1 : 0,
                                 x.type, option);
    };
    EXPECT_EQ(direct(d, 0), 1);
    EXPECT_EQ(direct(e, 0), 1);
    EXPECT_EQ(direct(d2, 0), 0);
    EXPECT_EQ(direct(d2, 1), 1);
    _qfclose(fp);
    EXPECT_EQ(now(), at::host() + trailer({e, d2}));

}

class SaveStreaming : public at::ApiTest {};

TEST_F(SaveStreaming, HeaderThenPayloadThenTailMakesAFirstTrailer) {
    put(at::host());
    FILE *fp = _qfopen(file.c_str(), "r+b");
    EXPECT_EQ(saveYAXDataHeaderToFP(fp, "hd", 2, "si", 2, 9), 8 + 2 + 4 + 2);
    EXPECT_EQ(_qfwrite("PAYLOAD", 7, fp), 7);
    EXPECT_EQ(saveYAXTailToFP(fp, 16 + 7, 9, 1), 1);
    _qfclose(fp);
    const Bytes done = at::host() + trailer({Entry{9, "hd", "PAYLOAD", "si"}});
    EXPECT_EQ(now(), done);
    expectDecodes();

    // on a file that already has a trailer both calls succeed and write nothing
    fp = _qfopen(file.c_str(), "r+b");
    EXPECT_EQ(saveYAXDataHeaderToFP(fp, "x", 1, nullptr, 0, 3), 1);
    EXPECT_EQ(saveYAXTailToFP(fp, 9 + 5, 3, 0), 1);
    _qfclose(fp);
    EXPECT_EQ(now(), done);
}

// This one message has no blanks inside its parentheses.
TEST_F(SaveStreaming, UserDefinedTypeMessageWithoutBlanks) {
    put(at::host());
    FILE *fp = _qfopen(file.c_str(), "r+b");
    std::string log = tu::capture(
        [&] { EXPECT_EQ(saveYAXDataHeaderToFP(fp, "x", 1, "s", 0, YAX_USER_DEFINED_DATA), 0); });
    _qfclose(fp);
    EXPECT_EQ(log, tu::errLine("YAXAPIs::saveYAXDataHeaderToFP",
                               "data_type == YAX_USER_DEFINED_DATA && (data_sub_info == "
                               "VELTA_YAX_NULL || data_sub_info_len <= 0)"));
    EXPECT_EQ(now(), at::host());
}

}  // namespace
