// The yax tool end to end, run as a separate program the way a user runs it:
// exit codes, standard output and error, and the edited files byte for byte.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "testutil.hpp"

namespace {

using tb::Bytes;
using tb::operator+;

struct Outcome {
    int code = -1;
    std::string out, err;
};

std::vector<std::string> split(const std::string &s, char sep) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : s) {
        if (c == sep) {
            if (!cur.empty()) parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) parts.push_back(cur);
    return parts;
}

std::string text(const Bytes &b) { return std::string(b.begin(), b.end()); }
Bytes bytesOf(const std::string &s) { return Bytes(s.begin(), s.end()); }

// Runs the tool (through the emulator when cross-compiled) with `input` on its
// standard input; standard output and error are captured separately.
class Tool {
public:
    explicit Tool(const tu::TempDir &dir) : dir_(dir) {}

    Outcome operator()(const std::vector<std::string> &args, const std::string &input = "") const {
        std::vector<std::string> argv = split(YAX_TOOL_LAUNCHER, '|');
        argv.push_back(YAX_TOOL);
        argv.insert(argv.end(), args.begin(), args.end());
        std::string in = dir_.path(".stdin"), out = dir_.path(".stdout"), err = dir_.path(".stderr");
        tu::writeFile(in, bytesOf(input));
        pid_t pid = fork();
        if (pid == 0) {
            int fi = open(in.c_str(), O_RDONLY);
            int fo = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int fe = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (fi < 0 || fo < 0 || fe < 0) _exit(126);
            dup2(fi, 0);
            dup2(fo, 1);
            dup2(fe, 2);
            std::vector<char *> cargv;
            for (auto &a : argv) cargv.push_back(const_cast<char *>(a.c_str()));
            cargv.push_back(nullptr);
            execv(cargv[0], cargv.data());
            _exit(127);
        }
        Outcome r;
        int status = 0;
        if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
            r.code = WEXITSTATUS(status);
        r.out = text(tu::readFile(out));
        r.err = text(tu::readFile(err));
        unlink(in.c_str());
        unlink(out.c_str());
        unlink(err.c_str());
        return r;
    }

private:
    const tu::TempDir &dir_;
};

Bytes sampleJpeg() { return tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg"); }

// Where an entry's payload and sub-information start, given where its block starts.
int64_t payloadAt(int64_t blockStart, const tb::Entry &e) {
    return blockStart + 8 + (e.hasSub() ? 4 : 0) + static_cast<int64_t>(e.name.size() + e.sub.size());
}
int64_t subAt(int64_t blockStart, const tb::Entry &e) {
    return blockStart + 12 + static_cast<int64_t>(e.name.size());
}

// The list lines of entries stored back to back behind `hostSize` bytes.
std::string listLines(size_t hostSize, const std::vector<tb::Entry> &entries) {
    std::string out;
    int64_t at = static_cast<int64_t>(hostSize);
    for (size_t i = 0; i < entries.size(); ++i) {
        const tb::Entry &e = entries[i];
        out += std::to_string(i) + "\t" + e.name + "\t" + std::to_string(e.type) + "\t" +
               std::to_string(e.payload.size()) + "\t" + std::to_string(e.sub.size()) + "\t" +
               std::to_string(payloadAt(at, e)) + "\n";
        at += tb::blockLength(e);
    }
    return out;
}

bool lacksTemporaries(const tu::TempDir &dir, size_t expected) { return dir.list().size() == expected; }

class ToolTest : public ::testing::Test {
protected:
    tu::TempDir dir;
    Tool yax{dir};
    std::string image = dir.path("photo.jpg");
    Bytes jpeg = sampleJpeg();

    void SetUp() override {
        ASSERT_GT(jpeg.size(), 100u);
        tu::writeFile(image, jpeg);
    }

    // A one-line error, no output, the given exit code.
    static void expectFailure(const Outcome &r, const std::string &message, int code = 1) {
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "yax: " + message + "\n");
    }
};

