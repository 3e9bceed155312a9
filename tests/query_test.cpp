// The query API: opening a file into a record, locating payloads and
// sub-information by name and index (32- and 64-bit), extraction, name lists
// by data type, the version functions, and which streams stay open.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>

#include <cstring>

#include "testutil.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

using tb::Bytes;
using tb::Entry;
using tb::operator+;

namespace {

constexpr size_t kHost = 150;

const std::vector<Entry> kEntries = {
    {7, "alpha", "payload-one", ""},
    {0, "beta", "xy", "SUBINFO"},
    {7, "gamma", "3333", "s"},
    {9, "empty", "", ""},
};

int64_t blockStart(const std::vector<Entry> &entries, size_t k, int64_t host = kHost) {
    int64_t pos = host;
    for (size_t i = 0; i < k; ++i) pos += tb::blockLength(entries[i]);
    return pos;
}
int64_t subPos(const std::vector<Entry> &e, size_t k, int64_t host = kHost) {
    return blockStart(e, k, host) + 12 + static_cast<int64_t>(e[k].name.size());
}
int64_t payloadPos(const std::vector<Entry> &e, size_t k, int64_t host = kHost) {
    return blockStart(e, k, host) + 8 + (e[k].hasSub() ? 4 : 0) +
           static_cast<int64_t>(e[k].name.size() + e[k].sub.size());
}

int openFds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

std::string idxErr(const std::string &m) { return tu::errLine("YAXAPIs::_getIndexOfName", m); }

class Query : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    void SetUp() override { tu::writeFile(path, tb::fakeImage(kHost) + tb::trailer(kEntries)); }
};

}  // namespace

