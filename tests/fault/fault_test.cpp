// Edits under injected failures and simulated crashes. Linked with the
// wrappers of shim.cpp and a static copy of the library (and of the yax
// tool's code, whose main is yax_main here), so every write, close, fsync,
// truncate, rename and allocation an edit makes can be made to fail.
#include <dirent.h>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <set>

#include "shim.hpp"
#include "testutil.hpp"
#include "yax_api.h"
#include "yax_support.h"
#include "yax_vono.h"

int yax_main(int argc, char **argv);

namespace {

using tb::Bytes;
using tb::operator+;

const std::vector<tb::Entry> kEntries = {{1, "first", std::string(40, 'a'), ""},
                                         {7, "second", std::string(25, 'b'), "sub-info"},
                                         {2, "s", "t", ""},  // a 10-byte block
                                         {3, "third", std::string(33, 'c'), ""}};
const Bytes kImage = tb::fakeImage(300);
const Bytes kStart = kImage + tb::trailer(kEntries);
const std::string kPayload(30, 'n');

// Library console lines (and their copies on standard error) go nowhere
// while the loops run.
struct Quiet {
    int out = dup(STDOUT_FILENO), err = dup(STDERR_FILENO);
    Quiet() {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        ::close(null);
    }
    ~Quiet() {
        std::fflush(stdout);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        ::close(out);
        ::close(err);
    }
};

// Every name in the folder, dot files included.
std::set<std::string> namesIn(const std::string &dir) {
    std::set<std::string> out;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") out.insert(e->d_name);
        closedir(d);
    }
    return out;
}

// Name -> payload of every entry the library reads from `path`.
std::map<std::string, Bytes> entriesOf(const std::string &path) {
    std::map<std::string, Bytes> out;
    YAXDATA *yd = checkYAXWithReadPM(path.c_str());
    const Bytes file = tu::readFile(path);
    for (uint32_t i = 0; yd != nullptr && i < yd->count; ++i) {
        YAXOFFSET64 *o = getYAXInFileByIndex64(yd, i);
        if (o != nullptr && yd->YAX_name_list[i] != nullptr && o->offset >= 0 &&
            uint64_t(o->offset + o->length) <= file.size())
            out[yd->YAX_name_list[i]] = Bytes(file.begin() + o->offset, file.begin() + o->offset + o->length);
        destroyYAXOFFSET64(o);
    }
    destroyYAXDATA(yd);
    return out;
}

// One edit: what it does to the file at a path, which entries it is meant
// to change, and whether its result tells success (the multi delete always
// reports 1).
struct Edit {
    const char *what;
    std::function<int(const char *)> run;
    std::set<std::string> targets;
    bool result_tells = true;
};

int save(const char *p, const char *name, bool fast, int option, const std::string &data = kPayload) {
    const auto n = uint32_t(strlen(name));
    return fast ? saveFastYAXDataToFile(p, name, n, nullptr, 0, data.data(), uint32_t(data.size()), 1, option)
                : saveYAXDataToFile(p, name, n, nullptr, 0, data.data(), uint32_t(data.size()), 1, option);
}

int byHandle(const char *p, const std::vector<const char *> &names) {
    YAXDATA *h = checkYAXInFile(p);
    if (h == nullptr) return 0;
    int r = names.size() == 1 ? deleteYAXDataFromFilebyName(&h, names[0], int(strlen(names[0])))
                              : deleteYAXMultiDataFromFilebyName(&h, const_cast<const char **>(names.data()),
                                                                 uint32_t(names.size()));
    destroyYAXDATA(h);
    return r;
}

const std::vector<Edit> kEdits = {
    {"add", [](const char *p) { return save(p, "new", false, 0); }, {}},
    {"replace", [](const char *p) { return save(p, "second", false, 1); }, {"second"}},
    {"fast add", [](const char *p) { return save(p, "new", true, 0); }, {}},
    {"fast replace", [](const char *p) { return save(p, "second", true, 1); }, {"second"}},
    {"fast replace of a 10-byte block", [](const char *p) { return save(p, "s", true, 1, "u"); }, {"s"}},
    {"delete", [](const char *p) { return byHandle(p, {"second"}); }, {"second"}},
    {"multi delete", [](const char *p) { return byHandle(p, {"first", "s"}); }, {"first", "s"}, false},
    {"fast delete", [](const char *p) { return deleteFastAYAXData(p, "second"); }, {"second"}},
    {"fast delete of a 10-byte block", [](const char *p) { return deleteFastAYAXData(p, "s"); }, {"s"}},
    {"clear", [](const char *p) { return deleteAllDataFromFile(p); }, {"first", "second", "s", "third"}},
    {"fast clear", [](const char *p) { return deleteFastAllYAXData(p); }, {"first", "second", "s", "third"}},
};