TEST_F(ToolTest, HelpAndUsageErrors) {
    Outcome help = yax({"--help"});
    EXPECT_EQ(help.code, 0);
    for (const char *cmd : {"list", "get", "put", "rm", "clear"})
        EXPECT_NE(help.out.find(cmd), std::string::npos) << cmd;
    Outcome putHelp = yax({"put", "--help"});
    EXPECT_EQ(putHelp.code, 0);
    EXPECT_NE(putHelp.out.find("--replace"), std::string::npos);
    EXPECT_NE(putHelp.out.find("--sub-info"), std::string::npos);

    for (const std::vector<std::string> &args :
         std::vector<std::vector<std::string>>{{}, {"frobnicate"}, {"get", image}, {"list"},
                                               {"put", image, "x", "--type", "65536"}}) {
        Outcome r = yax(args);
        EXPECT_EQ(r.code, 2) << args.size();
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("yax: ", 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    EXPECT_EQ(tu::readFile(image), jpeg);
}

// put, list, get and the whole file against bytes built independently.
TEST_F(ToolTest, PutListGetRoundTrip) {
    tb::Entry caption{1, "caption", "a sunny day\n", ""};
    tb::Entry blob{7, "blob", std::string("\x00\x01\xff\n\r\x1a", 6) + std::string(300, 'z'), "meta"};
    tu::writeFile(dir.path("caption.txt"), bytesOf(caption.payload));
    tu::writeFile(dir.path("sub.bin"), bytesOf(blob.sub));

    Outcome empty = yax({"list", image});
    EXPECT_EQ(empty.code, 0);
    EXPECT_EQ(empty.out, "");
    EXPECT_EQ(empty.err, "");

    Outcome put1 = yax({"put", image, "caption", dir.path("caption.txt")});
    EXPECT_EQ(put1.code, 0) << put1.err;
    EXPECT_EQ(put1.out, "");
    EXPECT_EQ(put1.err, "");
    Outcome put2 = yax({"put", image, "blob", "-", "--type", "7", "--sub-info", dir.path("sub.bin")},
                   blob.payload);
    EXPECT_EQ(put2.code, 0) << put2.err;
    EXPECT_EQ(put2.out + put2.err, "");

    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({caption, blob}));

    Outcome list = yax({"list", image});
    EXPECT_EQ(list.code, 0);
    EXPECT_EQ(list.out, listLines(jpeg.size(), {caption, blob}));
    EXPECT_EQ(list.err, "");

    Outcome get = yax({"get", image, "blob"});
    EXPECT_EQ(get.code, 0);
    EXPECT_EQ(get.out, blob.payload);
    EXPECT_EQ(get.err, "");
    Outcome sub = yax({"get", image, "blob", "--sub-info"});
    EXPECT_EQ(sub.code, 0);
    EXPECT_EQ(sub.out, "meta");

    std::string out = dir.path("caption.out");
    Outcome getFile = yax({"get", image, "caption", "-o", out});
    EXPECT_EQ(getFile.code, 0);
    EXPECT_EQ(getFile.out, "");
    EXPECT_EQ(text(tu::readFile(out)), caption.payload);
    // photo.jpg, caption.txt, sub.bin, caption.out: no temporary left behind.
    EXPECT_TRUE(lacksTemporaries(dir, 4)) << ::testing::PrintToString(dir.list());

    Outcome json = yax({"list", image, "--json"});
    ASSERT_EQ(json.code, 0);
    nlohmann::json doc = nlohmann::json::parse(json.out);
    ASSERT_EQ(doc["entries"].size(), 2u);
    const nlohmann::json &j = doc["entries"][1];
    EXPECT_EQ(j["name"], "blob");
    EXPECT_EQ(j["type"], 7);
    EXPECT_EQ(j["kind"], "entry");
    EXPECT_EQ(j["length"], blob.payload.size());
    EXPECT_EQ(j["sub_info_length"], 4);
    int64_t blobStart = static_cast<int64_t>(jpeg.size()) + tb::blockLength(caption);
    EXPECT_EQ(j["offset"], payloadAt(blobStart, blob));
    EXPECT_EQ(j["sub_info_offset"], subAt(blobStart, blob));
    EXPECT_TRUE(doc["legacy_audio"].empty());

    // The image in front of the trailer still decodes.
    if (access("/usr/bin/djpeg", X_OK) == 0) {
        std::string cmd = "/usr/bin/djpeg '" + image + "' > /dev/null 2>&1";
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }
}

TEST_F(ToolTest, ReplaceAndRemove) {
    tb::Entry a{1, "a", "first", ""}, b{2, "b", "second", ""}, c{3, "c", "third", ""};
    for (const tb::Entry &e : {a, b, c})
        ASSERT_EQ(yax({"put", image, e.name, "--type", std::to_string(e.type)}, e.payload).code, 0);
    Bytes three = jpeg + tb::trailer({a, b, c});
    ASSERT_EQ(tu::readFile(image), three);

    // A name that is there is kept unless --replace is given.
    expectFailure(yax({"put", image, "a"}, "other"),
                  image + ": an entry named 'a' already exists (use --replace to overwrite it)");
    EXPECT_EQ(tu::readFile(image), three);

    // A replaced entry moves to the end of the table.
    tb::Entry a2{1, "a", "replacement", ""};
    Outcome rep = yax({"put", image, "a", "--replace"}, a2.payload);
    EXPECT_EQ(rep.code, 0) << rep.err;
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({b, c, a2}));

    // rm checks every name before touching the file.
    expectFailure(yax({"rm", image, "b", "nope"}), image + ": no entry named 'nope'");
    expectFailure(yax({"rm", image, "b", "b"}), "'b' is named twice");
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({b, c, a2}));

    Outcome rm = yax({"rm", image, "b", "a"});
    EXPECT_EQ(rm.code, 0) << rm.err;
    EXPECT_EQ(rm.out + rm.err, "");
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({c}));
    EXPECT_TRUE(lacksTemporaries(dir, 1)) << ::testing::PrintToString(dir.list());

    // Removing the last entry gives the image back as it was.
    EXPECT_EQ(yax({"rm", image, "c"}).code, 0);
    EXPECT_EQ(tu::readFile(image), jpeg);
    expectFailure(yax({"get", image, "c"}), image + ": no entry named 'c'");

    // clear on a file with entries, then on a file without any.
    ASSERT_EQ(yax({"put", image, "a"}, "x").code, 0);
    EXPECT_EQ(yax({"clear", image}).code, 0);
    EXPECT_EQ(tu::readFile(image), jpeg);
    Outcome again = yax({"clear", image});
    EXPECT_EQ(again.code, 0);
    EXPECT_EQ(again.out + again.err, "");
    EXPECT_TRUE(lacksTemporaries(dir, 1)) << ::testing::PrintToString(dir.list());
}

