// Readers of the TonePhoto name list: the "TonePhoto_Meta_Info" entry of a
// query record, its count and its names.
//
// A list whose count or lengths reach past its own payload is treated as
// holding no names: the count readers give 0 and no list is made.
#include <cstdint>
#include <cstring>

#include "container/layout.hpp"
#include "vono/tonephoto_payload.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace {

namespace L = yax::layout;
using yax::tone::ListView;

// The name of the list entry, zero-terminated for the index search.
constexpr char kMetaName[] = "TonePhoto_Meta_Info";
static_assert(sizeof kMetaName - 1 == L::kToneMetaName.size());

constexpr uint32_t kNotFound = 0xFFFFFFFFu;

// The extracted list entry of a query record, or null when it has none.
YAXDATA_UNIT *extractList(YAXDATA *yaxdata) {
    if (yaxdata == nullptr) return nullptr;
    const uint32_t index = _getIndexOfName(yaxdata, kMetaName);
    if (index == kNotFound) return nullptr;
    return extractYAXDataFromFilebyIndex(yaxdata, index);
}

bool openUnit(const YAXDATA_UNIT *meta, ListView &view) {
    return meta != nullptr && yax::tone::openList(meta->data, meta->data_length, view);
}

// New array of new zero-terminated names, or null (nothing allocated) when
// the list is empty or memory runs out.
char **copyNames(const ListView &view) {
    if (view.count == 0) return nullptr;
    char **names = static_cast<char **>(_qcalloc(view.count, sizeof(char *)));
    if (names == nullptr) return nullptr;
    bool ok = true;
    yax::tone::forEachName(view, [&](uint32_t i, const char *name, uint32_t len) {
        names[i] = yax::tone::copyName(name, len);
        ok = names[i] != nullptr;
        return ok;
    });
    if (!ok) {
        for (uint32_t i = 0; i < view.count; ++i) _qfree(names[i]);
        _qfree(names);
        return nullptr;
    }
    return names;
}

void freeToneList(YAXDATA *yaxdata) {
    if (yaxdata->tonephoto_name_list != nullptr) {
        for (uint32_t i = 0; i < yaxdata->tonephoto_count; ++i)
            _qfree(yaxdata->tonephoto_name_list[i]);
        _qfree(yaxdata->tonephoto_name_list);
    }
    yaxdata->tonephoto_name_list = nullptr;
    yaxdata->tonephoto_count = 0;
}

}  // namespace

extern "C" {

YAX_EXPORT int getTonePhotoInFile(YAXDATA *yaxdata) {
    if (yaxdata == nullptr) return -1;
    YAXDATA_UNIT *meta = extractList(yaxdata);
    if (meta == nullptr) return -1;
    // A second lookup on the same record replaces the list it holds.
    freeToneList(yaxdata);
    ListView view;
    int result = 0;
    if (openUnit(meta, view) && view.count != 0) {
        char **names = copyNames(view);
        if (names != nullptr) {
            yaxdata->tonephoto_name_list = names;
            yaxdata->tonephoto_count = view.count;
            result = 1;
        }
    }
    destroyYAXDATA_UNIT(meta);
    return result;
}

YAX_EXPORT int getTonePhotoNameList(YAXDATA *yaxdata, char ***names_out, uint32_t *count_out) {
    if (names_out != nullptr) *names_out = nullptr;
    if (count_out != nullptr) *count_out = 0;
    if (names_out == nullptr || count_out == nullptr) return 0;
    YAXDATA_UNIT *meta = extractList(yaxdata);
    if (meta == nullptr) return 0;
    ListView view;
    int result = 0;
    if (openUnit(meta, view) && view.count != 0) {
        char **names = copyNames(view);
        if (names != nullptr) {
            *names_out = names;
            *count_out = view.count;
            result = 1;
        }
    }
    destroyYAXDATA_UNIT(meta);
    return result;
}

YAX_EXPORT int getTonePhotoNameByIndex(YAXDATA_UNIT *meta, char **name_out, uint32_t index) {
    if (name_out == nullptr) return 0;
    *name_out = nullptr;
    ListView view;
    if (!openUnit(meta, view) || index >= view.count) return 0;
    yax::tone::forEachName(view, [&](uint32_t i, const char *name, uint32_t len) {
        if (i != index) return true;
        *name_out = yax::tone::copyName(name, len);
        return false;
    });
    return *name_out != nullptr ? 1 : 0;
}

YAX_EXPORT int getVonoCntInFile(YAXDATA *yaxdata) {
    YAXDATA_UNIT *meta = extractList(yaxdata);
    if (meta == nullptr) return -1;
    ListView view;
    // The count is a signed result; a list too short for its own count gives 0.
    const int count = openUnit(meta, view) ? static_cast<int>(view.count) : 0;
    destroyYAXDATA_UNIT(meta);
    return count;
}

YAX_EXPORT int isVonoMetaInfo(YAXDATA *yaxdata) {
    if (yaxdata == nullptr) return 0;
    return _getIndexOfName(yaxdata, kMetaName) != kNotFound ? 1 : 0;
}

YAX_EXPORT int isIdenticalNameInMetaInfo(YAXDATA_UNIT *meta, const char *name) {
    ListView view;
    if (name == nullptr || !openUnit(meta, view) || view.count == 0) return 0;
    int found = 0;
    const size_t wanted = std::strlen(name);
    yax::tone::forEachName(view, [&](uint32_t, const char *listed, uint32_t len) {
        // Compared as zero-terminated strings: a listed name holding a zero
        // byte is cut there, as every other name comparison does. Compared
        // in place, so that a short memory never turns a listed name into
        // an unlisted one.
        const size_t cut = strnlen(listed, len);
        if (cut == wanted && std::memcmp(listed, name, cut) == 0) found = 1;
        return found == 0;
    });
    return found;
}

YAX_EXPORT YAXOFFSET *getVonoInFile(YAXDATA *yaxdata, const char *name) {
    if (yaxdata == nullptr) return nullptr;
    return getYAXInFileByName(yaxdata, name);
}

}  // extern "C"
