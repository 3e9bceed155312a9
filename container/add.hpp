#pragma once
// The entry an add writes, and the adds that take it whole: the exported
// adds hand their payload in memory; the saves that read their payload from
// a file hand a PayloadSource instead, and the bytes are streamed from that
// file into their place.
#include <cstdint>
#include <cstdio>

#include "container/layout.hpp"
#include "support/copy.hpp"
#include "yax_types.h"

namespace yax {

// One entry to add.
struct NewEntry {
    uint32_t data_type;
    const char *name;
    uint32_t name_length;
    const void *sub_info;
    uint32_t sub_info_length;  // 0 when there is no sub-information
    const void *data;
    uint32_t data_length;
    uint32_t has_sub_info;
    const PayloadSource *source = nullptr;  // the payload comes from this file instead of `data`

    NewEntry(uint32_t type, const char *n, uint32_t n_len, const void *sub, uint32_t sub_len,
             const void *d, uint32_t d_len, const PayloadSource *from = nullptr)
        : data_type(type), name(n), name_length(n_len), sub_info(sub), sub_info_length(0),
          data(d), data_length(d_len), has_sub_info(sub != nullptr && sub_len != 0 ? 1u : 0u),
          source(from) {
        // A length without bytes is no sub-information; keeping it out of
        // the block keeps the block length and the bytes written in step.
        if (has_sub_info) sub_info_length = sub_len;
    }
    bool hasData() const { return (data != nullptr || source != nullptr) && data_length != 0; }
    // The flag the undo scope of an add watches; null for a payload in memory.
    const bool *abandoned() const { return source != nullptr ? &source->failed : nullptr; }
    bool sourceFailed() const { return source != nullptr && source->failed; }
    bool userDataWithoutSubInfo() const {
        return data_type == YAX_USER_DEFINED_DATA && !has_sub_info;
    }
    uint32_t metaType() const { return layout::metaType(data_type, has_sub_info); }
    // The whole block length, or false when it does not fit the 32-bit row.
    bool blockLength(uint32_t *out) const {
        uint64_t n = uint64_t{layout::kBlockFixed} + name_length + data_length +
                     (has_sub_info ? uint64_t{layout::kSubInfoField} + sub_info_length : 0);
        if (n > UINT32_MAX) return false;
        *out = static_cast<uint32_t>(n);
        return true;
    }
};

// The adds behind AddYAXDataInFirstTime(FP), AddYAXData(FP) and
// FastAddYAXData: the same results and log lines, for an entry whose
// payload may be streamed.
int addFirstByPath(const char *path, const NewEntry &e);
int addFirstToStream(FILE *fp, const NewEntry &e);
int addByPath(const char *path, YaxInfo *info, const NewEntry &e, VonoInfo *vono);
int addToStream(FILE *fp, YaxInfo *info, const NewEntry &e, VonoInfo *vono);
int fastAddEntry(YaxInfo *info, const NewEntry &e, int reuse_first);

// Header, rows (unchanged) and tail of a parsed trailer at the position of
// `out`; false when a field write failed (a row write never reports one).
bool writeTrailerHeader(FILE *out, const YaxInfo *yi);

}  // namespace yax
