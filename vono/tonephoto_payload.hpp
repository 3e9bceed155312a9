#pragma once
// A checked view of a "TonePhoto_Meta_Info" payload:
//   word0, word1, N, N name lengths, the names back to back.
// The count and the lengths come from the file, so nothing is trusted until
// the whole list has been measured against the bytes actually present.
#include <cstdint>
#include <cstring>

#include "support/bytes.hpp"
#include "yax_support.h"

namespace yax::tone {

// Two words, the count, then the lengths.
constexpr uint32_t kListFixed = 12;

struct ListView {
    const unsigned char *data = nullptr;
    uint32_t size = 0;
    uint32_t count = 0;       // N
    uint64_t namesBytes = 0;  // sum of the N lengths

    uint32_t word0() const { return get32(data); }
    uint32_t word1() const { return get32(data + 4); }
    uint32_t lengthAt(uint32_t i) const { return get32(data + kListFixed + 4u * i); }
    const unsigned char *namesStart() const { return data + kListFixed + 4u * count; }
};

// Fills `view` and returns true when the count, every length and every name
// lie inside the `size` bytes; a list that claims more than it holds is
// refused as a whole.
inline bool openList(const unsigned char *data, uint64_t size, ListView &view) {
    if (data == nullptr || size < kListFixed || size > UINT32_MAX) return false;
    const uint32_t n = get32(data + 8);
    const uint64_t table = kListFixed + 4ull * n;
    if (table > size) return false;
    uint64_t names = 0;
    for (uint32_t i = 0; i < n; ++i) names += get32(data + kListFixed + 4ull * i);
    if (names > size - table) return false;
    view.data = data;
    view.size = static_cast<uint32_t>(size);
    view.count = n;
    view.namesBytes = names;
    return true;
}

// Calls fn(index, name, length) for every listed name, in list order; stops
// early when fn returns false.
template <typename Fn>
void forEachName(const ListView &view, Fn fn) {
    const unsigned char *p = view.namesStart();
    for (uint32_t i = 0; i < view.count; ++i) {
        const uint32_t len = view.lengthAt(i);
        if (!fn(i, reinterpret_cast<const char *>(p), len)) return;
        p += len;
    }
}

// A new zero-terminated copy of a listed name (free with _qfree), or null.
inline char *copyName(const char *name, uint32_t len) {
    char *s = static_cast<char *>(_qmalloc(static_cast<size_t>(len) + 1));
    if (s != nullptr && len != 0) std::memcpy(s, name, len);
    return s;
}

}  // namespace yax::tone
