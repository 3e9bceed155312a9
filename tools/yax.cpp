// yax: look into and edit the named entries that libYAX keeps behind JPEG and
// MP4 files.
//
//   yax list  FILE [--json]
//   yax get   FILE NAME [-o OUT] [--sub-info]
//   yax put   FILE NAME [DATAFILE|-] [--type N] [--sub-info FILE] [--replace] [--fast]
//   yax rm    FILE NAME... [--fast]
//   yax clear FILE [--fast]
//   yax check FILE [--json]
//   yax sound add|get|rm|clear ...    (tools/cmd_sound.cpp)
//
// Results go to standard output, one-line errors to standard error. The
// library prints its own log lines on standard output; they never reach the
// tool's output (see LibraryQuiet).
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace {

constexpr const char *kFillerName = "Invalid_Data";
constexpr const char *kToneListName = "TonePhoto_Meta_Info";
constexpr uint64_t kMaxPayload = 0xFFF00000u;  // larger payloads are refused by every save
constexpr size_t kMaxNameLength = 1024;        // longer names cannot be read back
constexpr uint32_t kMaxDataType = 0xFFFFu;     // the type lives in 16 bits
constexpr size_t kChunk = 1 << 18;

enum Exit { kOk = 0, kFailed = 1, kUsage = 2 };

bool gVerbose = false;

// ---------------------------------------------------------------------------
// Output discipline

// The library writes a console line for every failure to standard output (and,
// off Android, a copy to standard error). Every library call runs inside this
// guard: both descriptors go to /dev/null, or with --verbose the console lines
// go to standard error and the copies are dropped. The tool itself prints only
// after the guard is gone, so its output is exactly its results.
class LibraryQuiet {
public:
    LibraryQuiet() {
        std::fflush(stdout);
        std::fflush(stderr);
        savedOut_ = dup(STDOUT_FILENO);
        savedErr_ = dup(STDERR_FILENO);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null < 0 || savedOut_ < 0 || savedErr_ < 0) {
            if (null >= 0) close(null);
            return;
        }
        dup2(gVerbose ? savedErr_ : null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~LibraryQuiet() {
        std::fflush(stdout);
        std::fflush(stderr);
        if (savedOut_ >= 0) {
            dup2(savedOut_, STDOUT_FILENO);
            close(savedOut_);
        }
        if (savedErr_ >= 0) {
            dup2(savedErr_, STDERR_FILENO);
            close(savedErr_);
        }
    }
    LibraryQuiet(const LibraryQuiet &) = delete;
    LibraryQuiet &operator=(const LibraryQuiet &) = delete;

private:
    int savedOut_ = -1;
    int savedErr_ = -1;
};

int fail(const std::string &message) {
    std::fprintf(stderr, "yax: %s\n", message.c_str());
    return kFailed;
}

std::string quoted(const std::string &s) { return "'" + s + "'"; }

bool writeAll(FILE *out, const void *data, size_t size) {
    return size == 0 || std::fwrite(data, 1, size, out) == size;
}

// Prints the whole result at once, after every library call is done.
int emit(const std::string &text) {
    if (!writeAll(stdout, text.data(), text.size()) || std::fflush(stdout) != 0)
        return fail(std::string("cannot write the output: ") + std::strerror(errno));
    return kOk;
}

// ---------------------------------------------------------------------------
// Files

// A clear message for a path the tool cannot use, or nothing when it can.
std::optional<std::string> unusable(const std::string &path, bool forWriting) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return "cannot open " + path + ": " + std::strerror(errno);
    if (S_ISDIR(st.st_mode)) return path + " is a directory";
    FILE *f = std::fopen(path.c_str(), forWriting ? "r+b" : "rb");
    if (f == nullptr)
        return std::string("cannot open ") + path + (forWriting ? " for writing: " : ": ") +
               std::strerror(errno);
    std::fclose(f);
    return std::nullopt;
}

// Reads to the end, or stops one byte past the largest payload a save takes
// (enough to refuse it).
bool readStream(FILE *in, std::vector<unsigned char> &out) {
    std::vector<unsigned char> chunk(kChunk);
    size_t n;
    // Stops at the first end of input: a terminal gives more after one.
    while (out.size() <= kMaxPayload && !std::feof(in) &&
           (n = std::fread(chunk.data(), 1, chunk.size(), in)) > 0)
        out.insert(out.end(), chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(n));
    return !std::ferror(in);
}

// Reads the sub-information file, or standard input for "-".
std::optional<std::string> readInput(const std::string &path, std::vector<unsigned char> &out) {
    if (path == "-") {
        if (!readStream(stdin, out))
            return std::string("cannot read standard input: ") + std::strerror(errno);
        return std::nullopt;
    }
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return path + " is a directory";
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return "cannot open " + path + ": " + std::strerror(errno);
    bool ok = readStream(f, out);
    int err = errno;
    std::fclose(f);
    if (!ok) return "cannot read " + path + ": " + std::strerror(err);
    return std::nullopt;
}

// The payload of a put, never held in memory: the library streams it from a
// file. DATAFILE (or standard input) when it is a regular file read from its
// start; anything else (a pipe) is first copied to a file that has no name
// (created beside the target and unlinked at once), so nothing of it stays
// behind.
struct PayloadFile {
    std::string path;  // what the library opens
    int64_t size = 0;
    int spool = -1;
    PayloadFile() = default;
    PayloadFile(const PayloadFile &) = delete;
    PayloadFile &operator=(const PayloadFile &) = delete;
    ~PayloadFile() {
        if (spool >= 0) close(spool);
    }
};

std::string folderOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::optional<std::string> openPayload(const std::string &dataPath, const std::string &target,
                                       PayloadFile &p) {
    const bool fromStdin = dataPath == "-";
    const std::string shown = fromStdin ? "standard input" : dataPath;
    const int in = fromStdin ? STDIN_FILENO : open(dataPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return "cannot open " + dataPath + ": " + std::strerror(errno);
    struct stat st {}, self {};
    std::optional<std::string> error;
    // The target itself is copied too: it changes under the put.
    if (fstat(in, &st) != 0) {
        error = "cannot read " + shown + ": " + std::strerror(errno);
    } else if (S_ISDIR(st.st_mode)) {
        error = dataPath + " is a directory";
    } else if (S_ISREG(st.st_mode) && lseek(in, 0, SEEK_CUR) == 0 &&
               !(stat(target.c_str(), &self) == 0 && self.st_dev == st.st_dev &&
                 self.st_ino == st.st_ino)) {
        p.path = fromStdin ? "/proc/self/fd/0" : dataPath;
        p.size = st.st_size;
    } else {
        for (const std::string &dir : {folderOf(target), std::string("/tmp")}) {
            std::string name = dir + "/.yax-put.XXXXXX";
            p.spool = mkostemp(name.data(), O_CLOEXEC);
            if (p.spool >= 0) {
                unlink(name.c_str());
                break;
            }
        }
        std::vector<unsigned char> chunk(kChunk);
        ssize_t n = 0;
        while (p.spool >= 0 && p.size <= static_cast<int64_t>(kMaxPayload) &&
               ((n = read(in, chunk.data(), chunk.size())) > 0 || (n < 0 && errno == EINTR))) {
            if (n > 0 && write(p.spool, chunk.data(), static_cast<size_t>(n)) != n) break;
            p.size += n > 0 ? n : 0;
        }
        if (p.spool < 0 || n < 0)
            error = "cannot read " + shown + ": " + std::strerror(errno);
        else if (n > 0)
            error = std::string("cannot hold ") + shown + ": " + std::strerror(errno);
        p.path = "/proc/self/fd/" + std::to_string(p.spool);
    }
    if (!fromStdin) close(in);
    return error;
}

// Whether `length` bytes at `offset` of `path` are the whole of `payload`.
bool storedAs(const std::string &path, int64_t offset, const std::string &payload, int64_t length) {
    FILE *a = std::fopen(path.c_str(), "rb"), *b = std::fopen(payload.c_str(), "rb");
    bool same = a != nullptr && b != nullptr && fseeko(a, static_cast<off_t>(offset), SEEK_SET) == 0;
    std::vector<unsigned char> x(kChunk), y(kChunk);
    for (int64_t left = length; same && left > 0;) {
        const size_t want = left < static_cast<int64_t>(kChunk) ? static_cast<size_t>(left) : kChunk;
        same = std::fread(x.data(), 1, want, a) == want && std::fread(y.data(), 1, want, b) == want &&
               std::memcmp(x.data(), y.data(), want) == 0;
        left -= static_cast<int64_t>(want);
    }
    same = same && std::fgetc(b) == EOF;
    if (a != nullptr) std::fclose(a);
    if (b != nullptr) std::fclose(b);
    return same;
}

// ---------------------------------------------------------------------------
// Reading what a file holds

struct Entry {
    uint32_t index = 0;
    std::string name;
    uint32_t type = 0;
    bool hasSubInfo = false;
    bool readable = false;  // payload (and sub-information) located inside the file
    int64_t offset = 0, length = 0;
    int64_t subOffset = 0, subLength = 0;
    uint32_t blockLength = 0;  // the row's length: the whole block
    std::string kind;  // "", "filler", "tonephoto-sound", "tonephoto-list"
};

struct Sound {
    uint32_t index = 0;
    int64_t offset = 0, length = 0;
};

struct Contents {
    int signature = 0;
    int64_t firstBlock = -1;  // where the first data block starts (the file's size without a trailer)
    std::vector<Entry> entries;
    std::vector<std::string> tonePhoto;  // the names of the TonePhoto list
    std::vector<Sound> legacy;           // sounds of the legacy audio block
    bool legacyUnreadable = false;
    bool mp4 = false;                    // bytes 4-7 are "ftyp"
    int64_t boxStart = -1, boxSize = -1; // the "yaxd" box around the trailer, when there is one
};

bool hasTrailer(int signature) { return signature == SIGNATURE_YAX || signature == SIGNATURE_VONO_YAX; }
bool hasLegacy(int signature) { return signature == SIGNATURE_VONO || signature == SIGNATURE_VONO_YAX; }

int signatureOf(const std::string &path) {
    LibraryQuiet quiet;
    return getSignature(path.c_str());
}

// Where an entry's payload and sub-information lie. An empty payload cannot be
// located by the library; it is recognised from the block's own lengths.
void locate(YaxInfo *info, Entry &e) {
    const YaxEntry *row = info->meta_data[e.index];
    if (e.hasSubInfo &&
        readSubDataInfoOfDataOffset(info, e.index, &e.subOffset, &e.subLength) != 1)
        return;
    if (readDataOfIndexOffset(info, e.index, &e.offset, &e.length) == 1) {
        e.readable = true;
        return;
    }
    int64_t head = 8 + (e.hasSubInfo ? 4 : 0) + static_cast<int64_t>(row->name_length) +
                   static_cast<int64_t>(row->sub_info_length);
    if (static_cast<int64_t>(row->length) == head) {
        e.offset = info->file_size - static_cast<int64_t>(info->header_offset) -
                   static_cast<int64_t>(row->offset) + head;
        e.length = 0;
        e.readable = e.offset >= 0 && e.offset <= info->file_size;
    }
}

// Opens the trailer read-only and collects every entry. Returns an error
// message, or nothing on success; a file without a trailer gives no entries.
std::optional<std::string> readContents(const std::string &path, Contents &c) {
    if (auto why = unusable(path, false)) return why;
    c.signature = signatureOf(path);
    if (c.signature < SIGNATURE_NONE || c.signature > SIGNATURE_VONO_YAX)
        return "cannot read " + path;

    if (c.signature == SIGNATURE_NONE) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0) c.firstBlock = st.st_size;
    }
    if (FILE *fp = std::fopen(path.c_str(), "rb")) {
        LibraryQuiet quiet;
        c.mp4 = checkMP4Fp(fp) == 1;
        std::fclose(fp);
    }
    if (hasTrailer(c.signature)) {
        LibraryQuiet quiet;
        YAXDATA *yd = checkYAXWithReadPM(path.c_str());
        if (yd == nullptr || yd->yax_info == nullptr || yd->YAX_name_list == nullptr) {
            destroyYAXDATA(yd);
            return path + ": the trailer is damaged and cannot be read";
        }
        std::set<std::string> tone;
        for (uint32_t i = 0; i < yd->tonephoto_count && yd->tonephoto_name_list; ++i) {
            if (yd->tonephoto_name_list[i] == nullptr) continue;
            c.tonePhoto.emplace_back(yd->tonephoto_name_list[i]);
            tone.insert(c.tonePhoto.back());
        }
        // A list that names sounds but gave none was not read (short memory):
        // an edit must not take it for an empty one.
        bool hasList = false;
        for (uint32_t i = 0; i < yd->count; ++i)
            hasList = hasList || (yd->YAX_name_list[i] != nullptr && std::strcmp(yd->YAX_name_list[i], kToneListName) == 0);
        if (hasList && c.tonePhoto.empty() && getVonoCntInFile(yd) != 0) {
            destroyYAXDATA(yd);
            return path + ": the sound name list cannot be read";
        }
        YaxInfo *info = yd->yax_info;
        if (c.mp4 && info->fp != nullptr && checkSignatureMP4Tag(info) == 1) {
            unsigned char size[4];
            c.boxStart = info->data_start_position;
            if (pread(fileno(info->fp), size, 4, c.boxStart) == 4)
                c.boxSize = int64_t{size[0]} << 24 | size[1] << 16 | size[2] << 8 | size[3];
        }
        if (info->meta_count != 0 && info->meta_data[0] != nullptr)
            c.firstBlock = info->file_size - static_cast<int64_t>(info->header_offset) -
                           static_cast<int64_t>(info->meta_data[0]->offset);
        for (uint32_t i = 0; i < yd->count && i < info->meta_count; ++i) {
            const YaxEntry *row = info->meta_data[i];
            if (row == nullptr) continue;
            Entry e;
            e.index = i;
            e.name = yd->YAX_name_list[i] ? yd->YAX_name_list[i] : "";
            e.type = row->meta_type >> 16;
            e.hasSubInfo = row->has_sub_info != 0;
            e.blockLength = row->length;
            locate(info, e);
            if (e.name == kFillerName && e.type == YAX_INVALID_DATA_TYPE)
                e.kind = "filler";
            else if (e.name == kToneListName)
                e.kind = "tonephoto-list";
            else if (tone.count(e.name) != 0)
                e.kind = "tonephoto-sound";
            c.entries.push_back(std::move(e));
        }
        destroyYAXDATA(yd);
    }

    if (hasLegacy(c.signature)) {
        LibraryQuiet quiet;
        VonoInfo *v = _checkAudioInImageFile(path.c_str());
        if (v == nullptr || (v->count != 0 && v->offsets == nullptr)) {
            c.legacyUnreadable = true;
        } else {
            for (uint32_t i = 0; i < v->count; ++i) {
                Sound s;
                s.index = i;
                s.offset = v->offsets[2 * i];
                s.length = static_cast<int64_t>(v->offsets[2 * i + 1]) - s.offset;
                c.legacy.push_back(s);
            }
        }
        DestroyVono(v);
    }
    return std::nullopt;
}

