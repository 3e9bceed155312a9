#pragma once
// The small stream surface every file/buffer twin is written over. An
// algorithm that exists for both a FILE* and a YAXBUFFER* is a template on
// one of these two backends; where the flavours are documented to differ
// (a log tag, a failure test), the difference is a named parameter or trait
// at the call site, never a silent divergence.
#include <cstdint>
#include <cstdio>

#include "yax_support.h"

namespace yax {

struct FileIO {
    FILE *fp;

    static constexpr bool kIsBuffer = false;
    // What a failed byte or integer write returns on this backend.
    static constexpr int kWriteFailure = -1;

    bool ok() const { return fp != nullptr; }
    int64_t seek(int64_t offset, int whence) const { return _qlseek64(fp, offset, whence); }
    int read(void *dest, uint32_t n) const { return _qfread(dest, n, fp); }
    int read32(uint32_t *v) const { return _qfreadInt32(v, fp); }
    int write(const void *src, uint32_t n) const { return _qfwrite(src, n, fp); }
    int write32(uint32_t v) const { return _qfwriteInt32(v, fp); }
    int write32be(uint32_t v) const { return _qfwriteInt32_endian(v, fp); }
    bool writeFailed(int r) const { return r == kWriteFailure; }
};

struct BufIO {
    YAXBUFFER *h;

    static constexpr bool kIsBuffer = true;
    static constexpr int kWriteFailure = 0;

    bool ok() const { return h != nullptr; }
    int64_t seek(int64_t offset, int whence) const { return _qbseek(h, offset, whence); }
    int read(void *dest, uint32_t n) const { return _qbread(dest, n, h); }
    int read32(uint32_t *v) const { return _qbreadInt32(v, h); }
    int write(const void *src, uint32_t n) const { return _qbwrite(src, n, h); }
    int write32(uint32_t v) const { return _qbwriteInt32(v, h); }
    int write32be(uint32_t v) const { return _qbwriteInt32_endian(v, h); }
    bool writeFailed(int r) const { return r == kWriteFailure; }
};

}  // namespace yax
