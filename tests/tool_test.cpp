// The yax tool end to end, run as a separate program the way a user runs it:
// exit codes, standard output and error, and the edited files byte for byte.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <termios.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <tuple>

#include <nlohmann/json.hpp>

#include "testutil.hpp"

namespace {

using namespace tb;
using Strings = std::vector<std::string>;  // arguments, file names
using Commands = std::vector<Strings>;

// Exit code, standard output, standard error.
using Outcome = std::tuple<int, std::string, std::string>;
Outcome ok(const std::string &out = "") { return {0, out, ""}; }
Outcome failed(const std::string &message) { return {1, "", "yax: " + message + "\n"}; }

std::string text(const Bytes &b) { return std::string(b.begin(), b.end()); }

class ToolTest : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string image = dir.path("photo.jpg");
    Bytes jpeg = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.jpg");

    ToolTest() { tu::writeFile(image, jpeg); }

    // Runs the tool (through the emulator when cross-compiled) with `input` on
    // its standard input. The dot files it leaves are not listed by dir.list().
    Outcome yax(const Strings &args, const std::string &input = "") const {
        std::string cmd = tool(), in = dir.path(".in"), out = dir.path(".out"), err = dir.path(".err");
        for (const std::string &a : args) cmd += "'" + a + "' ";
        tu::writeFile(in, tb::bytes(input));
        int status = std::system((cmd + "<'" + in + "' >'" + out + "' 2>'" + err + "'").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(tu::readFile(out)),
                text(tu::readFile(err))};
    }
    // The command that starts the tool, quoted for the shell.
    static std::string tool() {
        std::string cmd;
        std::istringstream words(YAX_TOOL_LAUNCHER "|" YAX_TOOL);
        for (std::string word; std::getline(words, word, '|');)
            if (!word.empty()) cmd += "'" + word + "' ";
        return cmd;
    }
    // An offset `n` bytes past the image, as the tool prints it.
    std::string at(size_t n) const { return std::to_string(jpeg.size() + n); }
};

// put, list, get and the whole file against bytes built independently.
TEST_F(ToolTest, PutListGetRoundTrip) {
    Entry caption{1, "caption", "a sunny day\n", ""};
    Entry blob{7, "blob", std::string("\x00\x01\xff\n\r\x1a", 6) + std::string(300, 'z'), "meta"};
    std::string captionFile = dir.path("caption.txt"), subFile = dir.path("sub.bin");
    tu::writeFile(captionFile, tb::bytes(caption.payload));
    tu::writeFile(subFile, tb::bytes(blob.sub));

    EXPECT_EQ(yax({"list", image}), ok());
    EXPECT_EQ(yax({"put", image, "caption", captionFile}), ok());
    EXPECT_EQ(yax({"put", image, "blob", "-", "--type", "7", "--sub-info", subFile}, blob.payload),
              ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({caption, blob}));
    // caption's block is 27 bytes; blob's payload follows its 20-byte head.
    EXPECT_EQ(yax({"list", image}),
              ok("0\tcaption\t1\t12\t0\t" + at(15) + "\n1\tblob\t7\t306\t4\t" + at(47) + "\n"));
    EXPECT_EQ(yax({"get", image, "blob"}), ok(blob.payload));
    EXPECT_EQ(yax({"get", image, "blob", "--sub-info"}), ok(blob.sub));
    EXPECT_EQ(yax({"get", image, "caption", "-o", dir.path("caption.out")}), ok());
    EXPECT_EQ(text(tu::readFile(dir.path("caption.out"))), caption.payload);
    EXPECT_EQ(dir.list(), (Strings{"caption.out", "caption.txt", "photo.jpg", "sub.bin"}));

    nlohmann::json doc = nlohmann::json::parse(std::get<1>(yax({"list", image, "--json"})));
    EXPECT_TRUE(doc["file"] == image && doc["tonephoto"].empty() && doc["legacy_audio"].empty()) << doc;
    EXPECT_EQ(doc["entries"][1], nlohmann::json::parse(R"({"index": 1, "name": "blob", "type": 7,
        "kind": "entry", "length": 306, "offset": )" + at(47) + R"(, "sub_info_length": 4,
        "sub_info_offset": )" + at(43) + "}"));
}

