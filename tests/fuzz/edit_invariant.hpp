#pragma once
// The edit invariant, for the fuzz targets and the suites: an edit of a file
// the library can parse either reports success and leaves a file whose
// trailer still lists every entry the edit did not target, or reports
// failure and leaves the file byte for byte as it was. No gtest here: the
// fuzz targets link it without a test framework.
//
// Entries are compared by what a reader gets back (name, data type,
// sub-information and payload), fillers left out: fast edits make, merge
// and reuse them. A file whose trailer the library stops listing only
// because its list bound counts the table twice (a trailer behind very
// little host content) is read through an independent reader instead.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <tuple>
#include <string>
#include <vector>

#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace inv {

using Bytes = std::vector<uint8_t>;

inline Bytes slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline void spill(const std::string &path, const uint8_t *data, size_t size) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return;
    if (size != 0) std::fwrite(data, 1, size, f);
    std::fclose(f);
}

inline uint32_t le32(const Bytes &b, uint64_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
           uint32_t(b[at + 3]) << 24;
}

// The trailer's frame read straight from the bytes: where the tail and the
// header are, the header size the tail gives and the row count.
struct Frame {
    bool ok = false;
    uint64_t tail = 0, header = 0;  // positions
    uint32_t header_size = 0, count = 0;
    uint64_t rowsStart() const { return header + 12; }
    // Bytes between the last row and the tail that no row accounts for.
    bool stale() const { return ok && header_size != 12 + 12 * uint64_t(count); }
};

inline Frame frame(const Bytes &b) {
    Frame f;
    const uint64_t n = b.size();
    if (n < 16) return f;
    uint64_t t = 8;
    if (std::memcmp(&b[n - 6], "VONOBS", 6) == 0) {
        if (n < 34 || std::memcmp(&b[n - 34], "YAXT", 4) != 0) return f;
        t = uint64_t(le32(b, n - 10)) + 18;
    } else if (std::memcmp(&b[n - 4], "YAXT", 4) != 0) {
        return f;
    }
    if (t > n) return f;
    f.tail = n - t;
    if (std::memcmp(&b[f.tail + 4], "YAXT", 4) != 0) return f;
    f.header_size = le32(b, f.tail);
    if (f.header_size < 13 || f.header_size > f.tail) return f;
    f.header = f.tail - f.header_size;
    if (std::memcmp(&b[f.header], "YAXH", 4) != 0) return f;
    f.count = le32(b, f.header + 8);
    f.ok = f.count != 0 && f.rowsStart() + 12 * uint64_t(f.count) <= f.tail;
    return f;
}

// One entry as a reader sees it; fillers are left out.
struct Item {
    std::string name;
    uint32_t type = 0;
    std::string sub, payload;
    bool operator==(const Item &o) const {
        return name == o.name && type == o.type && sub == o.sub && payload == o.payload;
    }
    bool operator<(const Item &o) const {
        return std::tie(name, type, sub, payload) < std::tie(o.name, o.type, o.sub, o.payload);
    }
};

inline bool isFiller(const Item &i) { return i.type == 0x7FFE || i.name == "Invalid_Data"; }

struct Listing {
    bool listed = false;            // a trailer was listed
    std::vector<std::string> names;  // every row's name, null as ""
    std::vector<Item> items;         // readable entries, fillers left out
};

// What the library lists.
inline Listing libraryListing(const std::string &path) {
    Listing l;
    const int sig = getSignature(path.c_str());
    if (sig != SIGNATURE_YAX && sig != SIGNATURE_VONO_YAX) return l;
    YAXDATA *d = checkYAXWithReadPM(path.c_str());
    if (d == nullptr) return l;
    l.listed = true;
    for (uint32_t i = 0; i < d->count; ++i) {
        const char *name = d->YAX_name_list != nullptr ? d->YAX_name_list[i] : nullptr;
        l.names.push_back(name != nullptr ? name : "");
        if (name == nullptr) continue;
        YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, i);
        if (u == nullptr) continue;
        Item it;
        it.name = name;
        it.type = u->data_type;
        if (u->sub_info != nullptr) it.sub.assign(reinterpret_cast<char *>(u->sub_info), u->sub_info_length);
        if (u->data != nullptr) it.payload.assign(reinterpret_cast<char *>(u->data), u->data_length);
        destroyYAXDATA_UNIT(u);
        if (!isFiller(it)) l.items.push_back(it);
    }
    destroyYAXDATA(d);
    return l;
}

