#pragma once
// The checks an edit makes on a parsed trailer before it writes anything.
// A file that a trailer was parsed from may still describe blocks that lie
// on top of each other, outside the file or with gaps between them; every
// edit that walks the table states here what it relies on, and refuses with
// its own log line when the file does not give it. A trailer this library
// wrote always passes. The `yax check` report (yaxCheckFile) lists the same
// faults, and more, without refusing anything.
#include <cstdint>
#include <cstdio>

#include "support/io.hpp"
#include "yax_types.h"

namespace yax {

// What an edit relies on, as bits.
enum EditNeeds : unsigned {
    // Every row present, the file no shorter than when parsed, the first
    // block and the header inside it, row 0's block not running into the
    // header. Always checked.
    kNeedFirstBlock = 0,
    // Every row's block lies inside the file and ends at or before the
    // header, which an add writes over.
    kNeedRowsInside = 1u << 2,
    // The edit walks every block from the first one: the blocks follow each
    // other without gaps or overlaps and the last one ends at the header.
    kNeedBackToBack = (1u << 0) | kNeedRowsInside,
    // A fast delete absorbs an old filler as row 0: no other row but the one
    // deleted may be a filler.
    kNeedFillerFirst = 1u << 1,
};

// `real_size` is the file's (or buffer's) size now; `index` the row the edit
// removes (ignored unless kNeedFillerFirst). Logs one line under `tag` for
// the first need that fails.
bool trailerEditable(const YaxInfo *info, int64_t real_size, unsigned needs, uint32_t index,
                     const char *tag);

template <typename IO>
bool trailerEditable(IO io, const YaxInfo *info, unsigned needs, const char *tag,
                     uint32_t index = 0) {
    const int64_t real_size = io.ok() ? io.seek(0, SEEK_END) : -1;
    return trailerEditable(info, real_size, needs, index, tag);
}

// A legacy block's first sound must start inside the file and in front of
// the block itself (`block_start`), or the copy of "everything before the
// sound" would run past the end of its source.
bool vonoSoundEditable(const VonoInfo *vono, int64_t block_start, const char *tag);

}  // namespace yax