TEST_F(Query, RecordHoldsTheNamesAndThePath) {
    YAXDATA *d = nullptr;
    EXPECT_EQ(tu::capture([&] { d = checkYAXInFile(path.c_str()); }), "");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->type, 1u);
    ASSERT_EQ(d->count, 4u);
    for (uint32_t k = 0; k < 4; ++k) {
        EXPECT_STREQ(d->YAX_name_list[k], kEntries[k].name.c_str());
        EXPECT_EQ(d->YAX_name_list[k], d->yax_info->meta_data[k]->name);  // shared, not copied
    }
    EXPECT_EQ(d->tonephoto_count, 0u);
    EXPECT_EQ(d->tonephoto_name_list, nullptr);
    EXPECT_STREQ(d->filename, path.c_str());
    EXPECT_EQ(d->filename_size, path.size() + 1);
    // "r+b" here, "rb" for the read-permission flavour
    EXPECT_EQ(fcntl(fileno(d->yax_info->fp), F_GETFL) & O_ACCMODE, O_RDWR);
    destroyYAXDATA(d);

    d = checkYAXWithReadPM(path.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(fcntl(fileno(d->yax_info->fp), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_STREQ(d->filename, path.c_str());
    destroyYAXDATA(d);
}

TEST_F(Query, PositionsByNameAndIndexIn32And64Bits) {
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    for (uint32_t k = 0; k < 3; ++k) {
        const Entry &e = kEntries[k];
        YAXOFFSET *a = getYAXInFileByName(d, e.name.c_str());
        YAXOFFSET *b = getYAXInFileByIndex(d, k);
        YAXOFFSET64 *c = getYAXInFileByName64(d, e.name.c_str());
        YAXOFFSET64 *f = getYAXInFileByIndex64(d, k);
        ASSERT_TRUE(a && b && c && f) << k;
        EXPECT_EQ(a->offset, payloadPos(kEntries, k));
        EXPECT_EQ(a->length, e.payload.size());
        EXPECT_EQ(b->offset, a->offset);
        EXPECT_EQ(c->offset, payloadPos(kEntries, k));
        EXPECT_EQ(c->length, static_cast<int64_t>(e.payload.size()));
        EXPECT_EQ(f->offset, c->offset);
        EXPECT_EQ(f->length, c->length);
        destroyYAXOFFSET(a);
        destroyYAXOFFSET(b);
        destroyYAXOFFSET64(c);
        destroyYAXOFFSET64(f);

        YAXOFFSET *s = getYAXSubInfoInFileByName(d, e.name.c_str());
        YAXOFFSET64 *s64 = getYAXSubInfoInFileByIndex64(d, k);
        if (e.hasSub()) {
            ASSERT_TRUE(s && s64);
            EXPECT_EQ(s->offset, subPos(kEntries, k));
            EXPECT_EQ(s->length, e.sub.size());
            EXPECT_EQ(s64->offset, subPos(kEntries, k));
            EXPECT_EQ(s64->length, static_cast<int64_t>(e.sub.size()));
        } else {
            EXPECT_EQ(s, nullptr);
            EXPECT_EQ(s64, nullptr);
        }
        destroyYAXOFFSET(s);
        destroyYAXOFFSET64(s64);
    }
    YAXOFFSET *s = getYAXSubInfoInFileByIndex(d, 1);
    YAXOFFSET64 *s64 = getYAXSubInfoInFileByName64(d, "beta");
    ASSERT_TRUE(s && s64);
    EXPECT_EQ(s->offset, subPos(kEntries, 1));
    EXPECT_EQ(s64->length, 7);
    destroyYAXOFFSET(s);
    destroyYAXOFFSET64(s64);

    // The empty payload, an index equal to the count, an unknown name.
    std::string out = tu::capture([&] {
        EXPECT_EQ(getYAXInFileByName(d, "empty"), nullptr);
        EXPECT_EQ(getYAXInFileByIndex64(d, 3), nullptr);
        EXPECT_EQ(getYAXInFileByIndex(d, 4), nullptr);
        EXPECT_EQ(getYAXSubInfoInFileByIndex(d, 4), nullptr);
        EXPECT_EQ(getYAXInFileByName(d, "ALPHA"), nullptr);
        EXPECT_EQ(getYAXInFileByName(d, nullptr), nullptr);
        EXPECT_EQ(getYAXInFileByName64(nullptr, "alpha"), nullptr);
    });
    EXPECT_EQ(out, "");  // all silent
    destroyYAXDATA(d);
}

TEST_F(Query, NameSearchLinesUseTheSearchTag) {
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    d->type = 0;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXInFileByName(d, "alpha"), nullptr); }),
              idxErr("type null"));
    d->type = 1;
    char *second = d->YAX_name_list[1];
    d->YAX_name_list[1] = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXSubInfoInFileByName64(d, "gamma"), nullptr); }),
              idxErr("1 YAX_name null"));
    // a match before the hole is still found
    YAXOFFSET *a = getYAXInFileByName(d, "alpha");
    EXPECT_NE(a, nullptr);
    destroyYAXOFFSET(a);
    d->YAX_name_list[1] = second;
    char **list = d->YAX_name_list;
    d->YAX_name_list = nullptr;
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getYAXInFileByName64(d, "alpha"), nullptr); }),
              idxErr("YAX_name_list null"));
    d->YAX_name_list = list;
    destroyYAXDATA(d);
}

TEST_F(Query, ExtractCopiesBytesAndType) {
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    YAXDATA_UNIT *u = extractYAXDataFromFilebyName(d, "beta", 4);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), u->data_length), "xy");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->sub_info), u->sub_info_length), "SUBINFO");
    EXPECT_EQ(u->data_type, 0u);
    destroyYAXDATA_UNIT(u);

    u = extractYAXDataFromFilebyIndex(d, 0);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), u->data_length), "payload-one");
    EXPECT_EQ(u->sub_info, nullptr);
    EXPECT_EQ(u->sub_info_length, 0u);
    EXPECT_EQ(u->data_type, 7u);
    destroyYAXDATA_UNIT(u);

    EXPECT_EQ(extractYAXDataFromFilebyIndex(d, 3), nullptr);  // empty payload
    EXPECT_EQ(extractYAXDataFromFilebyIndex(d, 4), nullptr);
    EXPECT_EQ(extractYAXDataFromFilebyName(d, "beta", 0), nullptr);
    EXPECT_EQ(extractYAXDataFromFilebyName(d, nullptr, 4), nullptr);
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(extractYAXDataFromFilebyName(d, "nope", 4), nullptr); }),
              "");
    d->type = 2;  // only records made by the check functions
    EXPECT_EQ(extractYAXDataFromFilebyIndex(d, 0), nullptr);
    d->type = 1;
    destroyYAXDATA(d);
    destroyYAXDATA_UNIT(nullptr);
}

