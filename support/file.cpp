// File primitives. Data moves through the stream's descriptor (read, write,
// lseek64), never through stdio's buffer; integers have an explicit byte order.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "support/bytes.hpp"
#include "support/copy.hpp"
#include "support/safe_file.hpp"
#include "yax_support.h"

namespace {

constexpr uint32_t kFileCopyChunk = 65536;

int readN(FILE *stream, void *buffer, size_t length) {
    return static_cast<int>(::read(fileno(stream), buffer, length));
}

int writeN(FILE *stream, const void *buffer, size_t length) {
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
// with a larger chunk and the kernel's copy.
YAX_EXPORT int _qfilecopy(FILE *destination, FILE *source, int64_t count) {
    if (destination == nullptr || source == nullptr || count == 0) return 0;
    auto *chunk = static_cast<unsigned char *>(_qmalloc(kFileCopyChunk));
    if (chunk == nullptr) {
        yax::noteIoFailure();
        return 0;
    }
    yax::CopyPolicy documented;
    documented.chunk = kFileCopyChunk;
    documented.kernel = false;
    documented.whole = true;
    if (count > 0)
        yax::copyFd(fileno(destination), fileno(source), static_cast<uint64_t>(count), documented,
                    chunk);
    _qfree(chunk);
    return 1;
}

}  // extern "C"