// The lock on one file. A file replaced while this waited (a rewriting edit
// renames a new file into place) is opened and locked again.
class FileLock {
public:
    ~FileLock() {
        if (fd_ >= 0) close(fd_);
    }
    // Nothing when the file cannot be opened: the command's own checks say why.
    std::optional<std::string> acquire(const std::string &path) {
        for (int tries = 0; tries < 1000; ++tries) {
            bool writable = true;
            fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);
            if (fd_ < 0) {
                writable = false;
                fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            }
            if (fd_ < 0) return std::nullopt;
            int r;
            while ((r = flock(fd_, writable ? LOCK_EX : LOCK_SH)) != 0 && errno == EINTR) {
            }
            struct stat held {}, named {};
            if (r == 0 && fstat(fd_, &held) == 0 && stat(path.c_str(), &named) == 0 &&
                held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
                if (!writable) return std::nullopt;
                int recovered;
                {
                    LibraryQuiet quiet;
                    recovered = yaxRecoverEdit(path.c_str());
                }
                if (recovered < 0)
                    return "an interrupted edit of " + path + " could not be put back";
                return std::nullopt;
            }
            close(fd_);
            fd_ = -1;
            if (r != 0) return "cannot lock " + path + ": " + std::strerror(errno);
        }
        return "cannot lock " + path + ": it keeps being replaced";
    }

