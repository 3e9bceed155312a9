// The memory buffer stream: a fixed-capacity byte array read and written like
// a file. Every operation is all-or-nothing; nothing here logs.
#include <cstdint>
#include <cstring>

#include "support/bytes.hpp"
#include "yax_support.h"

namespace {

constexpr unsigned char kEndMarker = 'Q';
// Positions are signed 32-bit, so the capacity must stay below 2 GiB.
constexpr uint32_t kMaxCapacity = INT32_MAX - 1;

bool usable(const YAXBUFFER *h) { return h != nullptr && h->buffer != nullptr; }

bool readable(const YAXBUFFER *h, uint32_t length) {
    int64_t end = static_cast<int64_t>(h->position) + length;
    return end <= static_cast<int64_t>(h->buffer_size) && end <= h->write_size;
}

int readBytes(YAXBUFFER *h, void *destination, uint32_t length) {
    if (!usable(h) || !readable(h, length)) return 0;
    if (length != 0) std::memcpy(destination, h->buffer + h->position, length);
    h->position += static_cast<int32_t>(length);
    return static_cast<int>(length);
}

int writeBytes(YAXBUFFER *h, const void *source, uint32_t length) {
    if (!usable(h)) return 0;
    int64_t end = static_cast<int64_t>(h->position) + length;
    if (end > static_cast<int64_t>(h->buffer_size)) return 0;
    if (length != 0) std::memcpy(h->buffer + h->position, source, length);
    h->position = static_cast<int32_t>(end);
    if (h->position > h->write_size) h->write_size = h->position;
    return static_cast<int>(length);
}

}  // namespace

extern "C" {

YAX_EXPORT YAXBUFFER *_qbopen(uint32_t size) {
    if (size > kMaxCapacity) return nullptr;
    auto *h = static_cast<YAXBUFFER *>(_qcalloc(1, sizeof(YAXBUFFER)));
    if (h == nullptr) return nullptr;
    h->buffer = static_cast<unsigned char *>(_qcalloc(1, static_cast<size_t>(size) + 1));
    if (h->buffer == nullptr) {
        _qfree(h);
        return nullptr;
    }
    h->buffer_size = size;
    h->owns_buffer = 1;
    h->buffer[size] = kEndMarker;
    return h;
}

YAX_EXPORT YAXBUFFER *_qbsetbuffer(void *buffer, uint32_t size) {
    if (buffer == nullptr || size > kMaxCapacity) return nullptr;
    auto *h = static_cast<YAXBUFFER *>(_qcalloc(1, sizeof(YAXBUFFER)));
    if (h == nullptr) return nullptr;
    h->buffer = static_cast<unsigned char *>(buffer);
    h->buffer_size = size;
    h->buffer[size] = kEndMarker;  // the caller's buffer holds size + 1 bytes
    return h;
}

YAX_EXPORT void _qbclose(YAXBUFFER *handle) {
    if (handle == nullptr) return;
    if (handle->owns_buffer) _qfree(handle->buffer);
    _qfree(handle);
}

YAX_EXPORT int _qbread(void *destination, uint32_t length, YAXBUFFER *handle) {
    return readBytes(handle, destination, length);
}

YAX_EXPORT int _qbreadInt16(uint16_t *out, YAXBUFFER *handle) {
    unsigned char b[2];
    if (readBytes(handle, b, sizeof b) == 0) return 0;
    *out = yax::get16(b);
    return 2;
}

YAX_EXPORT int _qbreadInt32(uint32_t *out, YAXBUFFER *handle) {
    unsigned char b[4];
    if (readBytes(handle, b, sizeof b) == 0) return 0;
    *out = yax::get32(b);
    return 4;
}

YAX_EXPORT int _qbwrite(const void *source, uint32_t length, YAXBUFFER *handle) {
    return writeBytes(handle, source, length);
}

YAX_EXPORT int _qbwriteInt16(uint16_t value, YAXBUFFER *handle) {
    unsigned char b[2];
    yax::put16(b, value);
    return writeBytes(handle, b, sizeof b);
}

YAX_EXPORT int _qbwriteInt32(uint32_t value, YAXBUFFER *handle) {
    unsigned char b[4];
    yax::put32(b, value);
    return writeBytes(handle, b, sizeof b);
}

YAX_EXPORT int _qbwriteInt32_endian(uint32_t value, YAXBUFFER *handle) {
    unsigned char b[4];
    yax::put32be(b, value);
    return writeBytes(handle, b, sizeof b);
}

YAX_EXPORT int32_t _qbtell(YAXBUFFER *handle) { return usable(handle) ? handle->position : 0; }

YAX_EXPORT int64_t _qbseek(YAXBUFFER *handle, int64_t offset, int whence) {
    if (!usable(handle)) return -1;
    const int64_t capacity = handle->buffer_size;
    const int64_t written = handle->write_size;
    int64_t target;
    switch (whence) {
        case 0:
            target = offset;
            if (target < 0 || target > capacity || target > written) return -1;
            break;
        case 1:
            target = handle->position + offset;
            if (target < 0 || target > capacity || target > written) return -1;
            break;
        case 2:
            // the end is the written size; nothing lies beyond it
            if (offset >= 1) return -1;
            target = written + offset;
            if (target < 0 || target > capacity) return -1;
            break;
        default:
            return -1;
    }
    handle->position = static_cast<int32_t>(target);
    return target;
}

YAX_EXPORT int btruncate(YAXBUFFER *handle, int64_t new_size) {
    if (!usable(handle)) return -1;
    if (new_size < 0 || new_size > handle->write_size) return -1;
    std::memset(handle->buffer + new_size, 0, static_cast<size_t>(handle->write_size - new_size));
    handle->write_size = static_cast<int32_t>(new_size);
    return 0;
}

YAX_EXPORT unsigned char *qbgetBuffer(YAXBUFFER *handle) {
    return handle == nullptr ? nullptr : handle->buffer;
}

YAX_EXPORT uint32_t qbgetBufferSize(YAXBUFFER *handle) {
    return usable(handle) ? handle->buffer_size : UINT32_MAX;
}

YAX_EXPORT int32_t qbgetWriteSize(YAXBUFFER *handle) {
    return usable(handle) ? handle->write_size : -1;
}

YAX_EXPORT YAXBUFFER *initYAXBuffer(uint32_t size) { return _qbopen(size); }

YAX_EXPORT YAXBUFFER *initYAXAllocatedBuffer(void *buffer, uint32_t size) {
    return _qbsetbuffer(buffer, size);
}

YAX_EXPORT void destroyYAXBuffer(YAXBUFFER *handle) {
    if (handle != nullptr) _qbclose(handle);
}

YAX_EXPORT unsigned char *getYAXBuffer(YAXBUFFER *handle) { return qbgetBuffer(handle); }
YAX_EXPORT uint32_t getYAXBufferSize(YAXBUFFER *handle) { return qbgetBufferSize(handle); }
YAX_EXPORT int32_t getYAXWriteSize(YAXBUFFER *handle) { return qbgetWriteSize(handle); }

}  // extern "C"
