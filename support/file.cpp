// File primitives. Data moves through the stream's descriptor (read, write,
// lseek64), never through stdio's buffer; integers have an explicit byte order.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "support/bytes.hpp"
#include "support/copy.hpp"
#include "support/gather.hpp"
#include "support/safe_file.hpp"
#include "yax_support.h"

namespace {

constexpr uint32_t kFileCopyChunk = 65536;

int readN(FILE *stream, void *buffer, size_t length) {
    return static_cast<int>(::read(fileno(stream), buffer, length));
}

int writeN(FILE *stream, const void *buffer, size_t length) {
    if (yax::WriteGather::take(fileno(stream), buffer, length)) return static_cast<int>(length);
    const int r = static_cast<int>(::write(fileno(stream), buffer, length));
    if (r != static_cast<int>(length)) yax::noteIoFailure();
    return r;
}

}  // namespace

extern "C" {

YAX_EXPORT FILE *_qfopen(const char *path, const char *mode) {
    errno = 0;
    return std::fopen(path, mode);
}

YAX_EXPORT int _qfclose(FILE *stream) { return std::fclose(stream); }

YAX_EXPORT int _qfread(void *buffer, uint32_t length, FILE *stream) {
    return readN(stream, buffer, length);
}

YAX_EXPORT int _qfreadInt16(uint16_t *out, FILE *stream) {
    unsigned char b[2] = {0, 0};
    int r = readN(stream, b, sizeof b);
    *out = yax::get16(b);  // missing bytes count as 0
    return r;
}

YAX_EXPORT int _qfreadInt32(uint32_t *out, FILE *stream) {
    unsigned char b[4] = {0, 0, 0, 0};
    int r = readN(stream, b, sizeof b);
    *out = yax::get32(b);
    return r;
}

YAX_EXPORT int _qfwrite(const void *buffer, uint32_t length, FILE *stream) {
    int r = writeN(stream, buffer, length);
    if (r != static_cast<int>(length)) {
        yax::logShortWrite(r, length);
        return -1;
    }
    return static_cast<int>(length);
}

YAX_EXPORT int _qfwriteInt16(uint16_t value, FILE *stream) {
    unsigned char b[2];
    yax::put16(b, value);
    return writeN(stream, b, sizeof b);
}

YAX_EXPORT int _qfwriteInt32(uint32_t value, FILE *stream) {
    unsigned char b[4];
    yax::put32(b, value);
    return writeN(stream, b, sizeof b);
}

YAX_EXPORT int _qfwriteInt32_endian(uint32_t value, FILE *stream) {
    unsigned char b[4];
    yax::put32be(b, value);
    return writeN(stream, b, sizeof b);
}

YAX_EXPORT long _qftell(FILE *stream) { return std::ftell(stream); }

YAX_EXPORT int _qfseek(FILE *stream, long offset, int whence) {
    return std::fseek(stream, offset, whence);
}

YAX_EXPORT int64_t _qlseek64(FILE *stream, int64_t offset, int whence) {
    int64_t r = ::lseek64(fileno(stream), static_cast<off64_t>(offset), whence);
    if (r == -1) YAXLogE("_qlseek", "errno : %d", errno);
    return r;
}

YAX_EXPORT int _qremove(const char *path) { return std::remove(path); }

YAX_EXPORT int _qrename(const char *old_path, const char *new_path) {
    return std::rename(old_path, new_path);
}

// 64 KiB at a time through one heap buffer, as it always has; the library's
// own rewriting edits copy with copyKept (support/copy.hpp), the same routine
// with a larger chunk.
YAX_EXPORT int _qfilecopy(FILE *destination, FILE *source, int64_t count) {
    if (destination == nullptr || source == nullptr || count == 0) return 0;
    auto *chunk = static_cast<unsigned char *>(_qmalloc(kFileCopyChunk));
    if (chunk == nullptr) {
        yax::noteIoFailure();
        return 0;
    }
    yax::CopyPolicy documented;
    documented.chunk = kFileCopyChunk;
    documented.whole = true;
    if (count > 0)
        yax::copyFd(fileno(destination), fileno(source), static_cast<uint64_t>(count), documented,
                    chunk);
    _qfree(chunk);
    return 1;
}

}  // extern "C"

namespace yax {

namespace {
thread_local WriteGather *tGather = nullptr;

// The whole of `n` bytes at `at`; false on any failed or short write.
bool pwriteAll(int fd, const unsigned char *p, size_t n, int64_t at) {
    while (n > 0) {
        const ssize_t w = ::pwrite64(fd, p, n, static_cast<off64_t>(at));
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
        at += w;
    }
    return true;
}
}  // namespace

WriteGather::WriteGather(FILE *fp)
    : fd_(fp != nullptr ? fileno(fp) : -1),
      start_(fd_ >= 0 ? ::lseek64(fd_, 0, SEEK_CUR) : -1),
      outer_(tGather) {
    if (fd_ >= 0 && start_ >= 0) tGather = this;
}

WriteGather::~WriteGather() {
    if (tGather == this) tGather = outer_;
}

bool WriteGather::holds(int fd) { return tGather != nullptr && tGather->fd_ == fd; }

bool WriteGather::take(int fd, const void *p, size_t n) {
    WriteGather *g = tGather;
    if (g == nullptr || fd != g->fd_) return false;
    const int64_t at = ::lseek64(fd, 0, SEEK_CUR);
    if (at < 0) return false;
    const auto *bytes = static_cast<const unsigned char *>(p);
    if (!g->runs_.empty() &&
        g->runs_.back().at + static_cast<int64_t>(g->runs_.back().bytes.size()) == at) {
        g->runs_.back().bytes.insert(g->runs_.back().bytes.end(), bytes, bytes + n);
    } else {
        g->runs_.push_back(Run{at, std::vector<unsigned char>(bytes, bytes + n)});
    }
    ::lseek64(fd, static_cast<off64_t>(n), SEEK_CUR);
    return true;
}

bool WriteGather::send() {
    if (tGather == this) tGather = outer_;
    if (fd_ < 0 || start_ < 0) return false;
    const int64_t end = ::lseek64(fd_, 0, SEEK_CUR);
    const int64_t old_length = ::lseek64(fd_, 0, SEEK_END);
    // the bytes each run covers, to put back if a later run fails
    std::vector<std::vector<unsigned char>> old(runs_.size());
    for (size_t i = 0; i < runs_.size(); ++i) {
        const Run &r = runs_[i];
        if (r.at >= old_length) continue;
        const int64_t covered = std::min<int64_t>(static_cast<int64_t>(r.bytes.size()), old_length - r.at);
        old[i].resize(static_cast<size_t>(covered));
        if (::pread64(fd_, old[i].data(), old[i].size(), static_cast<off64_t>(r.at)) != covered) {
            ::lseek64(fd_, static_cast<off64_t>(start_), SEEK_SET);
            return false;
        }
    }
    size_t sent = 0;
    while (sent < runs_.size() && pwriteAll(fd_, runs_[sent].bytes.data(), runs_[sent].bytes.size(), runs_[sent].at))
        ++sent;
    if (sent == runs_.size()) {
        ::lseek64(fd_, static_cast<off64_t>(end), SEEK_SET);
        return true;
    }
    for (size_t i = 0; i <= sent && i < runs_.size(); ++i)
        if (!old[i].empty()) pwriteAll(fd_, old[i].data(), old[i].size(), runs_[i].at);
    if (::ftruncate64(fd_, static_cast<off64_t>(old_length)) != 0) noteIoFailure();
    ::lseek64(fd_, static_cast<off64_t>(start_), SEEK_SET);
    return false;
}

}  // namespace yax