// Two listed sounds with a user entry between them and the legacy record on
// the first sound: what the sound edits run on.
Bytes toneFile() {
    const tb::Entry t0{256, "TonePhoto_000", "soundbytes", ""}, k{1, "k", "K", ""}, b{256, "b", "BB", ""};
    const Bytes list = tb::toneList({"TonePhoto_000", "b"});
    const tb::Entry meta{2048, "TonePhoto_Meta_Info", std::string(list.begin(), list.end()), ""};
    const auto at = uint32_t(kImage.size() + 8 + 13);
    return kImage + tb::trailer({t0, k, b, meta}) + tb::vonoBlock({{at, at + 10}});
}

// The file an edit makes when nothing fails.
Bytes finished(const std::function<int(const char *)> &run, const Bytes &start = kStart) {
    tu::TempDir dir;
    const std::string path = dir.path("photo.jpg");
    tu::writeFile(path, start);
    Quiet q;
    run(path.c_str());
    return tu::readFile(path);
}

// Runs `run` with the nth call of every kind failing in turn, for n = 1, 2,
// ... until the fault is no longer reached. Each time the file must be as it
// was or as the finished edit, with nothing else left in the folder, and a
// success reported only for the finished edit.
void underFaults(const std::string &what, const std::function<int(const char *)> &run, bool result_tells,
                 const Bytes &start = kStart) {
    const Bytes done = finished(run, start);
    ASSERT_NE(start, done) << what;
    for (int k = 0; k < fault::kKinds; ++k) {
        for (int n = 1;; ++n) {
            SCOPED_TRACE(what + ", failing " + fault::kKindNames[k] + " #" + std::to_string(n));
            tu::TempDir dir;
            const std::string path = dir.path("photo.jpg");
            tu::writeFile(path, start);
            int r;
            {
                Quiet q;
                fault::arm(fault::Kind(k), n);
                r = run(path.c_str());
                fault::disarm();
            }
            const Bytes now = tu::readFile(path);
            EXPECT_TRUE(now == start || now == done);
            if (result_tells && r == 1) {
                EXPECT_EQ(done, now);
            }
            EXPECT_EQ(std::set<std::string>{"photo.jpg"}, namesIn(dir.dir()));
            if (!fault::fired() || n > 3000 || ::testing::Test::HasFailure()) break;
        }
    }
}

TEST(InjectedFaults, EverySafeModeLibraryEdit) {
    yaxSetSafeEdit(1);
    for (const Edit &e : kEdits) underFaults(e.what, e.run, e.result_tells);
    underFaults("first add", [](const char *p) { return save(p, "new", false, 0); }, true, kImage);
    yaxSetSafeEdit(0);
}

// The sound edits, each from the kind of file it works on: several steps
// each (drop the legacy block then add, rewrite the list then delete), one
// edit in the safe mode.
TEST(InjectedFaults, EverySafeModeSoundEdit) {
    const Bytes tone = toneFile();
    const Bytes legacy = kImage + tb::bytes("soundbytes") +
                         tb::vonoBlock({{uint32_t(kImage.size()), uint32_t(kImage.size() + 10)}});
    tu::TempDir other;
    const std::string src = other.path("src.jpg");
    tu::writeFile(src, tone);
    auto sound = [](const char *p, const char *name) { return saveVonoToImageFile(p, "RAIN", 4, name, uint32_t(strlen(name))); };
    yaxSetSafeEdit(1);
    underFaults("sound into a plain image", [&](const char *p) { return sound(p, "rain"); }, true, kImage);
    underFaults("sound into a legacy block", [&](const char *p) { return sound(p, "rain"); }, true, legacy);
    underFaults("sound beside listed ones", [&](const char *p) { return sound(p, "c"); }, true, tone);
    underFaults("listed sound replaced", [&](const char *p) { return sound(p, "b"); }, true, tone);
    underFaults("sound into a trailer", [&](const char *p) { return sound(p, "rain"); }, true, kStart);
    underFaults("sound delete", [](const char *p) { return deleteVonoFromImageFile(p, "b"); }, true, tone);
    underFaults("sound delete all", [](const char *p) { return deleteAllVonoFromImageFile(p); }, true, tone);
    underFaults("sound set copy", [&](const char *p) { return copyTonePhotoData(src.c_str(), p); }, true, kImage);
    yaxSetSafeEdit(0);
}

