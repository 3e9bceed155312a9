// Checks on a parsed trailer before an edit, and the full consistency report
// behind `yax check`. See validate.hpp.
#include "container/validate.hpp"

#include <cstdarg>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "container/layout.hpp"
#include "yax_container.h"
#include "yax_support.h"

namespace yax {

using namespace layout;

bool trailerEditable(const YaxInfo *info, int64_t real_size, unsigned needs, uint32_t index,
                     const char *tag) {
    bool rows = info != nullptr && info->meta_count != 0 && info->meta_data != nullptr;
    for (uint32_t i = 0; rows && i < info->meta_count; ++i) rows = info->meta_data[i] != nullptr;
    if (!rows || real_size < info->file_size) {
        YAXLogE(tag, "the entry table does not fit the file");
        return false;
    }
    const int64_t header = info->file_size - static_cast<int64_t>(info->header_offset);
    const YaxEntry &first = *info->meta_data[0];
    const int64_t start = header - static_cast<int64_t>(first.offset);
    if (header < 0 || start < 0 || first.length > first.offset) {
        YAXLogE(tag, "the entry table does not fit the file");
        return false;
    }
    if (needs & kNeedBackToBack) {
        // Offsets count back from the header: each block must begin where
        // the one before it ended, and the last must end at the header.
        uint64_t at = first.offset;
        for (uint32_t i = 0; i < info->meta_count; ++i) {
            const YaxEntry &e = *info->meta_data[i];
            if (e.offset != at || e.length > e.offset) {
                YAXLogE(tag, "the blocks of the entry table are not back to back");
                return false;
            }
            at = e.offset - e.length;
        }
        if (at != 0) {
            YAXLogE(tag, "the blocks of the entry table are not back to back");
            return false;
        }
    }
    if (needs & kNeedFillerFirst) {
        for (uint32_t i = 1; i < info->meta_count; ++i) {
            if (i != index && _getDataType(info->meta_data[i]->meta_type) == kFillerType) {
                YAXLogE(tag, "the filler entry is not row 0");
                return false;
            }
        }
    }
    return true;
}

bool vonoSoundEditable(const VonoInfo *vono, int64_t block_start, const char *tag) {
    if (vono == nullptr || vono->count == 0 || vono->offsets == nullptr) return true;
    const uint32_t start = vono->offsets[0];
    if (block_start < 0 || static_cast<int64_t>(start) > block_start) {
        YAXLogE(tag, "the first sound does not lie in front of the audio block");
        return false;
    }
    return true;
}

}  // namespace yax