private:
    int fd_ = -1;
};

// ---------------------------------------------------------------------------
// list

// Names may hold any byte but a zero; keep one entry on one line.
std::string escaped(const std::string &s) {
    std::string out;
    for (unsigned char ch : s) {
        if (ch == '\\') out += "\\\\";
        else if (ch == '\t') out += "\\t";
        else if (ch == '\n') out += "\\n";
        else if (ch == '\r') out += "\\r";
        else if (ch < 0x20 || ch == 0x7F) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", ch);
            out += hex;
        } else out += static_cast<char>(ch);
    }
    return out;
}

const Entry *findEntry(const Contents &c, const std::string &name) {
    // The library's lookup: exact match, the first entry of a name wins.
    for (const Entry &e : c.entries)
        if (e.name == name) return &e;
    return nullptr;
}

std::string listText(const Contents &c) {
    std::string out;
    for (const Entry &e : c.entries) {
        out += std::to_string(e.index) + "\t" + escaped(e.name) + "\t" + std::to_string(e.type) + "\t";
        if (e.readable) {
            out += std::to_string(e.length) + "\t" + std::to_string(e.hasSubInfo ? e.subLength : 0) +
                   "\t" + std::to_string(e.offset);
        } else {
            out += "-\t-\t-";
        }
        std::string kind = e.readable ? e.kind : "damaged";
        if (!kind.empty()) out += "\t" + kind;
        out += "\n";
    }
    // The sounds in the name list's order, as "yax sound" names them.
    for (size_t k = 0; k < c.tonePhoto.size(); ++k) {
        const Entry *e = findEntry(c, c.tonePhoto[k]);
        out += "sound" + std::to_string(k) + "\t" + escaped(c.tonePhoto[k]) + "\t-\t";
        out += e != nullptr && e->readable
                   ? std::to_string(e->length) + "\t-\t" + std::to_string(e->offset) + "\tsound\n"
                   : "-\t-\t-\tmissing-sound\n";
    }
    for (const Sound &s : c.legacy)
        out += "audio" + std::to_string(s.index) + "\t-\t-\t" + std::to_string(s.length) + "\t-\t" +
               std::to_string(s.offset) + "\tlegacy-audio\n";
    if (c.boxStart >= 0)
        out += "yaxd\t-\t-\t" + std::to_string(c.boxSize) + "\t-\t" + std::to_string(c.boxStart) +
               "\tmp4-box\n";
    return out;
}