TEST_F(ToolTest, ReplaceAndRemove) {
    Entry a{1, "a", "first", ""}, b{2, "b", "second", ""}, c{3, "c", "third", ""};
    for (const Entry &e : {a, b, c})
        ASSERT_EQ(yax({"put", image, e.name, "--type", std::to_string(e.type)}, e.payload), ok());

    // A name that is there is kept unless --replace is given; a replaced entry
    // moves to the end of the table.
    EXPECT_EQ(yax({"put", image, "a"}, "other"),
              failed(image + ": an entry named 'a' already exists (use --replace to overwrite it)"));
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({a, b, c}));
    Entry a2{1, "a", "replacement", ""};
    EXPECT_EQ(yax({"put", image, "a", "--replace"}, a2.payload), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({b, c, a2}));

    // rm checks every name before touching the file.
    EXPECT_EQ(yax({"rm", image, "b", "nope"}), failed(image + ": no entry named 'nope'"));
    EXPECT_EQ(yax({"rm", image, "b", "b"}), failed("'b' is named twice"));
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({b, c, a2}));
    EXPECT_EQ(yax({"rm", image, "b", "a"}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({c}));

    // Removing the last entry gives the image back as it was; so does clear,
    // which is quiet on a file without entries.
    EXPECT_EQ(yax({"rm", image, "c"}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg);
    ASSERT_EQ(yax({"put", image, "a"}, "x"), ok());
    EXPECT_EQ(yax({"clear", image}), ok());
    EXPECT_EQ(yax({"clear", image}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg);
    EXPECT_EQ(dir.list(), Strings{"photo.jpg"});
}

// Fast edits keep the bytes in front of the trailer and the file's length once
// there is room: a removed entry turns into filler of its size, which a block
// of that size takes over.
TEST_F(ToolTest, FastEditsKeepTheLength) {
    Entry a{1, "a", std::string(100, 'a'), ""}, b{1, "b", std::string(50, 'b'), ""}, c{1, "c", a.payload, ""};
    ASSERT_EQ(yax({"put", image, "a", "--fast"}, a.payload), ok());
    ASSERT_EQ(yax({"put", image, "b", "--fast"}, b.payload), ok());
    EXPECT_EQ(yax({"rm", image, "a", "--fast"}), ok());
    // Blocks of 109 and 59 bytes; the filler keeps a's row offset and length.
    Bytes rows = tb::header({{0x7FFEu << 16, 168, 109}, {1u << 16, 59, 59}});
    EXPECT_EQ(tu::readFile(image), jpeg + tb::fillerBlock(109) + tb::block(b) + rows);
    // The filler's payload follows its 20-byte head; b's follows its 9 bytes.
    EXPECT_EQ(yax({"list", image}),
              ok("0\tInvalid_Data\t32766\t89\t0\t" + at(20) + "\tfiller\n1\tb\t1\t50\t0\t" + at(118) + "\n"));

    ASSERT_EQ(yax({"put", image, "c", "--fast"}, c.payload), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({c, b}));

    // Fast clear: one filler block and a one-row header (32 bytes) in the
    // trailer's place.
    auto filler = static_cast<uint32_t>(tb::trailer({c, b}).size() - 32);
    EXPECT_EQ(yax({"clear", image, "--fast"}), ok());
    EXPECT_EQ(tu::readFile(image),
              jpeg + tb::fillerBlock(filler) + tb::header({{0x7FFEu << 16, filler, filler}}));
}

// Exit 0 for help, 2 with one line on standard error for usage errors, 1 and
// the exact line for everything the tool refuses, leaving the files untouched.
TEST_F(ToolTest, HelpUsageErrorsAndRefusals) {
    EXPECT_EQ(std::get<0>(yax({"--help"})), 0);
    for (const Strings &args : Commands{{}, {"get", image}, {"put", image, "x", "--type", "65536"}}) {
        auto [code, out, err] = yax(args);
        EXPECT_TRUE(code == 2 && out.empty() && err.rfind("yax: ", 0) == 0 &&
                    err.find('\n') + 1 == err.size()) << code << out << err;
    }
    std::string missing = dir.path("missing.jpg"), noData = dir.path("nodata.bin");
    std::string noFile = ": No such file or directory";
    for (const Strings &args : Commands{{"list", missing}, {"put", missing, "a"}, {"clear", missing}})
        EXPECT_EQ(yax(args, "data"), failed("cannot open " + missing + noFile)) << args[0];
    EXPECT_EQ(yax({"list", dir.dir()}), failed(dir.dir() + " is a directory"));
    EXPECT_EQ(yax({"put", image, "a", noData}), failed("cannot open " + noData + noFile));
    EXPECT_EQ(yax({"put", image, "a", dir.dir()}), failed(dir.dir() + " is a directory"));
    EXPECT_EQ(yax({"put", image, "a"}, ""), failed("the payload is empty; an entry needs at least one byte"));
    EXPECT_EQ(yax({"put", image, "a", "--type", "0"}, "x"),
              failed("data type 0 needs sub-information (--sub-info FILE)"));
    EXPECT_EQ(yax({"put", image, "", "-"}, "x"), failed("the entry name is empty"));
    EXPECT_EQ(tu::readFile(image), jpeg);

    ASSERT_EQ(yax({"put", image, "a"}, "x"), ok());
    EXPECT_EQ(yax({"get", image, "a", "--sub-info"}), failed(image + ": entry 'a' has no sub-information"));
    EXPECT_EQ(yax({"get", image, "zz", "-o", dir.path("zz.out")}), failed(image + ": no entry named 'zz'"));
    EXPECT_EQ(dir.list(), Strings{"photo.jpg"});

    // A trailer whose header claims far more rows than the file can hold:
    // refused with one line, nothing written; the library's log line shows on
    // standard error with --verbose only.
    Entry a{1, "a", "payload", ""};
    Bytes damaged = jpeg + tb::block(a) + tb::header(tb::rowsFor({a}), 105, 100000);
    tu::writeFile(image, damaged);
    std::string why = image + ": the trailer is damaged and cannot be read";
    for (const Strings &args : Commands{{"list", image}, {"get", image, "a"}, {"rm", image, "a"}})
        EXPECT_EQ(yax(args, "data"), failed(why)) << args[0];
    EXPECT_EQ(tu::readFile(image), damaged);
    std::string log = tu::errLine("YAX::ParseYAXList", "header is bigger then file -> that's not true!!");
    EXPECT_EQ(yax({"--verbose", "list", image}), Outcome(1, "", log + "yax: " + why + "\n"));
}

// put without a payload argument refuses a terminal on standard input
// instead of waiting for it; "-" still reads what is typed there, up to the
// first end-of-input. A line and end-of-input are typed ahead each time.
TEST_F(ToolTest, PutWithoutPayloadRefusesATerminal) {
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    std::string terminal = ptsname(master);
    int slave = open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);  // keeps the terminal alive between runs
    ASSERT_GE(slave, 0);
    auto typed = [&](const Strings &args) {
        tcflush(slave, TCIFLUSH);
        EXPECT_EQ(write(master, "typed\n\x04", 7), 7);
        std::string cmd = tool(), out = dir.path(".out"), err = dir.path(".err");
        for (const std::string &a : args) cmd += "'" + a + "' ";
        int status = std::system((cmd + "<'" + terminal + "' >'" + out + "' 2>'" + err + "'").c_str());
        return Outcome(WIFEXITED(status) ? WEXITSTATUS(status) : -1, text(tu::readFile(out)),
                       text(tu::readFile(err)));
    };
    for (const Strings &args : Commands{{"put", image, "a"}, {"put", image, "a", "--replace", "--fast"}})
        EXPECT_EQ(typed(args), failed("no payload given and standard input is a terminal; give a file, or - to type it"));
    EXPECT_EQ(tu::readFile(image), jpeg);
    EXPECT_EQ(typed({"put", image, "a", "-"}), ok());
    EXPECT_EQ(yax({"get", image, "a"}), ok("typed\n"));
    close(slave);
    close(master);
}

// Legacy audio is listed; fast edits refuse it, a normal save turns it into
// TonePhoto entries, listed with their kinds, and keeps the legacy block
// behind the trailer pointing at the sound entry's payload.
TEST_F(ToolTest, LegacyAudioAndTonePhoto) {
    std::string sound(40, 's');
    auto start = static_cast<uint32_t>(jpeg.size());
    Bytes legacy = jpeg + tb::bytes(sound) + tb::vonoBlock({{start, start + 40}});
    tu::writeFile(image, legacy);
    EXPECT_EQ(yax({"list", image}), ok("audio0\t-\t-\t40\t-\t" + at(0) + "\tlegacy-audio\n"));
    EXPECT_EQ(yax({"put", image, "a", "--fast"}, "x"),
              failed(image + ": --fast cannot edit a file that holds legacy audio; save without --fast"));
    EXPECT_EQ(yax({"clear", image, "--fast"}),
              failed(image + ": --fast cannot remove legacy audio; clear without --fast"));
    EXPECT_EQ(tu::readFile(image), legacy);

    Entry tone{256, "TonePhoto_000", sound, ""};
    Entry meta{2048, "TonePhoto_Meta_Info", text(tb::toneList({"TonePhoto_000"})), ""};
    ASSERT_EQ(yax({"put", image, "note", "--type", "5"}, "hi"), ok());
    EXPECT_EQ(tu::readFile(image),
              jpeg + tb::trailer({tone, meta, {5, "note", "hi", ""}}) +
                  tb::vonoBlock({{start + 21, start + 61}}));
    // Blocks of 61, 56 and 14 bytes; the sound's payload follows a 21-byte head.
    EXPECT_EQ(yax({"list", image}),
              ok("0\tTonePhoto_000\t256\t40\t0\t" + at(21) + "\ttonephoto-sound\n" +
                 "1\tTonePhoto_Meta_Info\t2048\t29\t0\t" + at(88) + "\ttonephoto-list\n" +
                 "2\tnote\t5\t2\t0\t" + at(129) + "\nsound0\tTonePhoto_000\t-\t40\t-\t" + at(21) +
                 "\tsound\naudio0\t-\t-\t40\t-\t" + at(21) + "\tlegacy-audio\n"));
}

// yax sound on JPEGs: add, list in the name list's order, get, rm (the
// library's delete would drop the wrong name), clear keeping other entries;
// each step checked byte for byte, the image decoding throughout.
TEST_F(ToolTest, SoundsOnImages) {
    const auto P = static_cast<uint32_t>(jpeg.size());
    auto snd = [](const std::string &n, const std::string &d) { return Entry{256, n, d, ""}; };
    auto list = [](const Strings &names) {
        return Entry{2048, "TonePhoto_Meta_Info", text(tb::toneList(names)), ""};
    };
    const Entry r = snd("r", "R"), s = snd("s", "SS"), note{1, "note", "n", ""};
    auto decodes = [&] { return std::system(("djpeg -outfile /dev/null '" + image + "' 2>/dev/null").c_str()) == 0; };
    const std::string sep = "\t";
    const struct {
        Strings command;
        std::string input;
        Bytes want;
        std::string err;
    } steps[] = {
        {{"sound", "add", image, "r", "-"}, "R", jpeg + tb::trailer({r, list({"r"})}) + tb::vonoBlock({{P + 9, P + 10}}), ""},
        {{"put", image, "note", "-"}, "n",
         jpeg + tb::trailer({r, list({"r"}), note}) + tb::vonoBlock({{P + 9, P + 10}}), ""},
        {{"sound", "add", image, "s", "-"}, "SS",
         jpeg + tb::trailer({r, note, list({"r", "s"}), s}) + tb::vonoBlock({{P + 9, P + 10}}), ""},
        // "r" goes to the end of the list first; the end record stays on "r"'s bytes... which go:
        // it is aimed at "s" afterwards
        {{"sound", "rm", image, "r"}, "", {}, "moving 'r' to the end"},
        {{"sound", "clear", image}, "", jpeg + tb::trailer({note}), "keeping the other entries"},
        {{"rm", image, "note"}, "", jpeg, ""},
    };
    for (const auto &st : steps) {
        SCOPED_TRACE(st.command[0] + " " + st.command[1] + " step " + std::to_string(&st - steps));
        const auto [code, out, err] = yax(st.command, st.input);
        EXPECT_EQ(code, 0);
        EXPECT_EQ(out, "");
        EXPECT_EQ(err.find(st.err) != std::string::npos, true) << err;
        if (!st.want.empty()) {
            EXPECT_EQ(tu::readFile(image), st.want);
        }
        EXPECT_TRUE(decodes());
        if (&st - steps == 2) {
            EXPECT_EQ(yax({"sound", "get", image, "s"}), ok("SS"));
            const std::string listing = std::get<1>(yax({"list", image}));
            EXPECT_NE(listing.find("sound0\tr\t-\t1\t-\t" + at(9) + "\tsound\nsound1\ts\t-\t2\t-\t"), std::string::npos)
                << listing;
        }
        if (&st - steps == 3) {
            const Bytes b = tu::readFile(image);
            const uint32_t at_s = P + tb::blockLength(note) + 9;  // "s" now follows "note"
            EXPECT_EQ(b, jpeg + tb::trailer({note, s, list({"s"})}) + tb::vonoBlock({{at_s, at_s + 2}}));
            EXPECT_NE(err.find("now points at 's'"), std::string::npos) << err;
            EXPECT_EQ(yax({"sound", "get", image, "audio0"}), ok("SS"));
        }
    }
    // clearing sounds alone gives the bare image back; a legacy sound is audio0
    ASSERT_EQ(std::get<0>(yax({"sound", "add", image, "r", "-"}, "R")), 0);
    EXPECT_EQ(yax({"sound", "clear", image}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg);
    const Bytes legacy = jpeg + tb::bytes("old") + tb::vonoBlock({{P, P + 3}});
    tu::writeFile(image, legacy);
    EXPECT_EQ(yax({"sound", "get", image, "audio0", "-o", dir.path("a.raw")}), ok());
    EXPECT_EQ(text(tu::readFile(dir.path("a.raw"))), "old");
    std::remove(dir.path("a.raw").c_str());
    // adding to it turns the legacy sound into "TonePhoto_000"
    EXPECT_EQ(yax({"sound", "add", image, "x", "-"}, "X"), ok());
    const Entry t0{256, "TonePhoto_000", "old", ""};
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({t0, list({"TonePhoto_000", "x"}), snd("x", "X")}) +
                                       tb::vonoBlock({{P + 21, P + 24}}));
    EXPECT_EQ(yax({"sound", "rm", image, "x"}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({t0, list({"TonePhoto_000"})}) + tb::vonoBlock({{P + 21, P + 24}}));

    // what an add that stopped part way leaves: an unlisted sound entry is
    // taken over, a listed name without an entry comes off the list
    tu::writeFile(image, jpeg + tb::trailer({snd("r", "old")}));
    EXPECT_EQ(yax({"sound", "add", image, "r", "-"}, "R"), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({r, list({"r"})}) + tb::vonoBlock({{P + 9, P + 10}}));
    tu::writeFile(image, jpeg + tb::trailer({r, list({"r", "ghost"})}));
    EXPECT_EQ(yax({"list", image}), ok("0\tr\t256\t1\t0\t" + at(9) + "\ttonephoto-sound\n1\tTonePhoto_Meta_Info\t2048\t" +
                                       "26\t0\t" + at(37) + "\ttonephoto-list\nsound0\tr\t-\t1\t-\t" + at(9) +
                                       "\tsound\nsound1\tghost\t-\t-\t-\t-\tmissing-sound\n"));
    EXPECT_EQ(std::get<0>(yax({"sound", "rm", image, "ghost"})), 0);
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({r, list({"r"})}));

    // refusals: one line, exit 1, the file untouched
    tu::writeFile(image, legacy);
    EXPECT_EQ(yax({"sound", "add", image, "TonePhoto_000", "-"}, "z"),
              failed(image + ": the legacy sound becomes 'TonePhoto_000' as it is converted; pick another name"));
    EXPECT_EQ(tu::readFile(image), legacy);
    ASSERT_EQ(std::get<0>(yax({"put", image, "note", "-"}, "n")), 0);
    const Bytes kept = tu::readFile(image);
    const std::string empty = dir.path("empty.wav");
    tu::writeFile(empty, {});
    for (const auto &[command, message] : std::vector<std::pair<Strings, std::string>>{
             {{"sound", "add", image, "note", "-"}, image + ": an entry named 'note' exists and is not a sound; remove it first"},
             {{"sound", "add", image, "TonePhoto_Meta_Info", "-"}, "'TonePhoto_Meta_Info' is reserved; pick another"},
             {{"sound", "add", image, "", "-"}, "the sound name is empty"},
             {{"sound", "add", image, "e", empty}, "the sound is empty"},
             {{"sound", "rm", image, "note"}, image + ": no sound named 'note'"},
             {{"sound", "get", image, "audio9"}, image + ": no sound named 'audio9'"},
             {{"sound", "add", dir.path("none.jpg"), "a", "-"}, ""},
         }) {
        const auto [code, out, err] = yax(command, "z");
        EXPECT_EQ(code, 1) << message;
        if (!message.empty()) {
            EXPECT_EQ(err, "yax: " + message + "\n");
        }
        EXPECT_EQ(tu::readFile(image), kept) << message;
    }
    EXPECT_EQ(std::get<0>(yax({"sound"})), 2);
}

// Edits whose result the library could not read back are refused beforehand
// (a trailer behind a 17-byte image: the parse counts the rows twice), as is
// the filler's name; a fast replace or delete of a block under 20 bytes
// takes out that entry alone.
TEST_F(ToolTest, RefusalsThatKeepTheFileReadableAndTheSmallestBlocks) {
    const Bytes tiny = tb::bytes("\xff\xd8\xff\xe0hello-image\xff\xd9");
    tu::writeFile(image, tiny);
    const std::string small = image + ": the image in front of the entries is too small for this edit; the "
                                      "library could not read the file back afterwards";
    EXPECT_EQ(yax({"put", image, "a"}, "abcde"), failed(small));
    EXPECT_EQ(yax({"put", image, "a"}, "abcdef"), ok());  // 17 + 15 bytes: just enough for one row
    EXPECT_EQ(yax({"put", image, "b"}, "x"), failed(small));
    EXPECT_EQ(yax({"rm", image, "a"}), ok());
    EXPECT_EQ(tu::readFile(image), tiny);
    EXPECT_EQ(yax({"put", image, "Invalid_Data"}, "x"),
              failed("'Invalid_Data' is the name of the filler that fast edits reuse; pick another"));

    tu::writeFile(image, jpeg);
    const Entry meta{1, "photo-meta", std::string(24, 'm'), ""};
    for (const char *v : {"abcd", "wxyz"})
        ASSERT_EQ(yax({"put", image, "flag", "--fast", "--replace"}, v), ok());
    ASSERT_EQ(yax({"put", image, "photo-meta"}, meta.payload), ok());
    EXPECT_EQ(yax({"put", image, "flag", "--fast", "--replace"}, "1"), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({meta, {1, "flag", "1", ""}}));
    EXPECT_EQ(yax({"rm", image, "flag", "--fast"}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({meta}));
}

// Two put loops of 25 names each on one file at once, three times: the lock
// queues them, and every one of the 50 entries is there afterwards.
TEST_F(ToolTest, ConcurrentPutsQueueOnTheLock) {
    const std::string fails = dir.path(".fails");
    const auto loop = [&](const char *prefix) {
        return "(for i in $(seq 1 25); do printf x | " + tool() + "put '" + image + "' " + prefix +
               "$i - || echo " + prefix + "$i >> '" + fails + "'; done)";
    };
    for (int round = 0; round < 3; ++round) {
        tu::writeFile(image, jpeg);
        ASSERT_EQ(0, std::system((loop("a") + " & " + loop("b") + " & wait").c_str()));
        EXPECT_FALSE(tu::exists(fails)) << text(tu::readFile(fails));
        const auto [code, out, err] = yax({"list", image});
        ASSERT_EQ(0, code) << err;
        for (const char *prefix : {"a", "b"})
            for (int i = 1; i <= 25; ++i)
                EXPECT_NE(std::string::npos, out.find("\t" + std::string(prefix) + std::to_string(i) + "\t1\t1\t"))
                    << "round " << round << ": " << prefix << i;
        EXPECT_EQ(50, std::count(out.begin(), out.end(), '\n'));
    }
}

// Every kind of edit through a symlink keeps the link, the other hard link,
// the mode, the owner (when this runs as root) and the extended attributes,
// and leaves no temporary or undo file behind.
TEST_F(ToolTest, EditsKeepModeOwnerAttributesAndLinks) {
    const std::string link = dir.path("link.jpg"), hard = dir.path("hard.jpg");
    ASSERT_EQ(0, symlink(image.c_str(), link.c_str()));
    ASSERT_EQ(0, ::link(image.c_str(), hard.c_str()));
    ASSERT_EQ(0, chmod(image.c_str(), 0640));
    const bool root = geteuid() == 0 && chown(image.c_str(), 1234, 4321) == 0;
    const bool xattrs = setxattr(image.c_str(), "user.note", "kept", 4, 0) == 0;
    const std::vector<Strings> edits = {{"put", link, "a"},          {"put", link, "b"},
                                        {"put", link, "b", "--replace"}, {"rm", link, "a"},
                                        {"put", link, "b", "--fast", "--replace"},
                                        {"rm", link, "b", "--fast"},  {"put", link, "c"},
                                        {"clear", link}};
    for (const Strings &edit : edits) {
        SCOPED_TRACE(edit[0] + " " + edit.back());
        ASSERT_EQ(yax(edit, "payload"), ok());
        struct stat st {};
        EXPECT_TRUE(lstat(link.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
        ASSERT_EQ(0, stat(image.c_str(), &st));
        EXPECT_EQ(0640u, st.st_mode & 07777);
        EXPECT_EQ(2u, st.st_nlink);
        EXPECT_TRUE(!root || (st.st_uid == 1234 && st.st_gid == 4321));
        char value[8] = {};
        EXPECT_TRUE(!xattrs || getxattr(image.c_str(), "user.note", value, sizeof value) == 4);
        EXPECT_EQ(tu::readFile(hard), tu::readFile(image));
        EXPECT_EQ(dir.list(), (Strings{"hard.jpg", "link.jpg", "photo.jpg"}));
        EXPECT_EQ(0, std::system(("test -z \"$(ls -A '" + dir.dir() + "' | grep -v '^\\.\\(in\\|out\\|err\\)$' | grep '^\\.')\"").c_str()));
    }
    EXPECT_EQ(tu::readFile(image), jpeg);
}

// Payloads are streamed, not held: from a pipe (copied to a file without a
// name first), from the target itself, at a copy chunk and a byte, and out
// again to standard output and to a file. Nothing is left beside the file.
TEST_F(ToolTest, PayloadsFromPipesAndFromTheTargetItself) {
    Bytes big(size_t{1} << 18 | 1);
    for (size_t i = 0; i < big.size(); ++i) big[i] = uint8_t(i * 13 + (i >> 8));
    const std::string src = dir.path(".big");
    tu::writeFile(src, big);
    const std::string pipe = "cat '" + src + "' | " + tool() + "put '" + image + "' big - >/dev/null 2>&1";
    ASSERT_EQ(0, std::system(pipe.c_str()));
    const Bytes before = tu::readFile(image);
    EXPECT_EQ(before, jpeg + tb::trailer({Entry{1, "big", text(big), ""}}));
    EXPECT_EQ(yax({"put", image, "self", image}), ok());
    EXPECT_EQ(yax({"put", image, "self2", "-"}, text(before)), ok());
    EXPECT_EQ(yax({"get", image, "big"}), ok(text(big)));
    EXPECT_EQ(yax({"get", image, "self", "-o", dir.path("self.out")}), ok());
    EXPECT_EQ(tu::readFile(dir.path("self.out")), before);
    EXPECT_EQ(yax({"get", image, "self2"}), ok(text(before)));
    std::set<std::string> names;
    for (const auto &e : std::filesystem::directory_iterator(dir.dir())) names.insert(e.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{".big", ".err", ".in", ".out", "photo.jpg", "self.out"}));
}

}  // namespace

namespace {

// An MP4 file: puts go into one "yaxd" box sized over everything after its
// head; replaces, deletes of every kind and clear keep it sized (or drop its
// bare head), the video reads the same after each, and clear gives the
// original bytes back.
TEST_F(ToolTest, Mp4EditsKeepOneSizedBoxAndTheVideo) {
    const Bytes clip = tu::readFile(std::string(YAX_TEST_DATA) + "/sample.mp4");
    const std::string video = dir.path("clip.mp4");
    tu::writeFile(video, clip);
    auto probe = [&] {
        std::string out;
        if (FILE *p = popen(("ffprobe -v error -show_entries stream=codec_name,nb_frames:format=duration "
                             "-of compact '" + video + "' 2>&1").c_str(), "r")) {
            char buf[256];
            while (fgets(buf, sizeof buf, p)) out += buf;
            pclose(p);
        }
        return out;
    };
    const std::string before = probe();
    const Entry a{1, "a", "x", ""}, b{1, "b", "payload-b", ""}, a2{1, "a", std::string(40, 'y'), ""};
    const Entry snd{256, "s", "S", ""}, sndList{2048, "TonePhoto_Meta_Info", text(tb::toneList({"s"})), ""};
    auto box = [&](const std::vector<Entry> &entries) {
        const Bytes t = tb::trailer(entries);
        return clip + Builder().u32be(uint32_t(t.size() + 8)).str("yaxd").done() + t;
    };
    auto boxLine = [&](const std::vector<Entry> &entries) {
        return "yaxd\t-\t-\t" + std::to_string(tb::trailer(entries).size() + 8) + "\t-\t" +
               std::to_string(clip.size()) + "\tmp4-box\n";
    };
    const struct {
        Strings command;
        std::string input;
        Bytes want;  // empty: not checked byte for byte
        std::string list;
    } steps[] = {
        {{"put", video, "a", "-"}, a.payload, box({a}), "0\ta\t1\t1\t0\t" + std::to_string(clip.size() + 8 + 9) + "\n" + boxLine({a})},
        {{"put", video, "b", "-"}, b.payload, box({a, b}), ""},
        {{"put", video, "a", "-", "--replace"}, a2.payload, box({b, a2}), ""},
        {{"rm", video, "b"}, "", box({a2}), ""},
        {{"put", video, "b", "-", "--fast"}, b.payload, box({a2, b}), ""},
        {{"rm", video, "a", "--fast"}, "", {}, ""},
        {{"clear", video}, "", clip, ""},
        {{"put", video, "a", "-"}, a.payload, box({a}), ""},
        {{"rm", video, "a"}, "", clip, ""},
        // a sound and its list through the MP4 save, then gone again
        {{"sound", "add", video, "s", "-"}, "S", box({snd, sndList}), ""},
        {{"sound", "rm", video, "s"}, "", clip, ""},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.command[0] + " step " + std::to_string(&s - steps));
        ASSERT_EQ(yax(s.command, s.input), ok());
        if (!s.want.empty()) {
            EXPECT_EQ(tu::readFile(video), s.want);
        }
        if (!s.list.empty()) {
            EXPECT_EQ(yax({"list", video}), ok(s.list));
        }
        const Bytes now = tu::readFile(video);
        if (now.size() > clip.size()) {  // one box over everything after its head
            const Bytes head(now.begin() + long(clip.size()), now.begin() + long(clip.size()) + 8);
            EXPECT_EQ(head, Builder().u32be(uint32_t(now.size() - clip.size())).str("yaxd").done());
        }
        EXPECT_EQ(probe(), before);
    }
}

// check: clean files exit 0 and print nothing; damaged ones print one line
// per problem and exit 1; fast edits of a damaged file, and the fast replace
// whose exact fit would leave stale bytes, take the rewriting way and say so,
// and never leave a file that check reports.
TEST_F(ToolTest, CheckAndFastEditsThatStayClean) {
    const Entry a{1, "a", std::string(25, 'a'), ""}, b{1, "b", std::string(30, 'b'), ""},
        c{1, "c", std::string(30, 'c'), ""}, f{0x7FFE, "Invalid_Data", std::string(14, '\0'), ""};
    tu::writeFile(image, jpeg + tb::trailer({a, b, c}));
    EXPECT_EQ(yax({"check", image}), ok());
    nlohmann::json doc = nlohmann::json::parse(std::get<1>(yax({"check", image, "--json"})));
    EXPECT_TRUE(doc["clean"] == true && doc["problems"].empty()) << doc;

    // a filler that is not row 0
    tu::writeFile(image, jpeg + tb::trailer({a, f, c}));
    EXPECT_EQ(yax({"check", image}),
              Outcome(1, image + ": filler: row 1 is a filler entry but not row 0\n", ""));
    // ... a fast rm of row 0 takes the rewriting way
    EXPECT_EQ(yax({"rm", image, "a", "--fast"}),
              Outcome(0, "", "yax: " + image + ": filler: row 1 is a filler entry but not row 0; "
                             "editing without --fast instead\n"));
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({f, c}));
    EXPECT_EQ(std::get<0>(yax({"check", image})), 0);

    // The documented exact-fit fast replace next to a filler: refused as fast.
    tu::writeFile(image, jpeg + tb::trailer({a, b, c}));
    EXPECT_EQ(yax({"rm", image, "a", "--fast"}), ok());
    const std::string fit = dir.path("fit");
    tu::writeFile(fit, tb::bytes(std::string(64, 'B')));  // 73 bytes: the merged filler
    EXPECT_EQ(yax({"put", image, "b", fit, "--replace", "--fast"}),
              Outcome(0, "", "yax: " + image + ": a fast replace of exactly this size would leave "
                             "stale bytes before the tail; editing without --fast instead\n"));
    EXPECT_EQ(yax({"check", image}), ok());
    for (const char *n : {"c", "b"}) {
        EXPECT_EQ(yax({"rm", image, n, "--fast"}), ok());
        EXPECT_EQ(yax({"check", image}), ok());
    }
    EXPECT_EQ(std::get<0>(yax({"check", dir.path("missing.jpg")})), 1);
}

}  // namespace