int yax(std::vector<std::string> args) {
    args.insert(args.begin(), "yax");
    std::vector<char *> argv;
    for (std::string &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return yax_main(int(args.size()), argv.data());
}

TEST(InjectedFaults, EveryEditingCommandOfTheTool) {
    tu::TempDir data;
    const std::string payload = data.path("payload"), one = data.path("one");
    tu::writeFile(payload, tb::bytes(kPayload));
    tu::writeFile(one, tb::bytes("u"));
    const std::vector<std::vector<std::string>> commands = {
        {"put", "new", payload},           {"put", "--replace", "second", payload},
        {"put", "--fast", "new", payload}, {"put", "--fast", "--replace", "second", payload},
        {"put", "--fast", "--replace", "s", one},
        {"rm", "second", "s"},             {"rm", "--fast", "second"},
        {"rm", "--fast", "s"},             {"clear"},
        {"clear", "--fast"},               {"sound", "add", "rain", payload}};
    for (const auto &c : commands) {
        std::string what = "yax";
        for (const auto &w : c) what += " " + w;
        underFaults(what, [&c](const char *p) {
            std::vector<std::string> args = c;
            args.insert(args.begin() + (c[0] == "sound" ? 2 : 1), p);
            return yax(args) == 0 ? 1 : 0;
        }, true);
    }
    // the sound commands on a file holding sounds, a user entry and a legacy record
    const Bytes tone = toneFile();
    for (const std::vector<std::string> &c : std::vector<std::vector<std::string>>{
             {"add", "c", payload}, {"add", "b", payload}, {"rm", "b"}, {"rm", "TonePhoto_000"}, {"clear"}}) {
        underFaults("yax sound " + c[0] + (c.size() > 1 ? " " + c[1] : ""), [&c](const char *p) {
            std::vector<std::string> args = c;
            args.insert(args.begin(), "sound");
            args.insert(args.begin() + 2, p);
            return yax(args) == 0 ? 1 : 0;
        }, true, tone);
    }
    yaxSetSafeEdit(0);
}

// ---- crash simulation ----

// Puts the recorded changes [0, k) on the disk, and the first half of change
// k's bytes when `torn`.
void replay(const std::vector<fault::Op> &ops, size_t k, bool torn) {
    for (size_t i = 0; i <= k && i < ops.size(); ++i) {
        const fault::Op &op = ops[i];
        if (i == k && !torn) break;
        const size_t n = i == k ? op.bytes.size() / 2 : op.bytes.size();
        switch (op.what) {
        case fault::Op::kWriteAt: {
            const int fd = open(op.path.c_str(), O_WRONLY | O_CREAT, 0644);
            EXPECT_EQ(ssize_t(n), pwrite64(fd, op.bytes.data(), n, op.at));
            ::close(fd);
            break;
        }
        case fault::Op::kTruncateTo: EXPECT_EQ(0, truncate64(op.path.c_str(), op.at)); break;
        case fault::Op::kRenameTo:
            if (access(op.path.c_str(), F_OK) != 0) tu::writeFile(op.path, {});
            EXPECT_EQ(0, rename(op.path.c_str(), op.to.c_str()));
            break;
        case fault::Op::kUnlink: unlink(op.path.c_str()); break;
        }
    }
}

// Crash points of one edit (every prefix of its changes, and every prefix
// with the last write torn in half) after which an entry the edit did not
// target is gone or changed, counted after the safe mode's recovery.
std::pair<int, int> crashLosses(const Edit &e, bool safe, const Bytes &start = kStart) {
    tu::TempDir dir;
    const std::string path = dir.path("photo.jpg");
    tu::writeFile(path, start);
    const auto before = entriesOf(path);
    yaxSetSafeEdit(safe ? 1 : 0);
    std::vector<fault::Op> ops;
    {
        Quiet q;
        fault::record(true);
        e.run(path.c_str());
        fault::record(false);
        ops = fault::takeOps();
    }
    int lost = 0, points = 0;
    for (size_t k = 0; k <= ops.size(); ++k) {
        for (bool torn : {false, true}) {
            if (torn && (k == ops.size() || ops[k].what != fault::Op::kWriteAt || ops[k].bytes.size() < 2))
                continue;
            for (const std::string &name : namesIn(dir.dir())) unlink(dir.path(name).c_str());
            tu::writeFile(path, start);
            replay(ops, k, torn);
            Quiet q;
            if (safe) yaxRecoverEdit(path.c_str());
            const auto after = entriesOf(path);
            bool kept = true;
            for (const auto &[name, payload] : before) {
                const auto it = after.find(name);
                if (!e.targets.count(name) && (it == after.end() || it->second != payload)) kept = false;
            }
            ++points;
            lost += kept ? 0 : 1;
        }
    }
    yaxSetSafeEdit(0);
    return {lost, points};
}

// What the safe mode saves before a save: from the header on for a save
// that can only append, from the first block for a replace (40 bytes of
// the undo record's own around the saved bytes).
TEST(CrashSimulation, UndoCopyCoversOnlyWhatTheSaveMayChange) {
    tu::TempDir dir;
    const std::string path = dir.path("photo.jpg");
    tu::writeFile(path, kStart);
    YAXDATA *yd = checkYAXWithReadPM(path.c_str());
    ASSERT_NE(yd, nullptr);
    const size_t header = yd->yax_info->header_offset;
    destroyYAXDATA(yd);
    const struct {
        const char *name;
        int option;
        size_t saved;
    } cases[] = {{"new", 0, header}, {"new", 1, header}, {"second", 0, header},
                 {"second", 1, kStart.size() - kImage.size()}};
    for (const auto &c : cases) {
        tu::writeFile(path, kStart);
        yaxSetSafeEdit(1);
        fault::record(true);
        {
            Quiet q;
            save(path.c_str(), c.name, false, c.option);
        }
        fault::record(false);
        yaxSetSafeEdit(0);
        size_t undo = 0;
        for (const fault::Op &op : fault::takeOps())
            if (op.what == fault::Op::kWriteAt && op.path.find(".yaxundo") != std::string::npos)
                undo += op.bytes.size();
        EXPECT_EQ(c.saved + 40, undo) << c.name << " option " << c.option;
    }
}

TEST(CrashSimulation, NoSafeModeCrashPointLosesAnUntouchedEntry) {
    for (const Edit &e : kEdits) {
        const auto plain = crashLosses(e, false), safe = crashLosses(e, true);
        std::printf("crash points losing an untouched entry, %-32s default %3d of %3d, safe mode %d of %d\n",
                    e.what, plain.first, plain.second, safe.first, safe.second);
        EXPECT_EQ(0, safe.first) << e.what;
        // Without the switch an edit still sends each header, table or run of
        // moved blocks in one write: only a torn write of it, or the moment
        // between a shrinking edit's write and its cut, can lose an entry.
        EXPECT_LE(plain.first, 2) << e.what;
    }
}

// The sound edits on a file with two sounds, a user entry and a legacy
// record: no crash point in the safe mode loses an entry they leave alone.
TEST(CrashSimulation, SoundEditsInTheSafeMode) {
    const Bytes tone = toneFile();
    const std::string m = "TonePhoto_Meta_Info";
    const std::vector<Edit> edits = {
        {"sound save", [](const char *p) { return saveVonoToImageFile(p, "RAIN", 4, "c", 1); }, {m}},
        {"sound replace", [](const char *p) { return saveVonoToImageFile(p, "RAIN", 4, "b", 1); }, {"b"}},
        {"sound into a trailer alone", [](const char *p) { return saveVonoToImageFile(p, "RAIN", 4, "c", 1); }, {}},
        {"sound delete", [](const char *p) { return deleteVonoFromImageFile(p, "b"); }, {"b", m}},
        {"sound delete all", [](const char *p) { return deleteAllVonoFromImageFile(p); }, {"TonePhoto_000", "k", "b", m}},
    };
    for (const Edit &e : edits) {
        const Bytes &start = std::string(e.what) == "sound into a trailer alone" ? kStart : tone;
        const auto plain = crashLosses(e, false, start), safe = crashLosses(e, true, start);
        std::printf("crash points losing an untouched entry, %-32s default %3d of %3d, safe mode %d of %d\n",
                    e.what, plain.first, plain.second, safe.first, safe.second);
        EXPECT_EQ(0, safe.first) << e.what;
        // The add over a trailer alone is ordered as the entry adds are;
        // with a legacy record the library's replace and delete are not.
        if (&start == &kStart) {
            EXPECT_LE(plain.first, 2) << e.what;
        }
    }
}

// ---- payloads streamed from a file ----

void shrink(const std::string &path) { EXPECT_EQ(0, truncate64(path.c_str(), (1 << 18) + 10)); }
void grow(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND);
    EXPECT_EQ(3, ::write(fd, "abc", 3));
    ::close(fd);
}

