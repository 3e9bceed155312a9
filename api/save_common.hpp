#pragma once
// Pieces shared by the save, fast-save and delete entry points: owned
// allocations, a zero-terminated copy of a caller's key name, and loading a
// whole payload file into memory with each caller's own messages.
#include <cstdint>
#include <cstdio>
#include <memory>

#include "container/layout.hpp"
#include "yax_support.h"

namespace yax::api {

struct QFree {
    void operator()(void *p) const { _qfree(p); }
};
using QBytes = std::unique_ptr<unsigned char, QFree>;
using QChars = std::unique_ptr<char, QFree>;

// Names arrive with an explicit length and need not be terminated; lookups
// compare terminated strings, so they get a copy of exactly those bytes.
inline QChars copyName(const char *name, uint32_t name_length) {
    if (name == nullptr) return QChars();
    uint64_t size = uint64_t{name_length} + 1;
    if (size > SIZE_MAX) return QChars();
    auto *copy = static_cast<char *>(_qmalloc(static_cast<size_t>(size)));
    if (copy == nullptr) return QChars();
    _qmemcpy(copy, name, name_length);
    copy[name_length] = '\0';
    return QChars(copy);
}

// Messages of one payload-file reader. A null text is a silent failure; the
// size refusal is always logged, under `too_big_tag`.
struct PayloadMsgs {
    const char *tag;
    const char *open_fail;    // the payload file cannot be opened
    const char *too_big_tag;  // "Too big YAX data to add in the file"
    const char *empty;        // size 0 (printf-style, takes the size)
    const char *rewind_fail;  // the seek back to the start failed
    const char *alloc_fail;   // no memory for the payload
};

struct Payload {
    QBytes data;
    uint32_t length = 0;
};

// Reads the whole file at `path` into one allocation. The file is closed on
// every path out.
inline bool loadPayload(const char *path, const PayloadMsgs &m, Payload &out) {
    FILE *fp = _qfopen(path, "rb");
    if (fp == nullptr) {
        if (m.open_fail) YAXLogE(m.tag, m.open_fail);
        return false;
    }
    auto fail = [fp] {
        _qfclose(fp);
        return false;
    };
    int64_t size = _qlseek64(fp, 0, SEEK_END);
    if (size >= static_cast<int64_t>(layout::kSizeLimit)) {
        YAXLogE(m.too_big_tag, "Too big YAX data to add in the file");
        return fail();
    }
    if (size <= 0) {
        if (m.empty) YAXLogE(m.tag, m.empty, static_cast<int>(size));
        return fail();
    }
    if (_qlseek64(fp, 0, SEEK_SET) < 0) {
        if (m.rewind_fail) YAXLogE(m.tag, m.rewind_fail);
        return fail();
    }
    uint32_t length = static_cast<uint32_t>(size);
    QBytes data(static_cast<unsigned char *>(_qmalloc(length)));
    if (!data) {
        if (m.alloc_fail) YAXLogE(m.tag, m.alloc_fail);
        return fail();
    }
    int got = _qfread(data.get(), length, fp);
    _qfclose(fp);
    if (got <= 0 || static_cast<uint32_t>(got) != length) return false;
    out.data = std::move(data);
    out.length = length;
    return true;
}

}  // namespace yax::api
