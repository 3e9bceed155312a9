// See shim.hpp. Every wrapper calls the real function unless the armed fault
// is due; close and fclose still release the descriptor before they fail, as
// a close that reports a late write error does.
#include "shim.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
ssize_t __real_read(int, void *, size_t);
ssize_t __real_write(int, const void *, size_t);
ssize_t __real_pwrite64(int, const void *, size_t, off64_t);
int __real_close(int);
int __real_fclose(FILE *);
int __real_fsync(int);
int __real_ftruncate64(int, off64_t);
int __real_rename(const char *, const char *);
int __real_remove(const char *);
int __real_unlink(const char *);
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
}

namespace fault {

const char *const kKindNames[kKinds] = {"write", "close", "fsync", "truncate", "rename", "alloc"};

namespace {

int gKind = -1, gLeft = 0;
bool gFired = false, gRecording = false;
const char *gReport = nullptr;
std::vector<Op> *gOps = nullptr;

// Whether this call is the one that fails.
bool due(Kind k) {
    if (gKind != k || gFired || --gLeft > 0) return false;
    gFired = true;
    if (gReport != nullptr) {
        const int fd = open(gReport, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            __real_write(fd, "fired", 5);
            __real_close(fd);
        }
    }
    return true;
}

std::string pathOf(int fd) {
    char link[64], target[PATH_MAX];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    return n > 0 ? std::string(target, size_t(n)) : std::string();
}

void note(Op op) {
    if (!gRecording) return;
    gRecording = false;  // the recording allocates; keep it out of its own way
    if (gOps == nullptr) gOps = new std::vector<Op>;
    gOps->push_back(std::move(op));
    gRecording = true;
}

void noteWrite(int fd, const void *buf, ssize_t n, int64_t at) {
    if (!gRecording || n <= 0) return;
    const auto *p = static_cast<const unsigned char *>(buf);
    note(Op{Op::kWriteAt, pathOf(fd), "", at, std::vector<unsigned char>(p, p + n)});
}

// Programs run by a test arm themselves from the environment.
struct FromEnvironment {
    FromEnvironment() {
        const char *spec = std::getenv("YAX_FAULT");
        gReport = std::getenv("YAX_FAULT_REPORT");
        if (spec == nullptr) return;
        for (int k = 0; k < kKinds; ++k) {
            const size_t len = std::strlen(kKindNames[k]);
            if (std::strncmp(spec, kKindNames[k], len) == 0 && spec[len] == ':')
                arm(Kind(k), std::atoi(spec + len + 1));
        }
    }
} gFromEnvironment;

}  // namespace

namespace {
std::string gReadPath;
int gReadAt = 0, gReads = 0;
bool gReadFail = false, gReadFailing = false;
void (*gReadHook)(const std::string &) = nullptr;

// Whether this read of `fd` fails; runs the hook when it is due.
bool readFails(int fd) {
    if (gReadPath.empty() || pathOf(fd) != gReadPath) return false;
    if (++gReads == gReadAt) {
        if (gReadHook != nullptr) gReadHook(gReadPath);
        if (gReadFail) gReadFailing = true;
    }
    return gReadFailing;
}
}  // namespace

void onRead(const std::string &path, int n, bool fail, void (*hook)(const std::string &)) {
    gReadPath = path;
    gReadAt = n;
    gReads = 0;
    gReadFail = fail;
    gReadFailing = false;
    gReadHook = hook;
}
int readsOf() { return gReads; }

void arm(Kind kind, int n) {
    gKind = kind;
    gLeft = n;
    gFired = false;
}
void disarm() {
    gKind = -1;
    gReadPath.clear();
}
bool fired() { return gFired; }

namespace {
size_t gShortAsked = 0, gShortKeep = 0;
int gEndedFd = -1;  // the descriptor whose file was cut: later reads find its end
}

void shortRead(size_t asked, size_t keep) { gShortAsked = asked, gShortKeep = keep, gEndedFd = -1; }
void record(bool on) { gRecording = on; }
std::vector<Op> takeOps() {
    std::vector<Op> out;
    if (gOps != nullptr) out.swap(*gOps);
    return out;
}

}  // namespace fault

using namespace fault;

extern "C" {

ssize_t __wrap_read(int fd, void *buf, size_t n) {
    if (readFails(fd)) return errno = EIO, -1;
    if (fd == gEndedFd) return 0;
    if (gShortAsked != 0 && n == gShortAsked) {
        gShortAsked = 0;
        gEndedFd = fd;
        return gShortKeep == 0 ? 0 : __real_read(fd, buf, gShortKeep);
    }
    return __real_read(fd, buf, n);
}

ssize_t __wrap_write(int fd, const void *buf, size_t n) {
    if (due(kWrite)) return errno = ENOSPC, -1;
    const int64_t at = gRecording ? lseek64(fd, 0, SEEK_CUR) : 0;
    const ssize_t r = __real_write(fd, buf, n);
    noteWrite(fd, buf, r, at);
    return r;
}

ssize_t __wrap_pwrite64(int fd, const void *buf, size_t n, off64_t at) {
    if (due(kWrite)) return errno = ENOSPC, -1;
    const ssize_t r = __real_pwrite64(fd, buf, n, at);
    noteWrite(fd, buf, r, at);
    return r;
}

int __wrap_close(int fd) {
    const int r = __real_close(fd);
    return due(kClose) ? (errno = EIO, -1) : r;
}

int __wrap_fclose(FILE *fp) {
    const int r = __real_fclose(fp);
    return due(kClose) ? (errno = EIO, EOF) : r;
}

int __wrap_fsync(int fd) { return due(kFsync) ? (errno = EIO, -1) : __real_fsync(fd); }

int __wrap_ftruncate64(int fd, off64_t length) {
    if (due(kTruncate)) return errno = EIO, -1;
    const int r = __real_ftruncate64(fd, length);
    if (r == 0) note(Op{Op::kTruncateTo, pathOf(fd), "", length, {}});
    return r;
}

int __wrap_rename(const char *from, const char *to) {
    if (due(kRename)) return errno = EXDEV, -1;
    char real[PATH_MAX];
    const std::string source = realpath(from, real) ? real : from;
    const int r = __real_rename(from, to);
    if (r == 0) note(Op{Op::kRenameTo, source, realpath(to, real) ? real : to, 0, {}});
    return r;
}

int __wrap_remove(const char *path) {
    char real[PATH_MAX];
    const std::string name = realpath(path, real) ? real : path;
    const int r = __real_remove(path);
    if (r == 0) note(Op{Op::kUnlink, name, "", 0, {}});
    return r;
}

int __wrap_unlink(const char *path) {
    char real[PATH_MAX];
    const std::string name = realpath(path, real) ? real : path;
    const int r = __real_unlink(path);
    if (r == 0) note(Op{Op::kUnlink, name, "", 0, {}});
    return r;
}

void *__wrap_malloc(size_t n) { return due(kAlloc) ? nullptr : __real_malloc(n); }

void *__wrap_calloc(size_t count, size_t n) {
    return due(kAlloc) ? nullptr : __real_calloc(count, n);
}

}  // extern "C"
