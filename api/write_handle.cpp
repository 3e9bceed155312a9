// Writing a buffer stream's content out to a stream or a path. These two
// report on standard output rather than through the log: callers have
// always read their failures there.
#include <cstdio>

#include "yax_api.h"
#include "yax_support.h"

namespace {

// The written bytes of a handle whose written size lies inside its storage;
// false for anything else (nothing is read then).
bool writtenBytes(YAXBUFFER *h, const unsigned char **bytes, size_t *length) {
    const unsigned char *data = qbgetBuffer(h);
    const int32_t written = qbgetWriteSize(h);
    if (data == nullptr || written < 0 || static_cast<uint32_t>(written) > qbgetBufferSize(h))
        return false;
    *bytes = data;
    *length = static_cast<size_t>(written);
    return true;
}

int writeOut(YAXBUFFER *h, FILE *fp) {
    const unsigned char *bytes = nullptr;
    size_t length = 0;
    // Beyond the old behaviour: no stream, or a handle that does not
    // describe its storage, is a write error rather than a crash.
    if (fp == nullptr || !writtenBytes(h, &bytes, &length)) {
        std::puts("WriteHandle : write error ");
        return -1;
    }
    const size_t done = std::fwrite(bytes, 1, length, fp);
    if (done < length) {
        std::puts("WriteHandle : write error ");
        return -1;
    }
    return static_cast<int>(done);
}

}  // namespace

extern "C" {

YAX_EXPORT int WriteHandle_Fp(YAXBUFFER *buffer, FILE *fp) { return writeOut(buffer, fp); }

YAX_EXPORT int WriteHandle_FilePath(const char *path, YAXBUFFER *buffer) {
    FILE *fp = path != nullptr ? std::fopen(path, "w+b") : nullptr;
    if (fp == nullptr) {
        std::puts("fp null!!");
        return -1;
    }
    const int written = writeOut(buffer, fp);
    std::fclose(fp);
    return written;
}

}  // extern "C"