TEST_F(Query, NameListsByDataTypeAndTheTypeOfAName) {
    YAXDATA *d = checkYAXInFile(path.c_str());
    ASSERT_NE(d, nullptr);
    uint32_t n = 99;
    char **names = getNameListByDataType(d, 7, &n);
    ASSERT_NE(names, nullptr);
    ASSERT_EQ(n, 2u);
    EXPECT_STREQ(names[0], "alpha");
    EXPECT_STREQ(names[1], "gamma");
    EXPECT_NE(names[0], d->YAX_name_list[0]);  // copies
    for (uint32_t i = 0; i < n; ++i) _qfree(names[i]);
    _qfree(names);

    n = 99;
    EXPECT_EQ(getNameListByDataType(d, 8, &n), nullptr);
    EXPECT_EQ(n, 99u);  // left unset
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(getNameListByDataType(nullptr, 7, &n), nullptr); }),
              tu::errLine("getNameListByDataType", "YAX_data null!!!\n"));

    EXPECT_EQ(getYAXDataType(d, "alpha"), 7u);
    EXPECT_EQ(getYAXDataType(d, "beta"), 0u);
    EXPECT_EQ(getYAXDataType(d, "empty"), 9u);
    EXPECT_EQ(getYAXDataType(d, "nope"), 0xFFFFFFFFu);
    destroyYAXDATA(d);
}

TEST(Version, TextAndBanner) {
    char *v = getYAXVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_STREQ(v, "105");
    _qfree(v);
    std::string out = tu::capture([] { printYAXVersion(); });
    const std::string head = "YAXLog\tD\tYAX Version Info\tVelta YAX Library Version\n\n"
                             "YAXLog\tD\tYAX Version Info\tVersion\t : 105\n\n"
                             "YAXLog\tD\tYAX Version Info\tBuild Date\t : ";
    ASSERT_EQ(out.compare(0, head.size(), head), 0) << out;
    EXPECT_EQ(out.substr(out.size() - 2), "\n\n");
}

TEST(Check, FilesWithoutTrailerAndOpenFailures) {
    tu::TempDir dir;
    std::string jpg = std::string(YAX_TEST_DATA) + "/sample.jpg";
    const int fds = openFds();
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkYAXInFile(jpg.c_str()), nullptr); }), "");
    EXPECT_EQ(openFds(), fds);  // closed again

    EXPECT_EQ(tu::capture([] { EXPECT_EQ(checkYAXInFile(nullptr), nullptr); }),
              tu::errLine("YAX::checkYAXInFile", "filename null"));
    std::string missing = dir.path("none.jpg");
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkYAXInFile(missing.c_str()), nullptr); }),
              tu::errLine("YAXAPIs", "File Open Error"));
    EXPECT_EQ(tu::capture([] { EXPECT_EQ(checkYAXWithReadPM(nullptr), nullptr); }),
              tu::errLine("YAX::checkYAXWithReadPM", "filename null"));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkYAXWithReadPM(missing.c_str()), nullptr); }),
              tu::errLine("YAX::checkYAXWithReadPM", "File Open Error"));
    EXPECT_EQ(checkYAXInFP(nullptr), nullptr);

    // A tail that lies: the failed parse still reaches the list call.
    std::string liar = dir.path("liar.jpg");
    tu::writeFile(liar, tb::fakeImage(100) + tb::Builder().u32(12).str("YAXT").done());
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkYAXInFile(liar.c_str()), nullptr); }),
              tu::errLine("YAX::ParseYAX_FP", "file has no suond OFFS") +
                  tu::errLine("YAX::ParseYAXList", "Wrong YAX_info"));
    // Legacy audio without a trailer: the parse finds no tail, silently, and
    // the list call reports the missing record.
    std::string vono = dir.path("vono.jpg");
    tu::writeFile(vono, tb::fakeImage(100) + tb::vonoBlock({{10, 60}}));
    EXPECT_EQ(tu::capture([&] { EXPECT_EQ(checkYAXInFile(vono.c_str()), nullptr); }),
              tu::errLine("YAX::ParseYAXList", "Wrong YAX_info"));
    EXPECT_EQ(openFds(), fds);
}