// Fast edits never change the bytes in front of the trailer or the file's
// length once there is room; removed entries turn into the filler.
TEST_F(ToolTest, FastEditsKeepTheLength) {
    tb::Entry a{1, "a", std::string(100, 'a'), ""}, b{1, "b", std::string(50, 'b'), ""};
    ASSERT_EQ(yax({"put", image, "a", "--fast"}, a.payload).code, 0);
    ASSERT_EQ(yax({"put", image, "b", "--fast"}, b.payload).code, 0);
    Bytes both = jpeg + tb::trailer({a, b});
    ASSERT_EQ(tu::readFile(image), both);

    Outcome rm = yax({"rm", image, "a", "--fast"});
    EXPECT_EQ(rm.code, 0) << rm.err;
    Bytes afterRm = tu::readFile(image);
    EXPECT_EQ(afterRm.size(), both.size());
    EXPECT_TRUE(std::equal(jpeg.begin(), jpeg.end(), afterRm.begin()));

    Outcome list = yax({"list", image});
    ASSERT_EQ(list.code, 0);
    std::vector<std::string> lines = split(list.out, '\n');
    ASSERT_EQ(lines.size(), 2u) << list.out;
    EXPECT_EQ(lines[0].rfind("0\tInvalid_Data\t32766\t", 0), 0u) << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - 7), "\tfiller");
    EXPECT_EQ(lines[1].rfind("1\tb\t1\t50\t0\t", 0), 0u) << lines[1];
    EXPECT_EQ(yax({"get", image, "b"}).out, b.payload);

    // A block of the removed one's size fills its space exactly.
    tb::Entry c{1, "c", std::string(100, 'c'), ""};
    ASSERT_EQ(yax({"put", image, "c", "--fast"}, c.payload).code, 0);
    EXPECT_EQ(tu::readFile(image).size(), both.size());
    EXPECT_EQ(yax({"get", image, "c"}).out, c.payload);

    // Fast clear: one filler block spanning the whole trailer, same length.
    uint32_t whole = static_cast<uint32_t>(both.size() - jpeg.size());
    EXPECT_EQ(yax({"clear", image, "--fast"}).code, 0);
    EXPECT_EQ(tu::readFile(image),
              jpeg + tb::fillerBlock(whole - 32) + tb::header({{0x7FFEu << 16, whole - 32, whole - 32}}));
}