// cp: byte-exact into a plain image, clashes reported, refusals leave DST
// as it was, a legacy-only source is converted on a private copy only.
TEST_F(ToolTest, CopyEntriesBetweenFiles) {
    const std::string src = dir.path("src.jpg");
    const Entry a{1, "a", "x", ""}, b{3, "bb", "payload", "s"}, bare{3, "bb", "payload", ""};
    tu::writeFile(src, jpeg + tb::trailer({a, b}));
    EXPECT_EQ(yax({"cp", src, image}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({a, b}));
    EXPECT_EQ(yax({"cp", src, image}),
              Outcome(0, "", "yax: " + image + " already has an entry named 'a'; it is kept and not copied\n" +
                                 "yax: " + image + " already has an entry named 'bb'; it is kept and not copied\n"));
    EXPECT_EQ(yax({"cp", src, image, "--name", "a"}),
              failed(image + ": --name and --type copy only into a file without entries or legacy audio"));
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({a, b}));
    tu::writeFile(image, jpeg);
    EXPECT_EQ(yax({"cp", src, image, "--type", "3"}), ok());
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({bare}));
    tu::writeFile(image, jpeg);
    EXPECT_EQ(yax({"cp", src, image, "--name", "zz"}), failed(src + ": no entry named 'zz'"));
    EXPECT_EQ(yax({"cp", src, dir.path("none.jpg")}),
              failed("cannot open " + dir.path("none.jpg") + ": No such file or directory"));
    EXPECT_EQ(yax({"cp", image, image}), failed(image + " and " + image + " are the same file"));
    EXPECT_EQ(yax({"cp", image, src}), failed(image + ": holds no entries to copy"));
    EXPECT_EQ(tu::readFile(image), jpeg);

    // Legacy audio: converted on a private copy into a plain image, refused
    // into one with entries (the library would convert and copy nothing).
    const auto start = static_cast<uint32_t>(jpeg.size());
    const Bytes legacy = jpeg + tb::bytes("snd!") + tb::vonoBlock({{start, start + 4}});
    tu::writeFile(src, legacy);
    tu::writeFile(image, jpeg + tb::trailer({a}));
    EXPECT_EQ(yax({"cp", src, image}),
              failed(src + " holds legacy audio, which cannot be copied into a file that already has "
                           "entries or legacy audio; copy it into a file without them"));
    EXPECT_EQ(tu::readFile(image), jpeg + tb::trailer({a}));
    tu::writeFile(image, jpeg);
    const Outcome r = yax({"cp", src, image});
    EXPECT_EQ(std::get<0>(r), 0);
    EXPECT_EQ(std::get<2>(r), "yax: " + src + " holds legacy audio; it is turned into entries on a private copy, " +
                                  src + " is not changed\n");
    EXPECT_EQ(tu::readFile(src), legacy);
    const Entry sound{256, "TonePhoto_000", "snd!", ""};
    const Bytes tone = tb::trailer({sound, Entry{2048, "TonePhoto_Meta_Info", text(tb::toneList({"TonePhoto_000"})), ""}});
    EXPECT_EQ(tu::readFile(image), jpeg + tone + tb::vonoBlock({{start + 21, start + 25}}));
    EXPECT_EQ(dir.list(), (Strings{"photo.jpg", "src.jpg"}));
}

