#pragma once
// An independent byte builder for test inputs and expected outputs. It knows
// the trailer and legacy audio layouts from first principles and shares no
// code with the library, so a wrong writer cannot hide behind a matching
// reader.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tb {

using Bytes = std::vector<uint8_t>;

struct Builder {
    Bytes b;
    Builder &u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    Builder &u32be(uint32_t v) {
        for (int i = 3; i >= 0; --i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
    Builder &str(std::string_view s) {
        b.insert(b.end(), s.begin(), s.end());
        return *this;
    }
    Builder &raw(const Bytes &r) {
        b.insert(b.end(), r.begin(), r.end());
        return *this;
    }
    Builder &zeros(size_t n) {
        b.insert(b.end(), n, 0);
        return *this;
    }
    Bytes done() const { return b; }
};

inline Bytes operator+(Bytes a, const Bytes &c) {
    a.insert(a.end(), c.begin(), c.end());
    return a;
}
inline Bytes bytes(std::string_view s) { return Bytes(s.begin(), s.end()); }

// One entry as a caller stores it. Sub-information is present when non-empty.
struct Entry {
    uint32_t type = 1;
    std::string name;
    std::string payload;
    std::string sub;
    bool hasSub() const { return !sub.empty(); }
    uint32_t metaType() const { return (type << 16) | (hasSub() ? 0x8000u : 0u); }
};

inline Bytes block(const Entry &e) {
    Builder w;
    w.u32(e.metaType()).u32(static_cast<uint32_t>(e.name.size()));
    if (e.hasSub()) w.u32(static_cast<uint32_t>(e.sub.size()));
    w.str(e.name).str(e.sub).str(e.payload);
    return w.done();
}

inline uint32_t blockLength(const Entry &e) { return static_cast<uint32_t>(block(e).size()); }

struct Row {
    uint32_t meta_type, offset, length;
};

// Header ("YAXH", version, count, rows) and tail (header size, "YAXT").
// `count` defaults to the number of rows.
inline Bytes header(const std::vector<Row> &rows, uint32_t version = 105, int64_t count = -1) {
    Builder w;
    w.str("YAXH").u32(version).u32(count < 0 ? static_cast<uint32_t>(rows.size())
                                             : static_cast<uint32_t>(count));
    for (const Row &r : rows) w.u32(r.meta_type).u32(r.offset).u32(r.length);
    w.u32(12 + 12 * static_cast<uint32_t>(rows.size())).str("YAXT");
    return w.done();
}

// Rows of back-to-back blocks: each offset runs from the block to the header.
inline std::vector<Row> rowsFor(const std::vector<Entry> &entries) {
    std::vector<Row> rows;
    uint32_t total = 0;
    for (const Entry &e : entries) total += blockLength(e);
    for (const Entry &e : entries) {
        rows.push_back({e.metaType(), total, blockLength(e)});
        total -= blockLength(e);
    }
    return rows;
}

// Blocks, header and tail of a well-formed trailer.
inline Bytes trailer(const std::vector<Entry> &entries, uint32_t version = 105) {
    Bytes out;
    for (const Entry &e : entries) out = out + block(e);
    return out + header(rowsFor(entries), version);
}

// The 20-byte filler block head followed by zeros up to `size`.
inline Bytes fillerBlock(uint32_t size) {
    Builder w;
    w.u32(0x7FFEu << 16).u32(12).str("Invalid_Data").zeros(size - 20);
    return w.done();
}

// A legacy audio block: "VONO", version, count, pairs, header size, "VONOBS".
inline Bytes vonoBlock(const std::vector<std::pair<uint32_t, uint32_t>> &sounds,
                       uint32_t version = 105, int64_t header_size = -1) {
    Builder w;
    w.str("VONO").u32(version).u32(static_cast<uint32_t>(sounds.size()));
    for (auto [s, e] : sounds) w.u32(s).u32(e);
    w.u32(header_size < 0 ? 12 + 8 * static_cast<uint32_t>(sounds.size())
                          : static_cast<uint32_t>(header_size));
    w.str("VONOBS");
    return w.done();
}

// The TonePhoto name list payload: 1, 0, N, N lengths, the names.
inline Bytes toneList(const std::vector<std::string> &names, uint32_t w0 = 1, uint32_t w1 = 0) {
    Builder w;
    w.u32(w0).u32(w1).u32(static_cast<uint32_t>(names.size()));
    for (const auto &n : names) w.u32(static_cast<uint32_t>(n.size()));
    for (const auto &n : names) w.str(n);
    return w.done();
}

// Stand-in host content that looks like the start and end of a JPEG.
inline Bytes fakeImage(size_t size) {
    Bytes b(size, 0x55);
    if (size >= 4) {
        b[0] = 0xFF; b[1] = 0xD8;
        b[size - 2] = 0xFF; b[size - 1] = 0xD9;
    }
    return b;
}

}  // namespace tb