TEST_F(ToolTest, MissingFilesAndNames) {
    std::string missing = dir.path("missing.jpg");
    std::string why = "cannot open " + missing + ": No such file or directory";
    expectFailure(yax({"list", missing}), why);
    expectFailure(yax({"get", missing, "a"}), why);
    expectFailure(yax({"put", missing, "a"}, "data"), why);
    expectFailure(yax({"rm", missing, "a"}), why);
    expectFailure(yax({"clear", missing}), why);
    expectFailure(yax({"list", dir.dir()}), dir.dir() + " is a directory");
    EXPECT_FALSE(tu::exists(missing));

    // Payload files that cannot be read, and payloads the library refuses.
    std::string noData = dir.path("nodata.bin");
    expectFailure(yax({"put", image, "a", noData}), "cannot open " + noData + ": No such file or directory");
    expectFailure(yax({"put", image, "a", dir.dir()}), dir.dir() + " is a directory");
    expectFailure(yax({"put", image, "a"}, ""), "the payload is empty; an entry needs at least one byte");
    expectFailure(yax({"put", image, "a", "--type", "0"}, "x"),
                  "data type 0 needs sub-information (--sub-info FILE)");
    expectFailure(yax({"put", image, "", "-"}, "x"), "the entry name is empty");
    EXPECT_EQ(tu::readFile(image), jpeg);

    ASSERT_EQ(yax({"put", image, "a"}, "x").code, 0);
    expectFailure(yax({"get", image, "A"}), image + ": no entry named 'A'");
    expectFailure(yax({"get", image, "a", "--sub-info"}), image + ": entry 'a' has no sub-information");
    expectFailure(yax({"get", image, "zz", "-o", dir.path("zz.out")}), image + ": no entry named 'zz'");
    EXPECT_FALSE(tu::exists(dir.path("zz.out")));
}

// A trailer whose header claims far more rows than the file can hold: every
// command refuses it with one line, the library's log stays off both streams,
// and nothing is written.
TEST_F(ToolTest, DamagedTrailer) {
    tb::Entry a{1, "a", "payload", ""};
    Bytes damaged = jpeg + tb::block(a) + tb::header(tb::rowsFor({a}), 105, 100000);
    tu::writeFile(image, damaged);
    std::string why = image + ": the trailer is damaged and cannot be read";

    expectFailure(yax({"list", image}), why);
    expectFailure(yax({"get", image, "a"}), why);
    expectFailure(yax({"put", image, "b"}, "data"), why);
    expectFailure(yax({"rm", image, "a"}), why);
    EXPECT_EQ(tu::readFile(image), damaged);

    // --verbose shows the library's own lines, on standard error only.
    Outcome verbose = yax({"--verbose", "list", image});
    EXPECT_EQ(verbose.code, 1);
    EXPECT_EQ(verbose.out, "");
    EXPECT_NE(verbose.err.find("YAXLog\tE\t"), std::string::npos) << verbose.err;
    EXPECT_EQ(verbose.err.substr(verbose.err.size() - why.size() - 6), "yax: " + why + "\n");
}