std::string listJson(const std::string &path, const Contents &c) {
    using json = nlohmann::ordered_json;
    json entries = json::array();
    for (const Entry &e : c.entries) {
        json j = {{"index", e.index}, {"name", e.name}, {"type", e.type},
                  {"kind", e.kind.empty() ? "entry" : e.kind}};
        if (e.readable) {
            j["length"] = e.length;
            j["offset"] = e.offset;
            j["sub_info_length"] = e.hasSubInfo ? e.subLength : 0;
            if (e.hasSubInfo) j["sub_info_offset"] = e.subOffset;
        } else {
            j["kind"] = "damaged";
            j["length"] = nullptr;
            j["offset"] = nullptr;
            j["sub_info_length"] = nullptr;
        }
        entries.push_back(std::move(j));
    }
    json legacy = json::array();
    for (const Sound &s : c.legacy)
        legacy.push_back({{"index", s.index}, {"offset", s.offset}, {"length", s.length}});
    json box = nullptr;
    if (c.boxStart >= 0) box = {{"offset", c.boxStart}, {"size", c.boxSize}};
    json doc = {{"file", path},
                {"mp4", c.mp4},
                {"mp4_box", std::move(box)},
                {"entries", std::move(entries)},
                {"tonephoto", c.tonePhoto},
                {"legacy_audio", std::move(legacy)}};
    return doc.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

int cmdList(const std::string &path, bool json) {
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = readContents(path, c)) return fail(*why);
    if (c.legacyUnreadable) return fail(path + ": the legacy audio block is damaged and cannot be read");
    return emit(json ? listJson(path, c) : listText(c));
}

// ---------------------------------------------------------------------------
// check

struct Problem {
    std::string kind, message;
};

// Every inconsistency the library's report finds at the end of the file.
std::vector<Problem> problemsOf(const std::string &path, bool *unreadable = nullptr) {
    std::vector<Problem> found;
    LibraryQuiet quiet;
    const int n = yaxCheckFile(
        path.c_str(),
        [](void *ctx, const char *kind, const char *message) {
            static_cast<std::vector<Problem> *>(ctx)->push_back({kind, message});
        },
        &found);
    if (unreadable != nullptr) *unreadable = n < 0;
    return found;
}

int cmdCheck(const std::string &path, bool asJson) {
    if (auto why = unusable(path, false)) return fail(*why);
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    bool unreadable = false;
    const std::vector<Problem> found = problemsOf(path, &unreadable);
    if (unreadable) return fail(path + ": cannot be read");
    std::string text;
    if (asJson) {
        nlohmann::json::array_t list;
        for (const Problem &p : found) list.push_back({{"kind", p.kind}, {"message", p.message}});
        text = nlohmann::json{{"file", path}, {"clean", found.empty()}, {"problems", list}}.dump(2) + "\n";
    } else {
        for (const Problem &p : found) text += path + ": " + p.kind + ": " + p.message + "\n";
    }
    const int r = emit(text);
    return r != kOk ? r : found.empty() ? kOk : kFailed;
}

// A fast edit goes ahead only on a file the report finds clean: on anything
// else the documented in-place steps can misplace blocks or the tail, so the
// edit takes the rewriting way instead, and says why.
bool fastIsSafe(const std::string &path) {
    const std::vector<Problem> found = problemsOf(path);
    if (found.empty()) return true;
    std::fprintf(stderr, "yax: %s: %s: %s; editing without --fast instead\n", path.c_str(),
                 found[0].kind.c_str(), found[0].message.c_str());
    return false;
}