// The same from the bytes alone, for a trailer whose frame and rows are
// sound: only used where the library's list bound refuses it.
inline Listing rawListing(const Bytes &b) {
    Listing l;
    const Frame f = frame(b);
    if (!f.ok) return l;
    l.listed = true;
    for (uint32_t i = 0; i < f.count; ++i) {
        const uint64_t row = f.rowsStart() + 12 * uint64_t(i);
        const uint32_t meta = le32(b, row), off = le32(b, row + 4), len = le32(b, row + 8);
        if (off > f.header || len > off || len < 8) return Listing{};
        const uint64_t at = f.header - off;
        const uint32_t name_len = le32(b, at + 4);
        const bool sub = (meta & 0x8000) != 0;
        const uint64_t fixed = 8 + (sub ? 4 : 0);
        const uint32_t sub_len = sub ? le32(b, at + 8) : 0;
        if (name_len == 0 || name_len > 1024 || fixed + name_len + uint64_t(sub_len) > len) {
            l.names.push_back("");  // listed, but its name cannot be read
            continue;
        }
        Item it;
        it.name.assign(reinterpret_cast<const char *>(&b[at + fixed]), name_len);
        it.name = it.name.c_str();  // names are read as C strings
        it.type = meta >> 16;
        it.sub.assign(reinterpret_cast<const char *>(&b[at + fixed + name_len]), sub_len);
        const uint64_t p = fixed + name_len + sub_len;
        it.payload.assign(reinterpret_cast<const char *>(&b[at + p]), len - p);
        l.names.push_back(it.name);
        if (!isFiller(it)) l.items.push_back(it);
    }
    return l;
}

// The library's own list bound: size >= header_offset + 12 x count + 20.
inline bool refusedOnlyByListBound(const Bytes &b) {
    const Frame f = frame(b);
    if (!f.ok) return false;
    const uint64_t header_offset = b.size() - f.header;
    return b.size() < header_offset + 12 * uint64_t(f.count) + 20 && rawListing(b).listed;
}

inline Listing listingAfter(const std::string &path, const Bytes &b) {
    Listing l = libraryListing(path);
    if (!l.listed && refusedOnlyByListBound(b)) l = rawListing(b);
    return l;
}

// The result of one check: empty when the invariant holds.
struct Verdict {
    std::string fault;
    explicit operator bool() const { return fault.empty(); }
};

// `before`/`after`: the file's bytes; `listed`: the library's listing of
// `before`; `result`: what the edit returned; `targets`: the row indices the
// edit removes or replaces (a name that was not found targets nothing);
// `added`: an entry the edit stores (empty name for none). `grow_limit`: how
// much longer the file may get. `partial`: a failure may still have removed
// the targets (a replace is a delete and then an add, without rollback), as
// long as every other entry is kept.
inline Verdict check(const Bytes &before, const Bytes &after, const Listing &listed,
                     const Listing &now, int result, const std::vector<uint32_t> &targets,
                     Item added, uint64_t grow_limit, bool partial = false) {
    if (result != 1) {
        if (before == after) return {};
        if (!partial) return {"the edit failed but the file changed"};
        added = Item{};
    }
    if (after.size() > before.size() + grow_limit)
        return {"the file grew by " + std::to_string(after.size() - before.size()) + " bytes"};
    std::vector<Item> want;
    std::vector<std::string> gone;
    for (uint32_t t : targets)
        if (t < listed.names.size()) gone.push_back(listed.names[t]);
    // Each targeted row takes one readable entry of its name with it.
    for (const Item &it : listed.items) {
        auto g = std::find(gone.begin(), gone.end(), it.name);
        if (g != gone.end()) {
            gone.erase(g);
            continue;
        }
        want.push_back(it);
    }
    if (!added.name.empty()) want.push_back(added);
    if (want.empty()) return {};
    if (!now.listed) return {"the trailer no longer parses"};
    std::vector<Item> have = now.items;
    std::sort(have.begin(), have.end());
    for (const Item &w : want) {
        auto h = std::lower_bound(have.begin(), have.end(), w);
        if (h == have.end() || !(*h == w)) return {"entry \"" + w.name + "\" was lost or changed"};
        have.erase(h);
    }
    return {};
}

}  // namespace inv