TEST(Check, StreamFlavourLeavesTheStreamOpen) {
    tu::TempDir dir;
    std::string p = dir.path("a.jpg");
    const std::vector<Entry> two = {{3, "one", "11", ""}, {3, "two", "2222", ""}};
    tu::writeFile(p, tb::fakeImage(kHost) + tb::trailer(two));
    FILE *fp = _qfopen(p.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    YAXDATA *d = checkYAXInFP(fp);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->filename, nullptr);
    EXPECT_EQ(d->filename_size, 0u);
    EXPECT_EQ(d->yax_info->fp, fp);
    destroyYAXDATA_FP(d);
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_SET), 0);  // still open
    // A name that cannot be read: the check fails and the stream stays open.
    std::vector<Entry> bad = two;
    bad[1].name = std::string(1025, 'x');
    tu::writeFile(p, tb::fakeImage(kHost) + tb::trailer(bad));
    std::string out = tu::capture([&] { EXPECT_EQ(checkYAXInFP(fp), nullptr); });
    EXPECT_EQ(out, tu::errLine("YAX::_getNameOfData", "name length is wrong : 1025byte") +
                       tu::errLine("YAX::getAllNameOfDataList", "1th data has no name!"));
    EXPECT_EQ(_qlseek64(fp, 0, SEEK_SET), 0);
    EXPECT_EQ(_qfclose(fp), 0);
    destroyYAXDATA_FP(nullptr);
    destroyYAXDATA(nullptr);
}

TEST(Check, LegacyAudioTailAndMp4BoxKeepPayloadPositions) {
    tu::TempDir dir;
    const std::vector<Entry> e = {{4, "k1", "first", "ab"}, {4, "k2", "second", ""}};
    // Trailer followed by a one-sound legacy block: code 4, parsed like code 2.
    std::string p = dir.path("v.jpg");
    tu::writeFile(p, tb::fakeImage(kHost) + tb::trailer(e) + tb::vonoBlock({{5, 60}}));
    ASSERT_EQ(getSignature(p.c_str()), SIGNATURE_VONO_YAX);
    YAXDATA *d = checkYAXInFile(p.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->yax_info->header_offset, 12u + 24u + 38u);
    YAXOFFSET64 *o = getYAXInFileByName64(d, "k2");
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->offset, payloadPos(e, 1));
    EXPECT_EQ(o->length, 6);
    destroyYAXOFFSET64(o);
    YAXOFFSET *s = getYAXSubInfoInFileByName(d, "k1");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->offset, subPos(e, 0));
    destroyYAXOFFSET(s);
    destroyYAXDATA(d);

    // The same trailer behind an MP4 box head.
    const Bytes t = tb::trailer(e);
    std::string m = dir.path("v.mp4");
    tu::writeFile(m, tb::fakeImage(kHost) +
                         tb::Builder().u32be(static_cast<uint32_t>(t.size() + 8)).str("yaxd").done() +
                         t);
    d = checkYAXInFile(m.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->yax_info->data_start_position, static_cast<int64_t>(kHost));
    YAXDATA_UNIT *u = extractYAXDataFromFilebyName(d, "k1", 2);
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->data), u->data_length), "first");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(u->sub_info), u->sub_info_length), "ab");
    EXPECT_EQ(u->data_type, 4u);
    destroyYAXDATA_UNIT(u);
    destroyYAXDATA(d);
}

TEST(Release, DestroyFreesTheToneNameListToo) {
    tu::TempDir dir;
    std::string p = dir.path("a.jpg");
    tu::writeFile(p, tb::fakeImage(kHost) + tb::trailer({{3, "one", "11", ""}}));
    const int fds = openFds();
    YAXDATA *d = checkYAXInFile(p.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(openFds(), fds + 1);
    // What the TonePhoto lookup would leave behind; the leak checker of the
    // sanitizer build sees it if destroy forgets any of it.
    d->tonephoto_count = 2;
    d->tonephoto_name_list = static_cast<char **>(_qcalloc(2, sizeof(char *)));
    d->tonephoto_name_list[0] = static_cast<char *>(_qmalloc(14));
    d->tonephoto_name_list[1] = static_cast<char *>(_qmalloc(14));
    destroyYAXDATA(d);
    EXPECT_EQ(openFds(), fds);  // the record's stream is closed
}