// A new image in front of the entries: in place where the library keeps
// every entry (same length), rebuilt where its move would lose one (a room
// too small for a filler head); refusals leave the file alone.
TEST_F(ToolTest, CoverKeepsEveryEntry) {
    const Entry a{1, "a", "x", ""}, b{3, "bb", "payload", "s"};
    const std::string cover = dir.path("cover.jpg");
    const auto fake = [](size_t n) {  // FF D8, filler, FF D9
        Bytes j(n, 0x55);
        j[0] = 0xFF, j[1] = 0xD8, j[n - 2] = 0xFF, j[n - 1] = 0xD9;
        return j;
    };
    for (size_t size : {jpeg.size(), jpeg.size() - 5}) {
        tu::writeFile(image, jpeg + tb::trailer({a, b}));
        tu::writeFile(cover, fake(size));
        const Outcome r = yax({"cover", image, cover});
        EXPECT_EQ(std::get<0>(r), 0) << size;
        EXPECT_EQ(tu::readFile(image), fake(size) + tb::trailer({a, b})) << size;
        EXPECT_EQ(std::get<2>(r).find("rebuilding the file instead") != std::string::npos, size != jpeg.size());
    }
    const Bytes before = tu::readFile(image);
    tu::writeFile(cover, tb::bytes("not an image"));
    EXPECT_EQ(yax({"cover", image, cover}),
              failed(cover + ": not a JPEG image (it must start with FF D8 and end with FF D9)"));
    tu::writeFile(cover, fake(40));
    EXPECT_EQ(yax({"cover", cover, cover}), failed(cover + ": holds no entries; there is nothing to keep behind a new image"));
    EXPECT_EQ(tu::readFile(image), before);
    EXPECT_EQ(dir.list(), (Strings{"cover.jpg", "photo.jpg"}));
}