// ---------------------------------------------------------------------------
// get


// Streams the payload or sub-information of `e` to `out` through the library
// (in large chunks, never the whole payload at once). The library runs with
// standard output silenced, so it writes to a copy of `out`'s descriptor.
std::optional<std::string> extract(const std::string &path, const Entry &e, bool subInfo, FILE *out) {
    const int64_t length = subInfo ? e.subLength : e.length;
    if (length == 0) return std::nullopt;  // an empty payload: nothing to copy
    std::fflush(out);
    const int fd = dup(fileno(out));
    FILE *to = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (to == nullptr) {
        if (fd >= 0) close(fd);
        return std::string("cannot write the output: ") + std::strerror(errno);
    }
    int64_t copied = -1;
    {
        LibraryQuiet quiet;
        if (YAXDATA *yd = checkYAXWithReadPM(path.c_str())) {
            copied = yaxStreamYAXData(yd, e.index, subInfo ? YAX_STREAM_SUB_INFO : YAX_STREAM_PAYLOAD, to);
            destroyYAXDATA(yd);
        }
    }
    const int err = errno;
    if (std::fclose(to) != 0 && copied == length) copied = -1;
    if (copied != length)
        return path + ": copying entry " + quoted(e.name) + " failed (" + std::strerror(err) +
               "; --verbose shows why)";
    return std::nullopt;
}

// Writes what `produce` puts on a stream to standard output, or to
// `outPath` through a temporary file beside it.
using Producer = std::function<std::optional<std::string>(FILE *)>;
int writeOutput(const std::string &outPath, const Producer &produce);

int cmdGet(const std::string &path, const std::string &name, const std::string &outPath,
           bool subInfo) {
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = readContents(path, c)) return fail(*why);
    const Entry *e = findEntry(c, name);
    if (e == nullptr) return fail(path + ": no entry named " + quoted(name));
    if (subInfo && !e->hasSubInfo)
        return fail(path + ": entry " + quoted(name) + " has no sub-information");
    if (!e->readable) return fail(path + ": entry " + quoted(name) + " is damaged and cannot be read");
    return writeOutput(outPath, [&](FILE *out) { return extract(path, *e, subInfo, out); });
}

int writeOutput(const std::string &outPath, const Producer &produce) {
    if (outPath.empty() || outPath == "-") {
        if (auto why = produce(stdout)) return fail(*why);
        if (std::fflush(stdout) != 0)
            return fail(std::string("cannot write the output: ") + std::strerror(errno));
        return kOk;
    }

    // Write beside the target and move it into place, so a failure leaves no
    // half-written file behind.
    std::string temp = outPath + ".XXXXXX";
    int fd = mkstemp(temp.data());
    if (fd < 0) return fail("cannot create " + outPath + ": " + std::strerror(errno));
    FILE *out = fdopen(fd, "wb");
    std::optional<std::string> error;
    if (out == nullptr) {
        close(fd);
        error = "cannot create " + outPath + ": " + std::strerror(errno);
    } else {
        error = produce(out);
        if (std::fclose(out) != 0 && !error)
            error = "cannot write " + outPath + ": " + std::strerror(errno);
    }
    if (!error) {
        // mkstemp makes the file private; give it the permissions of a new file.
        mode_t mask = umask(0);
        umask(mask);
        chmod(temp.c_str(), 0666 & ~mask);
        if (std::rename(temp.c_str(), outPath.c_str()) != 0)
            error = "cannot create " + outPath + ": " + std::strerror(errno);
    }
    if (error) {
        unlink(temp.c_str());
        return fail(*error);
    }
    return kOk;
}

// ---------------------------------------------------------------------------
// Edits
//
// Every command holds an advisory lock (flock) on the file while it runs:
// exclusive when the file can be written, shared otherwise, so that yax runs
// on one file queue instead of colliding (list and get put back an
// interrupted edit too, when they may write). Programs that do not take the lock
// are not held back by it. Edits run in the library's safe-edit mode, an edit
// that was interrupted is put back first, and after each edit the file is
// read again to see that it holds what the command promised.

// The entries of a file about to be edited: refuses files the tool cannot
// write, cannot read, or whose trailer is damaged.
std::optional<std::string> prepareEdit(const std::string &path, Contents &c) {
    if (auto why = unusable(path, true)) return why;
    return readContents(path, c);
}

// The library's parse refuses a trailer whose file is shorter than the header
// distance plus the rows counted once more and 20 bytes; with the blocks and
// rows an edit leaves, that is: first block position + blocks < 12 x rows + 20.
bool parseWouldRefuse(const Contents &c, uint64_t blocks, uint64_t rows) {
    return rows != 0 && c.firstBlock >= 0 &&
           static_cast<uint64_t>(c.firstBlock) + blocks < 12 * rows + 20;
}

uint64_t blockSum(const Contents &c) {
    uint64_t sum = 0;
    for (const Entry &e : c.entries) sum += e.blockLength;
    return sum;
}

std::string tooSmall(const std::string &path) {
    return path + ": the image in front of the entries is too small for this edit; the "
                  "library could not read the file back afterwards";
}