// A payload file that shrinks or grows while it is streamed into an entry, or
// whose reads start failing, makes the save fail with a line saying so and
// leaves the target as it was: in the safe-edit mode for every save, replaces
// included; in the default mode for every add (a replace's delete has
// already happened there, as when any add after it fails). The copy reads
// 256 KiB at a time, so each fault lands mid-stream.
TEST(PayloadStream, ChangedOrFailingPayloadLeavesTheTargetAlone) {
    tu::TempDir dir;
    char real[PATH_MAX];
    ASSERT_NE(realpath(dir.dir().c_str(), real), nullptr);
    const std::string path = std::string(real) + "/photo.jpg", payload = std::string(real) + "/payload.bin";
    struct Fault {
        const char *what;
        bool fail;
        void (*hook)(const std::string &);
        const char *line;
    };
    const Fault faults[] = {{"shrinks", false, shrink, "the payload file shrank while it was read"},
                            {"grows", false, grow, "the payload file changed size while it was read"},
                            {"fails", true, nullptr, "reading the payload file failed after"}};
    using Save = int (*)(const char *, const char *, int);
    const std::pair<const char *, Save> saves[] = {
        {"path", [](const char *f, const char *p, int o) { return saveYAXFileDataToFile(f, "second", 6, nullptr, 0, p, 1, o); }},
        {"stream", [](const char *f, const char *p, int o) {
             FILE *fp = fopen(f, "r+b");
             const int r = saveYAXFileDataToFP(fp, "second", 6, nullptr, 0, p, 1, o);
             fclose(fp);
             return r;
         }},
        {"fast", [](const char *f, const char *p, int o) { return saveFastYAXDataFileToFile(f, "second", 6, nullptr, 0, p, 1, o); }},
        {"fast stream", [](const char *f, const char *p, int o) {
             FILE *fp = fopen(f, "r+b");
             const int r = saveFastYAXNameToFP(fp, "second", 6, nullptr, 0, p, 1, o);
             fclose(fp);
             return r;
         }},
        {"mp4", [](const char *f, const char *p, int o) {
             FILE *fp = fopen(f, "r+b");
             const int r = saveYAXDataFileToFPToMP4(fp, "second", 6, nullptr, 0, p, 1, o);
             fclose(fp);
             return r;
         }},
    };
    for (int safe : {0, 1})
        for (const Bytes &start : {kImage, kStart})
            for (int option : {0, 1}) {
                if (option == 1 && (safe == 0 || start == kImage)) continue;
                // option 0 on a file holding "second" is a refusal: add under a new name then
                const bool refusal = option == 0 && start == kStart;
                for (const auto &[how, save] : saves)
                    for (const Fault &f : faults)
                        for (int at : {1, 2, 4}) {
                            SCOPED_TRACE(std::string(how) + ", the payload " + f.what + " at read " +
                                         std::to_string(at) + (safe ? ", safe" : "") +
                                         (option ? ", replace" : ""));
                            tu::writeFile(path, start);
                            tu::writeFile(payload, Bytes(3 * (1 << 18) + 5, 'p'));
                            if (refusal) tu::writeFile(path, kImage + tb::trailer({kEntries[0]}));
                            const Bytes before = tu::readFile(path);
                            yaxSetSafeEdit(safe);
                            int r = -1;
                            const std::string out = tu::capture([&] {
                                fault::onRead(payload, at, f.fail, f.hook);
                                r = save(path.c_str(), payload.c_str(), option);
                                EXPECT_GE(fault::readsOf(), at);
                                fault::disarm();
                            });
                            yaxSetSafeEdit(0);
                            EXPECT_EQ(r, 0);
                            EXPECT_NE(out.find(f.line), std::string::npos) << out;
                            EXPECT_TRUE(tu::readFile(path) == before);
                            EXPECT_EQ((std::set<std::string>{"payload.bin", "photo.jpg"}), namesIn(real));
                            if (::testing::Test::HasFailure()) return;
                        }
            }
}

