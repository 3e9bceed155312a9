// Saving an entry into an MP4 file: the trailer lives in a "yaxd" box at the
// end of the file, so that players skip it. A first entry creates the box in
// front of its block; a later one is a fast save, after which the box is
// refreshed (boxed trailer) or put around the trailer (unboxed one).
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "api/edit_group.hpp"
#include "api/save_common.hpp"
#include "container/add.hpp"
#include "container/layout.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace {

using namespace yax;

constexpr const char *kTag = "YAXAPIs::saveYAXDataToFPToMP4";
constexpr const char *kTooBig = "Too big YAX data to add in the file";
// The box head, a one-row header and the tail around a first block.
constexpr uint32_t kFirstBoxExtra = layout::kBoxHead + 24 + layout::kTailSize;

bool hasSub(const void *sub_info, uint32_t sub_info_length) {
    return sub_info != nullptr && sub_info_length != 0;
}

int saveIntoTrailer(FILE *fp, const char *name, uint32_t name_length, const void *sub_info,
                    uint32_t sub_info_length, const void *data, uint32_t data_length,
                    uint32_t data_type, int option, const PayloadSource *source) {
    YAXDATA *before = checkYAXInFP(fp);
    // The caller's payload stays the caller's: it is not released here.
    if (before == nullptr) return 0;
    YaxInfo *info = before->yax_info;
    if (checkYAXInfoForSaving(info, data_length, sub_info_length, name_length) == 0) {
        destroyYAXDATA_FP(before);
        return 0;
    }
    const bool boxed = checkSignatureMP4Tag(info) == 1;
    const int r = fastSaveChecked(fp, name, name_length, sub_info, sub_info_length, data,
                                  data_length, data_type, option, source);
    if (boxed) {
        if (r != 1) {
            YAXLogE(kTag, "save fail \n");
            destroyYAXDATA_FP(before);
            return 0;
        }
        destroyYAXDATA_FP(before);
        YAXDATA *after = checkYAXInFP(fp);
        if (after != nullptr) updateMP4Tag(after->yax_info);
        destroyYAXDATA_FP(after);
        return 1;
    }
    if (r == 1) {
        const uint32_t block = _getDataLength(hasSub(sub_info, sub_info_length), name_length,
                                              sub_info_length, data_length);
        writeMP4Tag(info, block);  // its result is not looked at
    }
    destroyYAXDATA_FP(before);
    return r;
}

// The MP4 save for a payload in memory (`data`) or streamed from its file
// (`source`): the same checks, lines and bytes either way.
int saveToMp4(FILE *fp, const char *name, uint32_t name_length, const void *sub_info,
              uint32_t sub_info_length, const void *data, uint32_t data_length,
              uint32_t data_type, int option, const PayloadSource *source) {
    const char *refusal = name_length == 0       ? "yax_name_length is 0, the length should be larger than 1\n"
                          : fp == nullptr         ? "fp is null \n"
                          : name == nullptr       ? "yax_name is null \n"
                          : (data == nullptr && source == nullptr) || data_length == 0 ? "data null \n"
                          : uint64_t{data_length} >= layout::kSizeLimit ? kTooBig
                                                                      : nullptr;
    if (refusal != nullptr) {
        YAXLogE(kTag, refusal);
        return 0;
    }
    // The safe-edit mode makes the save one edit (see edit_group.hpp).
    api::EditGroup group(fp);
    if (!group.ready()) return 0;
    int result = 1;  // a file this save does not know is left alone, with 1
    switch (getSignatureFP(fp)) {
    case SIGNATURE_NONE: {
        const uint32_t block = _getDataLength(hasSub(sub_info, sub_info_length), name_length,
                                              sub_info_length, data_length);
        const int64_t old_end = _qlseek64(fp, 0, SEEK_END);
        result = writeFirstMP4Tag(fp, block + kFirstBoxExtra) == 0
                     ? 0
                     : addFirstToStream(fp, NewEntry(data_type, name, name_length, sub_info,
                                                     sub_info_length, data, data_length, source));
        // A payload file that gave out under the add: the add has put its own
        // bytes back, and the box head written for it goes too.
        if (result != 1 && source != nullptr && source->failed && old_end >= 0) {
            std::fflush(fp);
            if (::ftruncate64(fileno(fp), old_end) != 0)
                YAXLogE(kTag, "the box head could not be taken back (errno %d)", errno);
        }
        break;
    }
    case SIGNATURE_VONO:
    case SIGNATURE_VONO_YAX: result = 0; break;
    case SIGNATURE_YAX:
        result = saveIntoTrailer(fp, name, name_length, sub_info, sub_info_length, data,
                                 data_length, data_type, option, source);
        break;
    default: break;
    }
    return group.finish(result);
}

}  // namespace

extern "C" {

YAX_EXPORT int saveYAXDataToFPToMP4(FILE *fp, const char *name, uint32_t name_length,
                                    const void *sub_info, uint32_t sub_info_length,
                                    const void *data, uint32_t data_length, uint32_t data_type,
                                    int option) {
    return saveToMp4(fp, name, name_length, sub_info, sub_info_length, data, data_length,
                     data_type, option, nullptr);
}

YAX_EXPORT int saveYAXDataFileToFPToMP4(FILE *fp, const char *name, uint32_t name_length,
                                        const void *sub_info, uint32_t sub_info_length,
                                        const char *payload_path, uint32_t data_type,
                                        int option) {
    constexpr const char *tag = "YAXAPI";
    // A payload file that cannot be opened reports 1: long-standing, kept.
    FILE *probe = payload_path != nullptr ? _qfopen(payload_path, "rb") : nullptr;
    if (probe == nullptr) return 1;
    const int64_t size = _qlseek64(probe, 0, SEEK_END);
    _qfclose(probe);
    if (size >= static_cast<int64_t>(layout::kSizeLimit)) {
        YAXLogE(tag, kTooBig);
        return 0;
    }
    if (size <= 0) return 0;
    if (data_type == YAX_USER_DEFINED_DATA && !hasSub(sub_info, sub_info_length)) return 0;
    // The payload is streamed from its file into place, unless it is the
    // target itself (then it is read into memory first).
    api::PayloadFile payload;
    constexpr api::PayloadMsgs msgs{tag, nullptr, tag, nullptr, nullptr, nullptr};
    if (!payload.open(payload_path, msgs) || !payload.holdIfTarget(fp != nullptr ? fileno(fp) : -1, msgs))
        return 0;
    return saveToMp4(fp, name, name_length, sub_info, sub_info_length, payload.data(),
                     payload.length(), data_type, option, payload.source());
}

}  // extern "C"