// Legacy audio and TonePhoto entries are listed with their kinds; fast edits
// refuse legacy audio, a normal save converts it.
TEST_F(ToolTest, LegacyAudioAndTonePhoto) {
    std::string sound(40, 's');
    uint32_t start = static_cast<uint32_t>(jpeg.size());
    Bytes legacy = jpeg + bytesOf(sound) + tb::vonoBlock({{start, start + 40}});
    tu::writeFile(image, legacy);
    Outcome list = yax({"list", image});
    EXPECT_EQ(list.code, 0) << list.err;
    EXPECT_EQ(list.out, "audio0\t-\t-\t40\t-\t" + std::to_string(start) + "\tlegacy-audio\n");

    // Fast edits leave legacy audio alone and say so.
    expectFailure(yax({"put", image, "a", "--fast"}, "x"),
                  image + ": --fast cannot edit a file that holds legacy audio; save without --fast");
    expectFailure(yax({"clear", image, "--fast"}),
                  image + ": --fast cannot remove legacy audio; clear without --fast");
    EXPECT_EQ(tu::readFile(image), legacy);

    // A normal save turns the legacy sound into TonePhoto entries first.
    ASSERT_EQ(yax({"put", image, "note", "--type", "5"}, "hi").code, 0);
    Outcome converted = yax({"list", image});
    std::vector<std::string> rows = split(converted.out, '\n');
    ASSERT_EQ(rows.size(), 4u) << converted.out;
    // The legacy header is kept behind the trailer and points at the sound entry's payload.
    std::string soundAt = std::to_string(start + 8 + 13);
    EXPECT_EQ(rows[0], "0\tTonePhoto_000\t256\t40\t0\t" + soundAt + "\ttonephoto-sound");
    EXPECT_EQ(rows[3], "audio0\t-\t-\t40\t-\t" + soundAt + "\tlegacy-audio");
    EXPECT_EQ(rows[1].rfind("1\tTonePhoto_Meta_Info\t2048\t", 0), 0u) << rows[1];
    EXPECT_EQ(rows[2].rfind("2\tnote\t5\t2\t0\t", 0), 0u) << rows[2];
    EXPECT_EQ(yax({"get", image, "TonePhoto_000"}).out, sound);
    Bytes after = tu::readFile(image);
    EXPECT_TRUE(std::equal(jpeg.begin(), jpeg.end(), after.begin()));

    tb::Entry tone{256, "TonePhoto_000", sound, ""};
    tb::Entry meta{2048, "TonePhoto_Meta_Info", text(tb::toneList({"TonePhoto_000"})), ""};
    tb::Entry note{1, "note", "hi", ""};
    tu::writeFile(image, jpeg + tb::trailer({tone, meta, note}));
    Outcome tp = yax({"list", image});
    EXPECT_EQ(tp.code, 0) << tp.err;
    std::vector<std::string> lines = split(tp.out, '\n');
    std::vector<std::string> plain = split(listLines(jpeg.size(), {tone, meta, note}), '\n');
    ASSERT_EQ(lines.size(), 3u) << tp.out;
    EXPECT_EQ(lines[0], plain[0] + "\ttonephoto-sound");
    EXPECT_EQ(lines[1], plain[1] + "\ttonephoto-list");
    EXPECT_EQ(lines[2], plain[2]);
}

}  // namespace
