// The safe-edit switch, the temporary file of rewriting edits and the undo
// file of appending and in-place edits (see safe_file.hpp).
#include "support/safe_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "support/bytes.hpp"
#include "support/replace.hpp"
#include "yax_support.h"

namespace yax {
namespace {

constexpr const char *kTag = "YAXSafeEdit";
constexpr char kUndoHead[8] = {'Y', 'A', 'X', 'U', 'N', 'D', 'O', '1'};
constexpr char kUndoEnd[8] = {'Y', 'A', 'X', 'U', 'N', 'D', 'O', 'E'};
constexpr size_t kUndoFixed = sizeof kUndoHead + 3 * 8 + sizeof kUndoEnd;

std::atomic<int> gSafe{0};
thread_local uint64_t tFailures = 0;

std::string folderOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file a path finally names; the path itself when it cannot be resolved.
std::string resolved(const char *path) {
    char *real = realpath(path, nullptr);
    if (real == nullptr) return path;
    std::string r(real);
    std::free(real);
    return r;
}

// The name of the file an open stream writes to, or "" where it cannot be told.
std::string pathOfStream(FILE *fp) {
    char link[64], target[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fileno(fp));
    const ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0 || target[0] != '/') return "";
    return std::string(target, static_cast<size_t>(n));
}

std::string undoName(const std::string &real) {
    return folderOf(real) + "/." + baseOf(real) + ".yaxundo";
}

bool writeFully(int fd, const unsigned char *p, size_t n, int64_t at) {
    while (n > 0) {
        const ssize_t w = pwrite64(fd, p, n, static_cast<off64_t>(at));
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
        at += w;
    }
    return true;
}

bool readFully(int fd, unsigned char *p, size_t n, int64_t at) {
    while (n > 0) {
        const ssize_t r = pread64(fd, p, n, static_cast<off64_t>(at));
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
        at += r;
    }
    return true;
}

void put64(unsigned char *p, uint64_t v) {
    put32(p, static_cast<uint32_t>(v));
    put32(p + 4, static_cast<uint32_t>(v >> 32));
}
uint64_t get64(const unsigned char *p) { return get32(p) | uint64_t{get32(p + 4)} << 32; }

// Mode, owner and extended attributes of `original` onto the open file.
// Owner and attributes are kept where this process is allowed to set them.
void copyMetadata(int fd, const std::string &original) {
    struct stat st {};
    if (stat(original.c_str(), &st) != 0) return;
    if (fchown(fd, st.st_uid, st.st_gid) != 0 && fchown(fd, static_cast<uid_t>(-1), st.st_gid) != 0) {
        // another owner is not ours to give
    }
    fchmod(fd, st.st_mode & 07777);
    const ssize_t size = listxattr(original.c_str(), nullptr, 0);
    if (size <= 0) return;
    std::vector<char> names(static_cast<size_t>(size));
    const ssize_t got = listxattr(original.c_str(), names.data(), names.size());
    for (ssize_t at = 0; at < got; at += static_cast<ssize_t>(std::strlen(&names[at])) + 1) {
        const char *name = &names[static_cast<size_t>(at)];
        const ssize_t len = getxattr(original.c_str(), name, nullptr, 0);
        if (len < 0) continue;
        std::vector<char> value(static_cast<size_t>(len) + 1);
        const ssize_t vlen = getxattr(original.c_str(), name, value.data(), value.size());
        if (vlen >= 0) fsetxattr(fd, name, value.data(), static_cast<size_t>(vlen), 0);
    }
}

}  // namespace

bool safeEdits() { return gSafe.load(std::memory_order_relaxed) != 0; }
uint64_t ioFailures() { return tFailures; }
void noteIoFailure() { ++tFailures; }

bool syncStream(FILE *fp) { return fp != nullptr && fsync(fileno(fp)) == 0; }