// After an edit: what the file must hold, or why it does not.
std::optional<std::string> verifyEdit(const std::string &path, const Contents &before,
                                      const std::set<std::string> &gone, const std::string &added,
                                      const PayloadFile *data) {
    Contents after;
    if (auto why = readContents(path, after))
        return "after the edit: " + *why;
    std::map<std::string, int> count;
    for (const Entry &e : after.entries) ++count[e.name];
    for (const Entry &e : before.entries) {
        if (e.kind == "filler" || gone.count(e.name) || e.name == added) continue;
        if (count[e.name] == 0) return "entry " + quoted(e.name) + " is missing";
    }
    for (const std::string &n : gone)
        if (count[n] != 0) return "entry " + quoted(n) + " is still there";
    if (data == nullptr) return std::nullopt;
    const Entry *e = findEntry(after, added);
    if (e == nullptr || count[added] != 1 || !e->readable || e->length != data->size)
        return "entry " + quoted(added) + " was not stored once and whole";
    if (!storedAs(path, e->offset, data->path, data->size))
        return "entry " + quoted(added) + " does not read back as stored";
    return std::nullopt;
}

// An MP4 file's "yaxd" box covers what follows its head. The deletes that
// work from the first block leave the head with its old size, and one that
// removes the last entry leaves the bare head at the end: after an edit the
// size is set again, or the bare head dropped, so that players read the box.
void refreshBox(const std::string &path, const Contents &before) {
    if (!before.mp4) return;
    LibraryQuiet quiet;
    FILE *fp = std::fopen(path.c_str(), "r+b");
    if (fp == nullptr) return;
    if (YAXDATA *yd = checkYAXInFP(fp)) {
        if (checkSignatureMP4Tag(yd->yax_info) == 1) updateMP4Tag(yd->yax_info);
        destroyYAXDATA_FP(yd);
    } else if (before.boxStart >= 0 && getSignatureFP(fp) == SIGNATURE_NONE) {
        unsigned char head[8];
        const off_t end = lseek(fileno(fp), 0, SEEK_END);
        if (end >= 8 && pread(fileno(fp), head, 8, end - 8) == 8 && std::memcmp(head + 4, "yaxd", 4) == 0 &&
            ftruncate(fileno(fp), end - 8) == 0)
            fsync(fileno(fp));
    }
    std::fclose(fp);
}

int unverified(const std::string &path, const std::string &why) {
    return fail(path + ": the edit did not take effect as asked (" + why + ")");
}

int cmdPut(const std::string &path, const std::string &name, const std::string &dataPath,
           uint32_t type, const std::string &subPath, bool replace, bool fast) {
    if (name.empty()) return fail("the entry name is empty");
    if (name == kFillerName)
        return fail(quoted(name) + " is the name of the filler that fast edits reuse; pick another");
    if (name.size() > kMaxNameLength)
        return fail("the entry name is longer than " + std::to_string(kMaxNameLength) + " bytes");
    if (type == YAX_USER_DEFINED_DATA && subPath.empty())
        return fail("data type 0 needs sub-information (--sub-info FILE)");

    PayloadFile data;
    std::vector<unsigned char> sub;
    if (auto why = openPayload(dataPath, path, data)) return fail(*why);
    if (data.size == 0) return fail("the payload is empty; an entry needs at least one byte");
    if (data.size > static_cast<int64_t>(kMaxPayload)) return fail("the payload is too big to store");
    if (!subPath.empty()) {
        if (auto why = readInput(subPath, sub)) return fail(*why);
        if (sub.empty()) return fail("the sub-information is empty");
        if (sub.size() > kMaxPayload) return fail("the sub-information is too big to store");
    }

    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = prepareEdit(path, c)) return fail(*why);
    const Entry *old = findEntry(c, name);
    if (old != nullptr && !replace)
        return fail(path + ": an entry named " + quoted(name) +
                    " already exists (use --replace to overwrite it)");
    if (fast && hasLegacy(c.signature))
        return fail(path + ": --fast cannot edit a file that holds legacy audio; save without --fast");
    if (fast && hasTrailer(c.signature) && !fastIsSafe(path)) fast = false;
    // A fast replace merges the old entry into the filler without padding for
    // the row it drops (the save rewrites the end); when the new block then
    // fills that room exactly, the header stays a row shorter than the room
    // before the tail and the file is left with stale bytes there, which later
    // fast edits misread. That one case takes the rewriting way.
    const uint64_t block = 8 + name.size() + static_cast<uint64_t>(data.size) + (sub.empty() ? 0 : 4 + sub.size());
    if (fast && old != nullptr && !c.entries.empty() && c.entries[0].kind == "filler" &&
        old != &c.entries[0] && old->blockLength >= 20 &&
        block == uint64_t(c.entries[0].blockLength) + old->blockLength) {
        std::fprintf(stderr, "yax: %s: a fast replace of exactly this size would leave stale "
                     "bytes before the tail; editing without --fast instead\n", path.c_str());
        fast = false;
    }
    // Rows and blocks afterwards, counted so as never to overrate the room:
    // a fast edit may leave one filler row more, and may put the block into
    // the filler's room instead of adding it.
    uint64_t blocks = blockSum(c), rows = c.entries.size() + 1;
    if (old != nullptr && (!fast || old->blockLength < 20)) blocks -= old->blockLength, --rows;
    if (fast) ++rows;
    else blocks += block;
    if (!hasLegacy(c.signature) && parseWouldRefuse(c, blocks, rows)) return fail(tooSmall(path));

    if (c.mp4 && hasLegacy(c.signature))
        return fail(path + ": an MP4 file with legacy audio cannot take entries");
    // An MP4 trailer without a box gets one around it after an add, sized for
    // a trailer that grew by the new block: a same-name entry goes first.
    if (c.mp4 && old != nullptr && c.boxStart < 0) {
        int removed = 0;
        {
            LibraryQuiet quiet;
            YAXDATA *handle = checkYAXInFile(path.c_str());
            if (handle != nullptr)
                removed = deleteYAXDataFromFilebyName(&handle, name.c_str(), static_cast<int>(name.size()));
            destroyYAXDATA(handle);
        }
        if (removed != 1) return fail(path + ": replacing " + quoted(name) + " failed");
    }
    int ok;
    {
        LibraryQuiet quiet;
        const void *subData = sub.empty() ? nullptr : sub.data();
        auto nameLength = static_cast<uint32_t>(name.size());
        auto subLength = static_cast<uint32_t>(sub.size());
        int option = replace ? 1 : 0;
        if (c.mp4) {
            // the MP4 save: a first entry makes the box, later ones keep it sized
            FILE *fp = std::fopen(path.c_str(), "r+b");
            ok = fp == nullptr ? 0
                               : saveYAXDataFileToFPToMP4(fp, name.c_str(), nameLength, subData,
                                                          subLength, data.path.c_str(), type, option);
            if (fp != nullptr) std::fclose(fp);
        } else {
            ok = fast ? saveFastYAXDataFileToFile(path.c_str(), name.c_str(), nameLength, subData,
                                                  subLength, data.path.c_str(), type, option)
                      : saveYAXFileDataToFile(path.c_str(), name.c_str(), nameLength, subData,
                                              subLength, data.path.c_str(), type, option);
        }
    }
    if (ok != 1)
        return fail(path + ": saving " + quoted(name) +
                    " failed (the file has no room for it or could not be written; --verbose shows why)");
    if (auto why = verifyEdit(path, c, {}, name, &data)) return unverified(path, *why);
    return kOk;
}