// yax put says the payload could not be stored and leaves the file alone.
TEST(PayloadStream, ToolPutWithAFailingPayload) {
    tu::TempDir dir, data;
    const std::string path = dir.path("photo.jpg");
    char real[PATH_MAX];
    tu::writeFile(data.path("payload"), Bytes(3 << 18, 'p'));
    ASSERT_NE(realpath(data.path("payload").c_str(), real), nullptr);
    tu::writeFile(path, kStart);
    Quiet q;
    fault::onRead(real, 2, true);
    EXPECT_EQ(yax({"put", path, "new", real}), 1);
    fault::disarm();
    EXPECT_TRUE(tu::readFile(path) == kStart);
    EXPECT_EQ(std::set<std::string>{"photo.jpg"}, namesIn(dir.dir()));
}

}  // namespace

// A payload file that reads short at any byte (cut between its size being
// taken and its bytes being read) is refused by every save that loads one,
// and the target is left as it was.
TEST(InjectedFaults, PayloadReadsThatComeUpShort) {
    tu::TempDir dir;
    const std::string target = dir.path("photo.jpg"), payload = dir.path("payload.bin");
    const std::string bytes(40, 'p');
    tu::writeFile(payload, tb::Bytes(bytes.begin(), bytes.end()));
    const char *pl = payload.c_str();
    const std::vector<std::pair<std::string, std::function<int(const char *)>>> saves{
        {"saveYAXFileDataToFile", [pl](const char *p) { return saveYAXFileDataToFile(p, "n", 1, nullptr, 0, pl, 1, 1); }},
        {"saveYAXFileDataToFP", [pl](const char *p) {
             FILE *fp = std::fopen(p, "r+b");
             const int r = saveYAXFileDataToFP(fp, "n", 1, nullptr, 0, pl, 1, 1);
             return std::fclose(fp), r;
         }},
        {"saveFastYAXDataFileToFile", [pl](const char *p) { return saveFastYAXDataFileToFile(p, "n", 1, nullptr, 0, pl, 1, 1); }},
        {"saveFastYAXNameToFP", [pl](const char *p) {
             FILE *fp = std::fopen(p, "r+b");
             const int r = saveFastYAXNameToFP(fp, "n", 1, nullptr, 0, pl, 1, 1);
             return std::fclose(fp), r;
         }},
    };
    for (const auto &[name, save] : saves) {
        for (size_t keep = 0; keep <= bytes.size(); ++keep) {
            tu::writeFile(target, kStart);
            fault::shortRead(bytes.size(), keep);
            int r;
            {
                Quiet quiet;
                r = save(target.c_str());
            }
            fault::shortRead(0, 0);
            if (keep < bytes.size()) {
                EXPECT_EQ(r, 0) << name << " kept " << keep;
                EXPECT_EQ(tu::readFile(target), kStart) << name << " kept " << keep;
            } else {
                EXPECT_EQ(r, 1) << name;  // the whole payload: stored
            }
        }
    }
    // The target as its own payload is read into memory first (it cannot be
    // streamed into itself): a short read there is refused too.
    const size_t whole = kStart.size();
    for (size_t keep : {size_t{0}, size_t{1}, whole - 1}) {
        tu::writeFile(target, kStart);
        fault::shortRead(whole, keep);
        int r;
        {
            Quiet quiet;
            r = saveYAXFileDataToFile(target.c_str(), "n", 1, nullptr, 0, target.c_str(), 1, 1);
        }
        fault::shortRead(0, 0);
        EXPECT_EQ(r, 0) << "itself, kept " << keep;
        EXPECT_EQ(tu::readFile(target), kStart) << "itself, kept " << keep;
    }
    tu::writeFile(target, kStart);
    EXPECT_EQ(saveYAXFileDataToFile(target.c_str(), "n", 1, nullptr, 0, target.c_str(), 1, 1), 1);
}
