#include "api/edit_group.hpp"

#include <unistd.h>

#include "yax_api.h"
#include "yax_container.h"
#include "yax_vono.h"

namespace yax::api {
namespace {

// Where the first byte a save may change lies: the end of a file without
// entries, the first data block (or its MP4 box head), or the first sound of
// a legacy block. -1 when the file cannot be read.
// A save of `key` into a trailer without legacy audio that cannot replace
// an entry of that name only appends: it changes the file from the header on.
int64_t changeStart(FILE *fp, const char *key, bool replace) {
    int64_t from = -1;
    const int signature = getSignatureFP(fp);
    switch (signature) {
    case SIGNATURE_NONE: from = _qlseek64(fp, 0, SEEK_END); break;
    case SIGNATURE_YAX:
    case SIGNATURE_VONO_YAX:
        if (YAXDATA *yd = checkYAXInFP(fp)) {
            from = yd->yax_info->data_start_position;
            const bool appends = signature == SIGNATURE_YAX && key != nullptr &&
                                 (!replace || _getIndexOfName(yd, key) >= yd->count);
            const int64_t end = _qlseek64(fp, 0, SEEK_END);
            if (appends && end >= int64_t{yd->yax_info->header_offset})
                from = end - yd->yax_info->header_offset;
            destroyYAXDATA_FP(yd);
        }
        break;
    case SIGNATURE_VONO:
        // Parsed without the checking reader, which closes the stream when
        // the table cannot be read: this stream is closed by its opener.
        if (VonoInfo *v = ParseVonoFP(fp)) {
            if (ParseVonoSound(v) == 1 && v->count > 0 && v->offsets != nullptr) from = v->offsets[0];
            DestroyVonoFP(v);
        }
        break;
    default: break;
    }
    return from;
}

}  // namespace

EditGroup::EditGroup(FILE *fp, const char *key, bool replace) {
    if (!safeEdits() || fp == nullptr) return;
    const int64_t from = changeStart(fp, key, replace);
    if (from >= 0) scope_ = std::make_unique<UndoScope>(fp, from);
}

EditGroup::EditGroup(const char *path, const char *key, bool replace) {
    if (!safeEdits() || path == nullptr) return;
    FILE *fp = _qfopen(path, "rb");
    if (fp == nullptr) return;
    const int64_t from = changeStart(fp, key, replace);
    _qfclose(fp);
    if (from >= 0) scope_ = std::make_unique<UndoScope>(path, from);
}

int EditGroup::finish(int result) {
    if (scope_ == nullptr) return result;
    if (result != 1) return result;  // the scope puts the file back as it goes
    return scope_->commit() ? 1 : 0;
}

}  // namespace yax::api

// The group of edits callers make themselves (yaxBeginEdit, yaxEndEdit).
struct YaxEditGroup {
    yax::api::EditGroup group;
    explicit YaxEditGroup(const char *path) : group(path) {}
};

extern "C" {

YAX_EXPORT YaxEditGroup *yaxBeginEdit(const char *path) {
    YaxEditGroup *g = nullptr;
    try {
        g = new YaxEditGroup(path);
    } catch (...) {
        return nullptr;
    }
    if (!g->group.ready()) {
        delete g;
        return nullptr;
    }
    return g;
}

YAX_EXPORT int yaxEndEdit(YaxEditGroup *group, int result) {
    if (group == nullptr) return 0;
    int r = 0;
    try {
        r = group->group.finish(result);
    } catch (...) {
        r = 0;
    }
    delete group;
    return r;
}

}  // extern "C"