int cmdRemove(const std::string &path, const std::vector<std::string> &names, bool fast) {
    std::set<std::string> seen;
    for (const std::string &n : names)
        if (!seen.insert(n).second) return fail(quoted(n) + " is named twice");

    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = prepareEdit(path, c)) return fail(*why);
    // Nothing is touched unless every name is there.
    uint64_t blocks = blockSum(c), rows = c.entries.size() - names.size() + (fast ? 1 : 0);
    for (const std::string &n : names) {
        const Entry *e = findEntry(c, n);
        if (e == nullptr) return fail(path + ": no entry named " + quoted(n));
        if (!fast || e->blockLength < 20) blocks -= e->blockLength;
    }
    if (rows > (fast ? 1u : 0u) && parseWouldRefuse(c, blocks, rows)) return fail(tooSmall(path));
    if (fast && !fastIsSafe(path)) fast = false;

    if (fast) {
        for (const std::string &n : names) {
            int ok;
            {
                LibraryQuiet quiet;
                ok = deleteFastAYAXData(path.c_str(), n.c_str());
            }
            if (ok != 1) return fail(path + ": removing " + quoted(n) + " failed");
        }
    } else {
        YAXDATA *handle;
        {
            LibraryQuiet quiet;
            handle = checkYAXInFile(path.c_str());
        }
        if (handle == nullptr) return fail(path + ": the trailer is damaged and cannot be read");
        if (names.size() > 1 && !hasLegacy(c.signature)) {
            // Several names in one rewrite, so that they go all together or
            // not at all (its result is always 1: the check below decides).
            std::vector<const char *> list;
            for (const std::string &n : names) list.push_back(n.c_str());
            LibraryQuiet quiet;
            deleteYAXMultiDataFromFilebyName(&handle, list.data(), static_cast<uint32_t>(list.size()));
            destroyYAXDATA(handle);
            handle = nullptr;
        }
        for (const std::string &n : names) {
            if (handle == nullptr) break;
            int ok = 0;
            {
                LibraryQuiet quiet;
                // The handle turns null once the last entry is gone; names were
                // checked to be present and distinct, so that is the final one.
                if (handle != nullptr)
                    ok = deleteYAXDataFromFilebyName(&handle, n.c_str(), static_cast<int>(n.size()));
            }
            if (ok != 1) {
                {
                    LibraryQuiet quiet;
                    destroyYAXDATA(handle);
                }
                return fail(path + ": removing " + quoted(n) + " failed");
            }
        }
        LibraryQuiet quiet;
        destroyYAXDATA(handle);
    }
    refreshBox(path, c);
    if (auto why = verifyEdit(path, c, seen, "", nullptr)) {
        // A rewrite that was refused (no room for the copy, say) changed nothing.
        if (!fast && names.size() > 1) return fail(path + ": removing the entries failed");
        return unverified(path, *why);
    }
    return kOk;
}

int cmdClear(const std::string &path, bool fast) {
    FileLock lock;
    if (auto why = lock.acquire(path)) return fail(*why);
    Contents c;
    if (auto why = prepareEdit(path, c)) return fail(*why);
    if (c.signature == SIGNATURE_NONE) return kOk;  // nothing stored
    if (fast && !hasTrailer(c.signature))
        return fail(path + ": --fast cannot remove legacy audio; clear without --fast");
    if (fast && !fastIsSafe(path)) fast = false;
    int ok;
    {
        LibraryQuiet quiet;
        ok = fast ? deleteFastAllYAXData(path.c_str()) : deleteAllDataFromFile(path.c_str());
    }
    if (ok != 1) return fail(path + ": removing the entries failed");
    refreshBox(path, c);
    std::set<std::string> all;
    for (const Entry &e : c.entries)
        if (e.kind != "filler") all.insert(e.name);
    if (auto why = verifyEdit(path, c, all, "", nullptr)) return unverified(path, *why);
    return kOk;
}

#include "cmd_cp.cpp"
#include "cmd_cover.cpp"

}  // namespace

#include "cmd_sound.cpp"

