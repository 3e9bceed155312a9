// Public deletes: resolve names to rows through a query record and hand the
// work to the container's rewriting, in-place and fast deletes. Only the
// delete by name keeps the caller's record usable, by parsing the file again.
#include <unistd.h>

#include <cstring>

#include "api/legacy_for_delete.hpp"
#include "api/save_common.hpp"
#include "container/layout.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax::api {

VonoInfo *legacyForDelete(const YAXDATA *yd, bool *unreadable, const char *tag) {
    *unreadable = false;
    if (yd == nullptr) return nullptr;
    VonoInfo *vono = _checkAudioInImageFile(yd->filename);
    if (vono != nullptr && vono->fp != nullptr) {
        _qfclose(vono->fp);
        vono->fp = nullptr;
    }
    // Looked at through the record's own stream, without allocating: the
    // tail marker says whether a record should have been found.
    const YaxInfo *info = yd->yax_info;
    unsigned char tail[6];
    if (vono == nullptr && info != nullptr && info->fp != nullptr && info->file_size >= 6 &&
        pread(fileno(info->fp), tail, sizeof tail, info->file_size - 6) == 6 &&
        std::memcmp(tail, layout::kVonoTail, sizeof tail) == 0) {
        YAXLogE(tag, "the legacy audio record behind the trailer cannot be read");
        *unreadable = true;
    }
    return vono;
}

void markSoundMoved(YAXDATA *yd, VonoInfo *vono, uint32_t index) {
    // the name constant views a literal, so it is terminated
    if (vono != nullptr) vono->sound_moved = index < _getIndexOfName(yd, layout::kToneFirstName.data()) ? 1 : 0;
}

}  // namespace yax::api

extern "C" {

YAX_EXPORT int deleteYAXDataFromFilebyName(YAXDATA **handle, const char *name, int name_length) {
    using namespace yax;
    // The legacy block is probed from the record's path before the arguments
    // are looked at; callers have always seen its log lines first.
    bool unreadable = false;
    VonoInfo *vono = handle != nullptr ? api::legacyForDelete(*handle, &unreadable,
                                                               "YAXAPIs::deleteYAXDataFromFilebyName")
                                       : nullptr;
    auto done = [vono](int result) {
        DestroyVono(vono);
        return result;
    };
    if (name == nullptr || name_length == 0 || handle == nullptr || *handle == nullptr || unreadable)
        return done(0);

    YAXDATA *yd = *handle;
    uint32_t index = _getIndexOfName(yd, name);
    if (index >= yd->count) return done(0);

    // When the sound that the legacy block points at lies behind the deleted
    // entry, its two positions move back by the deleted block's length.
    api::markSoundMoved(yd, vono, index);
    if (DeleteAYAXData(yd->filename, yd->yax_info, index, vono) == 0) return done(0);

    if (yd->filename != nullptr && yd->filename_size != 0) {
        auto *copy = static_cast<char *>(_qcalloc(yd->filename_size, 1));
        if (copy != nullptr) std::memcpy(copy, yd->filename, yd->filename_size - 1);
        destroyYAXDATA(yd);
        // Null when the file holds no trailer any more.
        *handle = copy != nullptr ? checkYAXInFile(copy) : nullptr;
        _qfree(copy);
        return done(1);
    }
    destroyYAXDATA(yd);
    *handle = nullptr;
    return done(0);
}

YAX_EXPORT int deleteYAXDataFromFile(YAXDATA **handle) {
    if (handle == nullptr || *handle == nullptr) return 0;
    return DeleteAllData((*handle)->filename, (*handle)->yax_info) != 0 ? 1 : 0;
}

YAX_EXPORT int deleteAllDataFromFile(const char *path) {
    // A file that cannot be read is reported as done; callers rely on it.
    if (path == nullptr) return 1;
    switch (getSignature(path)) {
    case SIGNATURE_YAX:
    case SIGNATURE_VONO_YAX: {
        YAXDATA *yd = checkYAXInFile(path);
        if (yd == nullptr) return 0;
        int deleted = DeleteAllData(path, yd->yax_info);
        destroyYAXDATA(yd);
        return deleted != 0 ? 1 : 0;
    }
    case SIGNATURE_NONE:
        return 0;
    case SIGNATURE_VONO: {
        VonoInfo *vono = _checkAudioInImageFile(path);
        if (vono == nullptr) return 0;
        deleteVono_NotExistYAX(path, vono);
        DestroyVono(vono);
        return 1;
    }
    default:  // unreadable, as above
        return 1;
    }
}

// The fast deletes expect a file known to hold a trailer; without one the
// container's delete refuses the missing record.
YAX_EXPORT int deleteFastAllYAXData(const char *path) {
    YAXDATA *yd = checkYAXInFile(path);
    int result = FastDeleteAllData(yd != nullptr ? yd->yax_info : nullptr);
    destroyYAXDATA(yd);
    return result;
}

YAX_EXPORT int deleteFastAllYAXDataFP(FILE *fp) {
    YAXDATA *yd = checkYAXInFP(fp);
    int result = FastDeleteAllData(yd != nullptr ? yd->yax_info : nullptr);
    destroyYAXDATA_FP(yd);
    return result;
}

YAX_EXPORT int deleteFastAYAXData(const char *path, const char *name) {
    YAXDATA *yd = checkYAXInFile(path);
    if (yd == nullptr) return FastDeleteAYAXData(nullptr, 0, nullptr, 0);
    // An unknown name is refused by the delete's own index test.
    uint32_t index = _getIndexOfName(yd, name);
    int result = FastDeleteAYAXData(yd->yax_info, index, nullptr, 0);
    destroyYAXDATA(yd);
    return result;
}

// Always 1. The index array handed to the multi delete is not released, and
// the caller's record is not parsed again.
YAX_EXPORT int deleteYAXMultiDataFromFilebyName(YAXDATA **handle, const char **names,
                                                uint32_t count) {
    using namespace yax;
    if (handle == nullptr || *handle == nullptr || (names == nullptr && count != 0)) return 1;
    YAXDATA *yd = *handle;
    auto *indices = static_cast<uint32_t *>(_qcalloc(count, sizeof(uint32_t)));
    if (indices == nullptr && count != 0) return 1;
    for (uint32_t i = 0; i < count; ++i) indices[i] = _getIndexOfName(yd, names[i]);
    DeleteMultiYAXData(yd->filename, yd->yax_info, indices, count);
    return 1;
}

}  // extern "C"
