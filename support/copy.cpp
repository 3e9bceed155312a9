// See copy.hpp.
#include "support/copy.hpp"

#include <unistd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/gather.hpp"
#include "support/safe_file.hpp"
#include "yax_support.h"

namespace yax {
namespace {

// Writes into an open gather of `fd` when there is one (see gather.hpp).
ssize_t writeOut(int fd, const void *p, size_t n, bool gather) {
    if (gather && WriteGather::take(fd, p, n)) return static_cast<ssize_t>(n);
    return ::write(fd, p, n);
}

// Reads up to n bytes, retrying short reads until the end of the source;
// -1 when a read fails, whatever came before it.
ssize_t readSome(int fd, unsigned char *p, size_t n) {
    size_t got = 0;
    while (got < n) {
        const ssize_t r = ::read(fd, p + got, n - got);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

}  // namespace

void logShortWrite(int64_t written, uint64_t wanted) {
    YAXLogE("YAXSystemFile::_qfwrite", "write ret != write size_of_byte  ==> fail(%d != %d)",
            static_cast<int>(written), static_cast<int>(wanted));
}

CopyOutcome copyFd(int out, int in, uint64_t count, const CopyPolicy &policy,
                   unsigned char *buffer) {
    CopyOutcome result;
    const size_t chunk = policy.chunk != 0 ? policy.chunk : kCopyChunk;
    unsigned char *own = nullptr;
    auto stop = [&](CopyStop why) {
        result.stop = why;
        noteIoFailure();
        return result;
    };
    while (result.copied < count) {
        const uint64_t left = count - result.copied;
        const size_t n = left < chunk ? static_cast<size_t>(left) : chunk;
        if (buffer == nullptr) {
            own = static_cast<unsigned char *>(_qmalloc(chunk));
            if (own == nullptr) return stop(CopyStop::kNoMemory);
            buffer = own;
        }
        const ssize_t got = readSome(in, buffer, n);
        if (got < 0 || static_cast<size_t>(got) < n) {
            if (!policy.whole) {
                if (got > 0) {
                    // what did arrive still goes out, so the caller's
                    // positions stay consistent with `copied`
                    const ssize_t w = writeOut(out, buffer, static_cast<size_t>(got), policy.gather);
                    if (w == got) result.copied += static_cast<uint64_t>(got);
                }
                _qfree(own);
                return stop(got < 0 ? CopyStop::kReadError : CopyStop::kShortRead);
            }
            noteIoFailure();
            std::memset(buffer + std::max<ssize_t>(got, 0), 0, n - static_cast<size_t>(std::max<ssize_t>(got, 0)));
        }
        const ssize_t w = writeOut(out, buffer, n, policy.gather);
        if (w != static_cast<ssize_t>(n)) {
            noteIoFailure();
            logShortWrite(w, n);
            if (!policy.whole) {
                _qfree(own);
                result.stop = CopyStop::kWriteError;
                return result;
            }
        }
        result.copied += n;
    }
    _qfree(own);
    return result;
}

void copyKept(FILE *out, FILE *in, int64_t count) {
    if (out == nullptr || in == nullptr || count <= 0) return;
    CopyPolicy whole;
    whole.whole = true;
    copyFd(fileno(out), fileno(in), static_cast<uint64_t>(count), whole);
}

int PayloadSource::writeTo(int out) const {
    constexpr const char *tag = "YAXInternal::_writePayload";
    failed = false;
    if (::lseek64(fd, 0, SEEK_SET) != 0) {
        failed = true;
        YAXLogE(tag, "cannot seek in the payload file (errno %d)", errno);
        noteIoFailure();
        return static_cast<int>(length);
    }
    // A small payload joins an open gather of the block (one write with its
    // fields); a large one goes straight to the file rather than into memory.
    CopyPolicy policy;
    policy.gather = length <= kCopyChunk;
    const CopyOutcome r = copyFd(out, fd, length, policy, buffer);
    struct stat st {};
    switch (r.stop) {
    case CopyStop::kWriteError: return -1;
    case CopyStop::kReadError:
        YAXLogE(tag, "reading the payload file failed after %llu of %u bytes",
                static_cast<unsigned long long>(r.copied), length);
        break;
    case CopyStop::kShortRead:
        YAXLogE(tag, "the payload file shrank while it was read (%llu of %u bytes)",
                static_cast<unsigned long long>(r.copied), length);
        break;
    case CopyStop::kNoMemory: break;
    case CopyStop::kDone:
        if (fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) == length) return static_cast<int>(length);
        YAXLogE(tag, "the payload file changed size while it was read (%u bytes, now %lld)", length,
                static_cast<long long>(st.st_size));
        noteIoFailure();
        break;
    }
    failed = true;
    return static_cast<int>(length);
}

}  // namespace yax
