#pragma once
// The one writer of a TonePhoto set at the end of a trailer: the sound
// blocks, the "TonePhoto_Meta_Info" block, a header holding the rows kept
// from the old table and one row per new block, the tail, and the one-sound
// Vono block pointing at the first new sound's bytes. The adds write one
// sound with it, the copy of a whole set writes every listed sound.
#include <cstdint>
#include <cstdio>

#include "container/layout.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax::tone {

struct SetBlock {
    uint32_t type;         // data type (no sub-information)
    const char *name;
    uint32_t name_len;
    uint32_t payload_len;
    uint32_t length() const { return _getDataLength(0, name_len, 0, payload_len); }
};

// The step of a checked write that failed, logged under `tag` (null: the
// writes are not checked and every one is made).
struct SetCheck {
    const char *tag;
    bool bad(bool failed, const char *step) const {
        if (tag == nullptr || !failed) return false;
        YAXLogE(tag, "%s", step);
        return true;
    }
};

// The blocks, at the stream's position. `payload(i)` writes the payload of
// block i (the list is block n_sounds) and answers whether it went out.
template <typename Payload>
bool writeSetBlocks(FILE *fp, const SetBlock *blocks, uint32_t n_sounds, const SetCheck &c,
                    Payload payload) {
    for (uint32_t i = 0; i <= n_sounds; ++i) {
        const SetBlock &b = blocks[i];
        if (c.bad(_writeDataTagInfo(fp, b.type, 0, b.name, b.name_len, nullptr, 0) == 0,
                  "File _writeDataTagInfo Error") ||
            c.bad(!payload(i), "File _qfwrite Error"))
            return false;
    }
    return true;
}

// The header, rows, tail and legacy record that close the set, at the
// stream's position; `at` is where the first new block starts.
inline bool writeSetTable(FILE *fp, uint32_t at, const SetBlock *blocks, uint32_t n_sounds,
                          YaxEntry *const *old_rows, uint32_t old_count, const SetCheck &c) {
    constexpr int kFailed = -1;
    const uint32_t n = n_sounds + 1;
    if (c.bad(_writeYAX_QTSS(fp) == kFailed, "File _writeYAX_QTSS Error") ||
        c.bad(_writeYAX_QVER(fp) == kFailed, "File _writeYAX_QVER Error") ||
        c.bad(_writeYAX_QCnt(fp, old_count + n) == kFailed, "File _writeYAX_QCnt Error"))
        return false;
    for (uint32_t i = 0; i < old_count; ++i)
        if (c.bad(_writeYAX_QDR(fp, old_rows[i]) == kFailed, "File _writeYAX_QDR Error")) return false;
    // Each new row counts back from the header over its own block and every
    // block behind it.
    uint32_t remaining = 0;
    for (uint32_t i = 0; i < n; ++i) remaining += blocks[i].length();
    for (uint32_t i = 0; i < n; ++i) {
        YaxEntry row{};
        row.meta_type = _setMetaType(blocks[i].type, 0);
        row.offset = remaining;
        row.length = blocks[i].length();
        remaining -= row.length;
        if (c.bad(_writeYAX_QDR(fp, &row) == kFailed, "File _writeYAX_QDR Error")) return false;
    }
    if (c.bad(_writeYAX_QTHO(fp, old_count + n) == kFailed, "File _writeYAX_QTHO Error") ||
        c.bad(_writeYAX_QTS(fp) == kFailed, "File _writeYAX_QTS Error"))
        return false;
    // A set without sounds leaves the two positions at 0.
    uint32_t start = 0, end = 0;
    if (n_sounds != 0) {
        start = at + layout::kBlockFixed + blocks[0].name_len;
        end = start + blocks[0].payload_len;
    }
    return !c.bad(_writeVonoHeader(fp, start, end) == 0, "File _writeVonoHeader Error");
}

// The whole set at the stream's position, which is `at`. Unchecked
// (`fail_tag` null), every write is made and 1 returned; checked, the first
// failed write logs which step failed under `fail_tag` and ends it with 0.
template <typename Payload>
int writeToneSet(FILE *fp, uint32_t at, const SetBlock *blocks, uint32_t n_sounds,
                 YaxEntry *const *old_rows, uint32_t old_count, const char *fail_tag,
                 Payload payload) {
    const SetCheck c{fail_tag};
    return writeSetBlocks(fp, blocks, n_sounds, c, payload) &&
                   writeSetTable(fp, at, blocks, n_sounds, old_rows, old_count, c)
               ? 1
               : 0;
}

}  // namespace yax::tone