void syncFolder(const std::string &path) {
    const int fd = open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

// ---- rewriting edits ----

RewriteTemp::RewriteTemp(const char *path, char *(*documented)(const char *))
    : safe_(safeEdits()) {
    if (safe_) {
        target_ = resolved(path);
        name_ = folderOf(target_) + "/." + baseOf(target_) + ".XXXXXX";
        return;
    }
    target_ = path;
    char *name = documented(path);
    if (name != nullptr) name_ = name;
    _qfree(name);
}

RewriteTemp::~RewriteTemp() {
    if (fp_ != nullptr) std::fclose(fp_);
    if (safe_ && !done_ && !name_.empty()) unlink(name_.c_str());
}

bool RewriteTemp::open(const char *mode) {
    if (!safe_) {
        fp_ = _qfopen(name_.c_str(), mode);
        return fp_ != nullptr;
    }
    const int fd = mkostemp(name_.data(), O_CLOEXEC);
    if (fd < 0) {
        YAXLogE(kTag, "cannot create a temporary file beside %s", target_.c_str());
        name_.clear();
        return false;
    }
    fp_ = fdopen(fd, "w+b");
    if (fp_ == nullptr) {
        close(fd);
        return false;
    }
    failures_ = ioFailures();
    return true;
}

bool RewriteTemp::finish() {
    if (fp_ == nullptr) return false;
    bool ok = ioFailures() == failures_;
    ok = syncStream(fp_) && ok;
    copyMetadata(fileno(fp_), target_);
    ok = std::fclose(fp_) == 0 && ok;
    fp_ = nullptr;
    if (!safe_) return true;
    if (!ok) YAXLogE(kTag, "the temporary file could not be written; %s is left as it was",
                     target_.c_str());
    return ok;
}

namespace {

// A file with more than one name keeps them all: the finished content goes
// into the same file from the first byte that differs on, under an undo
// scope, and the temporary file is removed.
bool copyInto(const std::string &target, const std::string &temp) {
    const int in = ::open(temp.c_str(), O_RDONLY | O_CLOEXEC);
    const int old = ::open(target.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    bool ok = in >= 0 && old >= 0 && fstat(in, &st) == 0;
    std::vector<unsigned char> a(1 << 16), b(1 << 16);
    int64_t from = 0;
    while (ok) {
        const ssize_t n = pread64(in, a.data(), a.size(), from);
        const ssize_t m = n > 0 ? pread64(old, b.data(), static_cast<size_t>(n), from) : 0;
        if (n <= 0 || m != n || std::memcmp(a.data(), b.data(), static_cast<size_t>(n)) != 0) break;
        from += n;
    }
    if (old >= 0) close(old);
    if (ok) {
        UndoScope undo(target.c_str(), from);
        const int out = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
        ok = undo.ready() && out >= 0;
        for (int64_t at = from; ok && at < st.st_size;) {
            const ssize_t n = pread64(in, a.data(), a.size(), at);
            ok = n > 0 && writeFully(out, a.data(), static_cast<size_t>(n), at);
            at += n;
        }
        ok = ok && ftruncate64(out, st.st_size) == 0;
        if (out >= 0) ok = close(out) == 0 && ok;
        if (!ok) noteIoFailure();
        ok = undo.commit() && ok;
    }
    if (in >= 0) close(in);
    unlink(temp.c_str());
    return ok;
}

}  // namespace

bool RewriteTemp::replace(const char *path, const char *tag) {
    struct stat st {};
    const bool linked = safe_ && stat(target_.c_str(), &st) == 0 && st.st_nlink > 1;
    const bool ok = linked  ? copyInto(target_, name_)
                    : safe_ ? replaceWithTemp(target_.c_str(), name_.c_str(), tag, false)
                            : replaceWithTemp(path, name_.c_str(), tag, true);
    if (ok) {
        done_ = true;
        syncFolder(target_);
    }
    return ok;
}

// ---- appending and in-place edits ----

thread_local int tOpenScopes = 0;

UndoScope::UndoScope(FILE *fp, int64_t from, const bool *abandoned)
    : fp_(fp), safe_(safeEdits()), abandoned_(abandoned), from_(from) {
    if ((!safe_ && abandoned == nullptr) || fp == nullptr) return;
    save(fileno(fp), safe_ ? pathOfStream(fp) : std::string());
}

UndoScope::UndoScope(const char *path, int64_t from)
    : path_(resolved(path)), safe_(safeEdits()), from_(from) {
    if (!safe_) return;
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ready_ = false;
        return;
    }
    save(fd, path_);
    close(fd);
}

// The old bytes and length, in memory and in the undo file beside `real`.
void UndoScope::save(int fd, const std::string &real) {
    failures_ = ioFailures();
    if (tOpenScopes > 0) {
        nested_ = open_ = true;
        return;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        ready_ = false;
        return;
    }
    length_ = st.st_size;
    from_ = from_ < 0 ? 0 : from_ > length_ ? length_ : from_;
    const auto count = static_cast<uint64_t>(length_ - from_);
    if (count > SIZE_MAX - kUndoFixed) {
        ready_ = false;
        return;
    }
    // Head, length, start, count, the old bytes, end mark: one write.
    std::vector<unsigned char> record(kUndoFixed + static_cast<size_t>(count));
    std::memcpy(record.data(), kUndoHead, 8);
    put64(&record[8], static_cast<uint64_t>(length_));
    put64(&record[16], static_cast<uint64_t>(from_));
    put64(&record[24], count);
    if (!readFully(fd, &record[32], static_cast<size_t>(count), from_)) {
        YAXLogE(kTag, "cannot read the bytes the edit would change");
        ready_ = false;
        return;
    }
    std::memcpy(&record[record.size() - 8], kUndoEnd, 8);
    old_.assign(record.begin() + 32, record.end() - 8);

    if (!real.empty()) {
        journal_ = undoName(real);
        // An undo file that is already there belongs to an interrupted edit
        // that has not been put right yet: nothing goes on until it is.
        const int j = ::open(journal_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        bool saved = j >= 0;
        if (!saved && errno == EEXIST) {
            YAXLogE(kTag, "%s holds an interrupted edit; recover it first", journal_.c_str());
            journal_.clear();
            ready_ = false;
            return;
        }
        saved = saved && writeFully(j, record.data(), record.size(), 0) && fsync(j) == 0;
        if (j >= 0) saved = close(j) == 0 && saved;
        if (!saved) {
            YAXLogE(kTag, "cannot save the bytes the edit would change");
            if (j >= 0) unlink(journal_.c_str());
            journal_.clear();
            ready_ = false;
            return;
        }
        syncFolder(journal_);
    }
    failures_ = ioFailures();
    open_ = true;
    ++tOpenScopes;
}

UndoScope::~UndoScope() {
    if (!open_) return;
    if (safe_ || abandoned())
        restore();
    else
        release();
}

// The default mode's scope of a streamed payload, let go without restoring.
void UndoScope::release() {
    open_ = false;
    if (!nested_) --tOpenScopes;
    old_.clear();
}

int UndoScope::openForWrite() const {
    return fp_ != nullptr ? fileno(fp_) : ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
}

void UndoScope::closeAfterWrite(int fd) const {
    if (fp_ == nullptr && fd >= 0) close(fd);
}

bool UndoScope::commit() {
    if (!safe_) {
        if (open_ && abandoned()) {
            restore();
            return false;
        }
        if (open_) release();
        syncStream(fp_);
        return true;
    }
    if (!open_) return false;
    if (nested_) {
        open_ = false;
        return ioFailures() == failures_;
    }
    const int fd = openForWrite();
    const bool synced = fd >= 0 && fsync(fd) == 0;
    closeAfterWrite(fd);
    if (ioFailures() != failures_ || !synced) {
        restore();
        return false;
    }
    open_ = false;
    --tOpenScopes;
    if (!journal_.empty()) unlink(journal_.c_str());
    return true;
}

void UndoScope::restore() {
    open_ = false;
    if (nested_) return;
    --tOpenScopes;
    const int fd = openForWrite();
    const bool ok = fd >= 0 && writeFully(fd, old_.data(), old_.size(), from_) &&
                    ftruncate64(fd, static_cast<off64_t>(length_)) == 0 && fsync(fd) == 0;
    closeAfterWrite(fd);
    if (!ok) {
        YAXLogE(kTag, "cannot put the old bytes back; %s keeps them", journal_.c_str());
        return;
    }
    YAXLogE(kTag, abandoned() ? "the payload could not be read whole; the file is as it was "
                                "before the edit"
                              : "a write failed; the file is as it was before the edit");
    if (!journal_.empty()) unlink(journal_.c_str());
}

}  // namespace yax

extern "C" {

YAX_EXPORT void yaxSetSafeEdit(int on) { yax::gSafe.store(on != 0 ? 1 : 0); }

YAX_EXPORT int yaxGetSafeEdit(void) { return yax::gSafe.load(); }

YAX_EXPORT int yaxRecoverEdit(const char *path) {
    using namespace yax;
    if (path == nullptr) return -1;
    const std::string real = resolved(path);
    const std::string journal = undoName(real);
    const int j = open(journal.c_str(), O_RDONLY | O_CLOEXEC);
    if (j < 0) return errno == ENOENT ? 0 : -1;
    struct stat st {};
    std::vector<unsigned char> rec;
    if (fstat(j, &st) == 0 && static_cast<uint64_t>(st.st_size) >= kUndoFixed &&
        static_cast<uint64_t>(st.st_size) <= SIZE_MAX) {
        rec.resize(static_cast<size_t>(st.st_size));
        if (!readFully(j, rec.data(), rec.size(), 0)) rec.clear();
    }
    close(j);
    // Only a complete record counts: one cut short was being written while
    // the file itself was still untouched.
    const bool complete = rec.size() >= kUndoFixed && std::memcmp(rec.data(), kUndoHead, 8) == 0 &&
                          std::memcmp(&rec[rec.size() - 8], kUndoEnd, 8) == 0 &&
                          get64(&rec[24]) == rec.size() - kUndoFixed;
    if (!complete) {
        unlink(journal.c_str());
        syncFolder(journal);
        return 0;
    }
    const int fd = open(real.c_str(), O_WRONLY | O_CLOEXEC);
    const bool ok = fd >= 0 &&
                    writeFully(fd, &rec[32], rec.size() - kUndoFixed,
                               static_cast<int64_t>(get64(&rec[16]))) &&
                    ftruncate64(fd, static_cast<off64_t>(get64(&rec[8]))) == 0 && fsync(fd) == 0;
    if (fd >= 0) close(fd);
    if (!ok) {
        YAXLogE(kTag, "cannot put back the interrupted edit of %s", real.c_str());
        return -1;
    }
    unlink(journal.c_str());
    syncFolder(journal);
    return 1;
}

}  // extern "C"
