#pragma once
// The legacy record that a delete by name writes again behind the new tail
// (the trailer's delete by name and the TonePhoto delete share it).
#include <cstdint>

#include "yax_types.h"

namespace yax::api {

// The legacy record behind the trailer of `yd`'s file, its own stream
// closed, or null when there is none. `*unreadable` is set when the file
// ends in a legacy tail whose record could not be read (a short memory, a
// damaged table): a delete then refuses rather than drop the record, and
// logs why under `tag`.
VonoInfo *legacyForDelete(const YAXDATA *yd, bool *unreadable, const char *tag);

// `sound_moved`: 1 when row `index` lies before the entry "TonePhoto_000"
// (compared unsigned, so every row counts as before it when there is none).
void markSoundMoved(YAXDATA *yd, VonoInfo *vono, uint32_t index);

}  // namespace yax::api