int main(int argc, char **argv) {
    CLI::App app{"yax: list, extract, store and remove the named entries kept behind JPEG and "
                 "MP4 files."};
    app.footer(
        "Exit status: 0 on success, 1 when the command failed (missing file, unknown name, "
        "refused save, damaged trailer), 2 for a usage error.");
    app.require_subcommand(1);
    app.add_flag("-v,--verbose", gVerbose, "Show the library's log lines on standard error");

    std::string file, name, out, data = "-", subFile;
    std::vector<std::string> names;
    bool json = false, subInfo = false, replace = false, fast = false;
    uint32_t type = 1;

    CLI::App *list = app.add_subcommand(
        "list", "List the entries of FILE, one per line, tab-separated: index, name, data type, "
                "payload length, sub-information length, absolute payload offset, and a kind for "
                "special entries (filler, tonephoto-sound, tonephoto-list, damaged). The sounds "
                "of the name list follow in its order as soundK lines (kind sound, or missing-sound "
                "when the list names no stored entry), then the sounds of a legacy audio block as audioN lines (kind legacy-audio); in an MP4 file whose "
                "entries sit in a \"yaxd\" box, a last line gives the box's stored size and offset "
                "(kind mp4-box).");
    list->add_option("FILE", file, "Image or video file")->required();
    list->add_flag("--json", json, "Print one JSON document instead");

    CLI::App *get = app.add_subcommand(
        "get", "Write the payload (or the sub-information) of entry NAME byte for byte.");
    get->add_option("FILE", file, "Image or video file")->required();
    get->add_option("NAME", name, "Entry name")->required();
    get->add_option("-o,--output", out, "Write to OUT instead of standard output");
    get->add_flag("--sub-info", subInfo, "Write the sub-information instead of the payload");

    CLI::App *put = app.add_subcommand(
        "put", "Store DATAFILE (or standard input) as entry NAME of FILE. An MP4 file (\"ftyp\" at "
               "offset 4) keeps its entries in a \"yaxd\" box at its end, which players skip; "
               "every put into it is the MP4 save, with or without --fast.");
    put->add_option("FILE", file, "Image or video file, edited in place")->required();
    put->add_option("NAME", name, "Entry name")->required();
    CLI::Option *dataArg = put->add_option(
        "DATAFILE", data, "Payload file, or - for standard input (the default unless it is a terminal)");
    put->add_option("--type", type, "Data type, 0 to 65535 (0 needs --sub-info)")
        ->check(CLI::Range(0u, kMaxDataType))
        ->default_str("1");
    put->add_option("--sub-info", subFile, "File holding the entry's sub-information");
    put->add_flag("--replace", replace, "Replace an entry of the same name");
    put->add_flag("--fast", fast,
                  "Edit in place without rewriting the file; a replaced entry's space is kept "
                  "as filler and reused");

    CLI::App *rm = app.add_subcommand("rm", "Remove the named entries from FILE.");
    rm->add_option("FILE", file, "Image or video file, edited in place")->required();
    rm->add_option("NAME", names, "Entry names")->required();
    rm->add_flag("--fast", fast, "Turn the entries into filler without shortening the file");

    CLI::App *clear = app.add_subcommand("clear", "Remove every entry from FILE.");
    clear->add_option("FILE", file, "Image or video file, edited in place")->required();
    clear->add_flag("--fast", fast, "Turn the entries into filler without shortening the file");

    CLI::App *check = app.add_subcommand(
        "check", "Report every inconsistency of FILE's entries, one line per problem, without "
                 "changing it; exit 0 when it is clean, 1 otherwise.");
    check->add_option("FILE", file, "Image or video file")->required();
    check->add_flag("--json", json, "Print one JSON document instead");

    const SoundCommands sound(app);
    std::string cpSrc, cpDst, cpName;
    int64_t cpType = -1;
    std::string coverImage;
    CLI::App *cover = app.add_subcommand(
        "cover", "Put NEWIMAGE (a JPEG) in front of FILE's entries, keeping every entry.");
    cover->add_option("FILE", file, "Image file holding the entries")->required();
    cover->add_option("NEWIMAGE", coverImage, "The new image")->required();
    CLI::App *cp = app.add_subcommand(
        "cp", "Copy the entries of SRC (all, one by name, or all of one data type) into DST.");
    cp->add_option("SRC", cpSrc, "File to copy the entries from (not changed)")->required();
    cp->add_option("DST", cpDst, "Image or video file to copy them into")->required();
    auto *cpByName = cp->add_option("--name", cpName, "Copy only the entry of this name");
    cp->add_option("--type", cpType, "Copy only the entries of this data type")
        ->check(CLI::Range(0, 65535))
        ->excludes(cpByName);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        // One line; the full help is a --help away.
        std::fprintf(stderr, "yax: %s (see yax --help)\n", e.what());
        return kUsage;
    }

    // Every edit is checked write by write and moved into place whole.
    yaxSetSafeEdit(1);
    try {
        if (list->parsed()) return cmdList(file, json);
        if (get->parsed()) return cmdGet(file, name, out, subInfo);
        // Left out, the payload comes from standard input, but never silently from a terminal.
        if (put->parsed() && dataArg->count() == 0 && isatty(STDIN_FILENO))
            return fail("no payload given and standard input is a terminal; give a file, or - to type it");
        if (put->parsed()) return cmdPut(file, name, data, type, subFile, replace, fast);
        if (rm->parsed()) return cmdRemove(file, names, fast);
        if (clear->parsed()) return cmdClear(file, fast);
        if (check->parsed()) return cmdCheck(file, json);
        if (auto r = sound.run()) return *r;
        if (cp->parsed()) return cmdCp(cpSrc, cpDst, cpName, cpType);
        if (cover->parsed()) return cmdCover(file, coverImage);
    } catch (const std::bad_alloc &) {
        return fail("out of memory");
    }
    return kUsage;
}
