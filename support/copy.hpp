#pragma once
// The one routine that moves bytes from one file to another: rewriting
// edits copying the kept parts of a file, payloads streamed from a file into
// an entry, and payloads extracted to a file. It reads and writes through
// one buffer, so a copy never holds more than that buffer whatever its size.
#include <cstddef>
#include <cstdint>

namespace yax {

// The read/write chunk. Measured with bench/stream_bench on 200 MiB in the
// page cache (ext4, 2 cores): 256 KiB beat 64 KiB by about a quarter and
// 1 MiB (which falls out of the processor's cache) by a tenth; the kernel's
// file-to-file copy (copy_file_range) matched it on a bare copy but made a
// 200 MiB add 1.6 to 1.8 times and an extraction 1.4 times the time of cat,
// where these chunks made them 1.0 to 1.15 times and 0.9 times. Plain read
// and write are also what every Android kernel and C library have.
constexpr size_t kCopyChunk = size_t{1} << 18;

struct CopyPolicy {
    size_t chunk = kCopyChunk;
    // The whole-chunk contract of the rewriting copies: a short read is not
    // looked at (the count is written in full, zeros where the source gave
    // out) and a failed write is logged and the copy goes on.
    bool whole = false;
    // An open gather of the destination (gather.hpp) takes the bytes in
    // memory; without this they go straight to the file even then.
    bool gather = true;
};

enum class CopyStop {
    kDone,
    kShortRead,   // the source ended before `count` bytes
    kReadError,   // reading the source failed
    kWriteError,  // writing the destination failed (logged as _qfwrite logs it)
    kNoMemory,    // no buffer for the fallback
};

struct CopyOutcome {
    uint64_t copied = 0;
    CopyStop stop = CopyStop::kDone;
};

// Copies `count` bytes from the descriptor position of `in` to that of
// `out`; both positions advance by what was copied. `buffer` (of at least
// policy.chunk bytes) carries the bytes; without one the routine allocates
// its own. Every failure is counted as an I/O
// failure of the edit (safe_file.hpp).
CopyOutcome copyFd(int out, int in, uint64_t count, const CopyPolicy &policy = {},
                   unsigned char *buffer = nullptr);

}  // namespace yax

#include <cstdio>

namespace yax {

// The line every failed or short write of file data logs.
void logShortWrite(int64_t written, uint64_t wanted);

// The copy of rewriting edits: `count` bytes from the source stream's
// position, written in full (see CopyPolicy::whole).
void copyKept(FILE *out, FILE *in, int64_t count);

}  // namespace yax

namespace yax {

// A payload that an add streams from another file instead of holding it.
// `length` is the file's size when it was opened; the stream fails when
// the file no longer gives exactly that many bytes (it shrank or grew while
// it was read) or a read fails, and then sets `failed`, which the add's undo
// scope watches (safe_file.hpp): the target is put back as it was.
struct PayloadSource {
    int fd = -1;
    uint32_t length = 0;
    unsigned char *buffer = nullptr;  // kCopyChunk bytes for the fallback
    mutable bool failed = false;

    // Writes the whole payload at the position of `out`: `length` when it
    // went out (or when the source failed: `failed` tells), -1 after a
    // failed write, logged as _qfwrite logs it.
    int writeTo(int out) const;
};

}  // namespace yax
