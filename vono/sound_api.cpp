// The sound API: store, fetch, copy and delete the sounds kept with a photo,
// whether the file holds the legacy Vono block, TonePhoto entries in the
// trailer, or both. Every edit here goes through the trailer's own adds,
// saves and deletes, and the copy of a whole set through the one TonePhoto
// set writer (tone_set.hpp); nothing below writes a header, a row or an end
// record itself.
//
// An edit made of several steps (drop the legacy block then add, rewrite the
// list then delete the sound) is one edit in the safe-edit mode: the group
// puts the file back when a later step fails.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "api/edit_group.hpp"
#include "api/legacy_for_delete.hpp"
#include "vono/tone_set.hpp"
#include "vono/tonephoto_payload.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace {

constexpr char kSaveTag[] = "YAXAPIs::saveVonoToImageFile";
constexpr char kDeleteTag[] = "VonoAPIs::deleteVonoFromImageFile";
constexpr char kDeleteAllTag[] = "VonoAPIs::deleteAllVonoFromImageFile";
constexpr char kCopyTag[] = "VonoAPIs::copyTonePhotoData";
constexpr char kListDoesNotFit[] = "the name list does not fit its entry";
constexpr char kMetaName[] = "TonePhoto_Meta_Info";
constexpr uint32_t kMetaNameLength = sizeof kMetaName - 1;
constexpr char kFirstSoundName[] = "TonePhoto_000";
constexpr uint32_t kFirstSoundNameLength = sizeof kFirstSoundName - 1;
constexpr uint32_t kLargestSound = 0xFFF00000u;
constexpr uint32_t kNotFound = 0xFFFFFFFFu;

bool accepted(const VonoInfo *v) { return v != nullptr && (v->version >= 105 || v->count != 0); }

struct Yax {
    YAXDATA *p = nullptr;
    ~Yax() { destroyYAXDATA(p); }
};
// A record parsed from another record's stream: released without closing it.
struct YaxOnStream {
    YAXDATA *p = nullptr;
    ~YaxOnStream() { destroyYAXDATA_FP(p); }
};
struct Unit {
    YAXDATA_UNIT *p = nullptr;
    ~Unit() { destroyYAXDATA_UNIT(p); }
};
struct Vono {
    VonoInfo *p = nullptr;
    ~Vono() { DestroyVono(p); }
};

// The "TonePhoto_Meta_Info" entry of a parsed trailer and its index, or null.
YAXDATA_UNIT *metaEntry(YAXDATA *y, uint32_t *index) {
    const uint32_t i = _getIndexOfName(y, kMetaName);
    if (index != nullptr) *index = i;
    return i == kNotFound ? nullptr : extractYAXDataFromFilebyIndex(y, i);
}

// The name list of a parsed trailer, measured against its own payload
// before anything reads its count: a list whose count or lengths reach past
// its bytes is refused as a whole (`fits` false, logged under `tag`).
struct CheckedList {
    uint32_t index = kNotFound;
    Unit unit;
    yax::tone::ListView view;
    bool fits = false;

    CheckedList(YAXDATA *y, const char *tag) {
        unit.p = metaEntry(y, &index);
        if (unit.p == nullptr) return;
        fits = yax::tone::openList(unit.p->data, unit.p->data_length, view);
        if (!fits) YAXLogE(tag, kListDoesNotFit);
    }
    bool present() const { return unit.p != nullptr; }
};

// An entry whose block is its head and name alone: the readers find no
// payload to locate, the copy carries it as an empty sound.
bool emptyPayload(const YaxInfo *info, uint32_t row, int64_t *length) {
    const YaxEntry *e = row < info->meta_count ? info->meta_data[row] : nullptr;
    if (e == nullptr || (e->meta_type & 0x8000u) != 0 ||
        e->length != yax::layout::kBlockFixed + uint64_t{e->name_length})
        return false;
    *length = 0;
    return true;
}

// Runs a multi-step edit of `path` as one edit (see edit_group.hpp).
template <typename Edit>
int asOneEdit(const char *path, Edit edit) {
    yax::api::EditGroup group(path);
    if (!group.ready()) return 0;
    return group.finish(edit());
}

// A list built from scratch: its buffer holds the fixed words, the length
// words and the names, however long they are.
struct NewList {
    std::vector<unsigned char> bytes;
    uint32_t length = 0;
    NewList(const char *name, uint32_t len) : bytes(16 + size_t{len}) {
        length = makeFirstVonoHeader(bytes.data(), name, len);
    }
    NewList(const char *name1, uint32_t len1, const char *name2, uint32_t len2)
        : bytes(20 + size_t{len1} + len2) {
        length = makeSecondVonoHeader(bytes.data(), name1, len1, name2, len2);
    }
};

int saveIntoPlainImage(const char *path, const void *data, uint32_t data_len, const char *name,
                       uint32_t name_len) {
    const NewList list(name, name_len);
    return NewAddVonoDataInFirstTime(path, YAX_TONEPHOTO_META_TYPE, YAX_TONEPHOTO_SOUND_TYPE, name,
                                     name_len, data, data_len, list.bytes.data(), list.length);
}

int saveIntoLegacy(const char *path, const void *data, uint32_t data_len, const char *name,
                   uint32_t name_len) {
    VonoInfo *v = checkVonoInFile(path);
    if (v == nullptr) return 0;
    if (checkVonoInfoForSaving(v, data_len, 0, name_len) != 1) {
        DestroyVono(v);
        return 0;
    }
    if (v->count == 0) {
        DestroyVono(v);
        // The list names "TonePhoto_000" while the entry carries the caller's name.
        const NewList list(kFirstSoundName, kFirstSoundNameLength);
        return NewAddVonoDataInFirstTime(path, YAX_TONEPHOTO_META_TYPE, YAX_TONEPHOTO_SOUND_TYPE,
                                         name, name_len, data, data_len, list.bytes.data(),
                                         list.length);
    }
    const uint32_t old_len = v->offsets[1] - v->offsets[0];
    unsigned char *old = _getAudioStreamBuffer(v);
    DestroyVono(v);
    if (old == nullptr) return 0;
    // The drop reports success whatever happened; the ending tells.
    deleteAVono(path);
    if (getSignature(path) != SIGNATURE_NONE) {
        _qfree(old);
        YAXLogE(kSaveTag, "the legacy sound could not be taken out");
        return 0;
    }
    const NewList list(kFirstSoundName, kFirstSoundNameLength, name, name_len);
    const int r = NewAddVonoDataInFirstTime(path, YAX_TONEPHOTO_META_TYPE,
                                            YAX_TONEPHOTO_SOUND_TYPE, kFirstSoundName,
                                            kFirstSoundNameLength, old, old_len,
                                            list.bytes.data(), list.length);
    _qfree(old);
    if (r == 0) return 0;
    return saveYAXDataToFile(path, name, name_len, nullptr, 0, data, data_len,
                             YAX_TONEPHOTO_SOUND_TYPE, 0);
}

int saveIntoTrailer(const char *path, const void *data, uint32_t data_len, const char *name,
                    uint32_t name_len) {
    Yax y{checkYAXInFile(path)};
    if (y.p == nullptr) return 0;
    if (checkYAXInfoForSaving(y.p->yax_info, data_len, 0, name_len) != 1) return 0;
    const uint32_t same = _getIndexOfName(y.p, name);
    if (same != kNotFound) {
        if (DeleteAYAXData(path, y.p->yax_info, same, nullptr) != 1) return 0;
        destroyYAXDATA(y.p);
        y.p = nullptr;
        // That was the only entry: the image is bare now, and takes the sound
        // as a plain image does.
        if (getSignature(path) == SIGNATURE_NONE)
            return saveIntoPlainImage(path, data, data_len, name, name_len);
        y.p = checkYAXInFile(path);
        if (y.p == nullptr) return 0;
    }
    const NewList list(name, name_len);
    // An older name list is left where it is.
    return NewAddVonoData(y.p->yax_info, YAX_TONEPHOTO_META_TYPE, YAX_TONEPHOTO_SOUND_TYPE, name,
                          name_len, data, data_len, list.bytes.data(), list.length);
}

int saveIntoTrailerAndLegacy(const char *path, const void *data, uint32_t data_len,
                             const char *name, uint32_t name_len) {
    std::vector<unsigned char> list;
    uint32_t n = 0;
    {
        // The trailer is read through the legacy record's stream, and both
        // are let go before the saves open the file again.
        Vono v{checkVonoInFile(path)};
        if (v.p == nullptr) return 0;
        YaxOnStream y{checkYAXInFP(v.p->fp)};
        if (y.p == nullptr) return 0;
        if (checkYAXInfoForSaving(y.p->yax_info, data_len, 0, name_len) != 1) return 0;
        uint32_t meta_index = kNotFound;
        Unit meta{metaEntry(y.p, &meta_index)};
        if (meta.p != nullptr && isIdenticalNameInMetaInfo(meta.p, name) == 1) {
            n = 0;  // a listed name: only its sound is replaced
        } else {
            if (meta.p == nullptr) return 0;
            // The list grown by one name: the old payload, the new length
            // word and the name.
            list.resize(size_t{meta.p->data_length} + name_len + 4);
            n = makeAddVonoHeader(list.data(), y.p->yax_info, meta_index, 0, name, name_len);
            if (n == 0) return 0;
        }
    }
    if (n != 0 && saveYAXDataToFile(path, kMetaName, kMetaNameLength, nullptr, 0, list.data(), n,
                                    YAX_TONEPHOTO_META_TYPE, 1) != 1)
        return 0;
    return saveYAXDataToFile(path, name, name_len, nullptr, 0, data, data_len,
                             YAX_TONEPHOTO_SOUND_TYPE, 1);
}

}  // namespace

extern "C" {

YAX_EXPORT int saveVonoToImageFile(const char *path, const void *data, uint32_t data_len,
                                   const char *name, uint32_t name_len) {
    if (path == nullptr) {
        YAXLogE(kSaveTag, "file name null");
        return 0;
    }
    if (data == nullptr || data_len == 0) {
        YAXLogE(kSaveTag, "audioStream null");
        return 0;
    }
    if (data_len > kLargestSound) {
        YAXLogE(kSaveTag, "Too big file to add");
        return 0;
    }
    if (name == nullptr || name_len == 0) {
        YAXLogE(kSaveTag, "vono name is null or vono_name_len is 0");
        return 0;
    }
    return asOneEdit(path, [&] {
        switch (getSignature(path)) {
            case SIGNATURE_NONE: return saveIntoPlainImage(path, data, data_len, name, name_len);
            case SIGNATURE_VONO: return saveIntoLegacy(path, data, data_len, name, name_len);
            case SIGNATURE_YAX: return saveIntoTrailer(path, data, data_len, name, name_len);
            case SIGNATURE_VONO_YAX:
                return saveIntoTrailerAndLegacy(path, data, data_len, name, name_len);
            default: return 1;
        }
    });
}

YAX_EXPORT VonoInfo *checkVonoInFile(const char *path) {
    const int s = getSignature(path);
    if (s != SIGNATURE_VONO && s != SIGNATURE_VONO_YAX) return nullptr;
    VonoInfo *v = _checkAudioInImageFile(path);
    return accepted(v) ? v : nullptr;
}

YAX_EXPORT VonoInfo *checkVonoInFP(FILE *fp) {
    const unsigned s = getSignatureFP(fp);
    if (s != SIGNATURE_VONO && s != SIGNATURE_VONO_YAX) return nullptr;
    VonoInfo *v = _checkAudioInImageFP(fp);
    return accepted(v) ? v : nullptr;
}

YAX_EXPORT VonoInfo *checkVonoInBuffer(YAXBUFFER *buffer) {
    const unsigned s = getSignatureBuffer(buffer);
    if (s != SIGNATURE_VONO && s != SIGNATURE_VONO_YAX) return nullptr;
    VonoInfo *v = _checkAudioInImageBuffer(buffer);  // never gives a record
    return accepted(v) ? v : nullptr;
}

YAX_EXPORT void destroyVONOOFFSET(VONOOFFSET *p) { _destroyVONOOFFSET(p); }

YAX_EXPORT int deleteTonePhotoDataFromFilebyIndex(void) { return 0; }

YAX_EXPORT int DeleteAllTonePhotoData(const char *path, YaxInfo *info) {
    // The trailer and the Vono block behind it go together: the bare image stays.
    return DeleteAllData(path, info);
}

YAX_EXPORT int deleteATonePhotoData(const char *path, YaxInfo *info, uint32_t index,
                                    VonoInfo *vono, uint32_t n) {
    if (path == nullptr || info == nullptr || info->fp == nullptr || info->file_size < 1 ||
        index >= info->meta_count)
        return 0;
    if (n == 1) {
        DeleteAllTonePhotoData(path, info);
        return 1;
    }
    // The end record points at the first sound, pulled back by the removed
    // block when that sound lay behind it (sound_moved).
    return DeleteAYAXData(path, info, index, n >= 2 ? vono : nullptr);
}

YAX_EXPORT int deleteTonePhotoDataFromFilebyName(YAXDATA **handle, const char *name,
                                                 uint32_t name_len, uint32_t n) {
    if (handle == nullptr || *handle == nullptr || (*handle)->yax_info == nullptr ||
        (*handle)->filename == nullptr || name == nullptr || name_len == 0)
        return 0;
    YAXDATA *y = *handle;
    bool unreadable = false;
    Vono v{yax::api::legacyForDelete(y, &unreadable, "VonoAPIs::deleteTonePhotoDataFromFilebyName")};
    if (unreadable) return 0;
    const uint32_t index = _getIndexOfName(y, name);
    if (index == kNotFound) return 0;
    yax::api::markSoundMoved(y, v.p, index);
    return deleteATonePhotoData(y->filename, y->yax_info, index, v.p, n);
}

YAX_EXPORT YAXAUDIOSTREAM *getAudioStreamBuffer(YAXDATA *info, const char *name,
                                                uint32_t name_len) {
    if (info == nullptr) return nullptr;
    auto *s = static_cast<YAXAUDIOSTREAM *>(_qcalloc(1, sizeof(YAXAUDIOSTREAM)));
    if (s == nullptr) return nullptr;
    if (name != nullptr && name_len != 0) {
        const uint32_t i = _getIndexOfName(info, name);
        if (i != kNotFound) s->unit = extractYAXDataFromFilebyIndex(info, i);
        if (s->unit != nullptr) s->length = s->unit->data_length;
    }
    return s;
}

YAX_EXPORT void destroyAudioStreamBuffer(YAXAUDIOSTREAM *s) {
    if (s == nullptr) return;
    destroyYAXDATA_UNIT(s->unit);
    _qfree(s);
}

YAX_EXPORT int deleteVonoFromImageFile(const char *path, const char *name) {
    switch (getSignature(path)) {
        case SIGNATURE_VONO: return deleteAVono(path);
        case SIGNATURE_VONO_YAX: break;
        default: return 0;
    }
    if (name == nullptr) return 0;
    return asOneEdit(path, [&] {
        YAXDATA *y = checkYAXInFile(path);
        if (y == nullptr) return 0;
        CheckedList list(y, kDeleteTag);
        const uint32_t n = list.fits ? list.view.count : 0;
        if (n == 0) {
            destroyYAXDATA(y);
            return 0;
        }
        const uint32_t name_len = static_cast<uint32_t>(std::strlen(name));
        // A name the trailer does not hold is no failure (the list still
        // shrinks); a delete or save that fails is, and in the safe-edit
        // mode the group then puts the file back.
        // (the record turns null only when the file could not be read again)
        auto gone = [&](const char *what, uint32_t len) {
            if (y == nullptr) return false;
            if (_getIndexOfName(y, what) == kNotFound) return true;
            return deleteYAXDataFromFilebyName(&y, what, static_cast<int>(len)) == 1;
        };
        int result = 1;
        if (n == 1) {
            result = gone(name, name_len) && gone(kMetaName, kMetaNameLength) ? 1 : 0;
        } else {
            // The shrunk list is never longer than the old one.
            std::vector<unsigned char> shrunk(size_t{list.unit.p->data_length} + 16);
            const uint32_t len = makeMinusVonoHeader(shrunk.data(), y->yax_info, list.index, 0, name);
            destroyYAXDATA(y);
            y = nullptr;
            result = len != 0 && saveYAXDataToFile(path, kMetaName, kMetaNameLength, nullptr, 0,
                                                   shrunk.data(), len, YAX_TONEPHOTO_META_TYPE, 1) == 1
                         ? 1
                         : 0;
            if (result == 1) {
                y = checkYAXInFile(path);
                if (y == nullptr) result = 0;
                else if (_getIndexOfName(y, name) != kNotFound &&
                         deleteTonePhotoDataFromFilebyName(&y, name, name_len, n) != 1)
                    result = 0;
            }
        }
        destroyYAXDATA(y);
        return result;
    });
}

YAX_EXPORT int deleteAllVonoFromImageFile(const char *path) {
    const int s = getSignature(path);
    if (s >= SIGNATURE_NONE && s <= SIGNATURE_YAX) return 0;
    if (s != SIGNATURE_VONO_YAX) return 1;
    return asOneEdit(path, [&] {
        // a trailer that cannot be read: nothing was deleted
        YAXDATA *y = checkYAXInFile(path);
        if (y == nullptr) return 0;
        {
            // A list that overruns its entry names nothing to delete, and the
            // last step would take every entry with it: refused.
            CheckedList list(y, kDeleteAllTag);
            if (list.present() && !list.fits) {
                destroyYAXDATA(y);
                return 0;
            }
        }
        char **names = nullptr;
        uint32_t count = 0;
        getTonePhotoNameList(y, &names, &count);
        int result = 1;
        for (uint32_t i = 0; i < count && y != nullptr; ++i) {
            // a listed name the trailer does not hold is passed over
            if (names[i] != nullptr && _getIndexOfName(y, names[i]) != kNotFound &&
                deleteYAXDataFromFilebyName(&y, names[i], static_cast<int>(std::strlen(names[i]))) != 1)
                result = 0;
        }
        for (uint32_t i = 0; i < count; ++i) _qfree(names[i]);
        _qfree(names);
        if (y == nullptr) result = 0;  // the list is still there: the file could not be read again
        // The list goes last, and with it everything behind the image; that
        // step reports 1 whatever happened, so the ending tells.
        if (result == 1 && y != nullptr) {
            deleteTonePhotoDataFromFilebyName(&y, kMetaName, kMetaNameLength, 1);
            if (getSignature(path) != SIGNATURE_NONE) result = 0;
        }
        destroyYAXDATA(y);
        return result;
    });
}

YAX_EXPORT int copyTonePhotoData(const char *src_path, const char *dst_path) {
    if (src_path == nullptr || dst_path == nullptr) return 0;
    Yax src{checkYAXInFile(src_path)};
    if (src.p == nullptr) return 0;
    // Nothing is defined to copy without a list.
    CheckedList list(src.p, kCopyTag);
    if (!list.fits) return 0;
    const uint32_t n = list.view.count;

    // Blocks in list order, the list last; the names point into the list.
    auto *blocks = static_cast<yax::tone::SetBlock *>(_qcalloc(n + 1, sizeof(yax::tone::SetBlock)));
    auto *rows = static_cast<uint32_t *>(_qcalloc(n + 1, sizeof(uint32_t)));
    auto release = [&](int r) {
        _qfree(blocks);
        _qfree(rows);
        return r;
    };
    if (blocks == nullptr || rows == nullptr) return release(0);
    uint64_t total = 0;
    bool found = true, named = true;
    yax::tone::forEachName(list.view, [&](uint32_t i, const char *name, uint32_t len) {
        // An empty listed name would be written as a block no reader takes
        // (a name of length 0), and the whole copied table with it.
        if (len == 0) return named = found = false;
        // A listed name without its entry cannot be copied. Names are looked
        // up as zero-terminated strings, as every lookup does.
        char *z = yax::tone::copyName(name, len);
        rows[i] = z != nullptr ? _getIndexOfName(src.p, z) : kNotFound;
        _qfree(z);
        int64_t at = 0, length = 0;
        found = rows[i] != kNotFound &&
                (readDataOfIndexOffset(src.p->yax_info, rows[i], &at, &length) == 1 ||
                 emptyPayload(src.p->yax_info, rows[i], &length)) &&
                length >= 0 && length <= int64_t{UINT32_MAX};
        if (found) {
            blocks[i] = {YAX_TONEPHOTO_SOUND_TYPE, name, len, static_cast<uint32_t>(length)};
            total += blocks[i].length();
        }
        return found;
    });
    if (!named) {
        YAXLogE(kCopyTag, "a listed sound's name is empty");
        return release(0);
    }
    if (!found) {
        YAXLogE(kCopyTag, "a listed sound has no entry");
        return release(0);
    }
    blocks[n] = {YAX_TONEPHOTO_META_TYPE, kMetaName, kMetaNameLength, list.unit.p->data_length};
    total += blocks[n].length();

    return release(asOneEdit(dst_path, [&] {
        FILE *out = _qfopen(dst_path, "ab");
        if (out == nullptr) return 0;
        const int64_t at = _qlseek64(out, 0, SEEK_END);
        // Every position of the new trailer and its end record is 32-bit.
        const uint64_t trailer = total + 12 + 12ull * (n + 1) + 8 + yax::layout::kVonoOneSoundBlock;
        if (at < 0 || uint64_t(at) + trailer > UINT32_MAX) {
            YAXLogE(kCopyTag, "the copy does not fit the destination's 32-bit positions");
            _qfclose(out);
            return 0;
        }
        const int r = yax::tone::writeToneSet(
            out, static_cast<uint32_t>(at), blocks, n, nullptr, 0, kCopyTag, [&](uint32_t i) {
                if (i == n) return _qfwrite(list.unit.p->data, list.unit.p->data_length, out) != -1;
                return blocks[i].payload_len == 0 ||
                       yaxStreamYAXData(src.p, rows[i], YAX_STREAM_PAYLOAD, out) ==
                           int64_t{blocks[i].payload_len};
            });
        _qfclose(out);
        return r;
    }));
}

YAX_EXPORT int copyVonoData(const char *src_path, const char *dst_path) {
    if (src_path == nullptr || dst_path == nullptr) return 0;
    // A legacy-only file is converted in place first, the source too.
    auto convert = [](const char *path) {
        if (getSignature(path) != SIGNATURE_VONO) return;
        asOneEdit(path, [path] {
            VonoInfo *v = checkVonoInFile(path);
            const int r = v != nullptr ? convertVonoToTonePhoto(&v, path) : 0;
            DestroyVono(v);
            return r;
        });
    };
    convert(dst_path);
    convert(src_path);
    if (getSignature(src_path) != SIGNATURE_VONO_YAX) return 0;
    Yax src{checkYAXInFile(src_path)};
    if (src.p == nullptr) return 0;
    char **names = nullptr;
    uint32_t n = 0;
    getTonePhotoNameList(src.p, &names, &n);
    int r = n != 0 ? 1 : 0;
    for (uint32_t i = 0; i < n; ++i) {
        YAXAUDIOSTREAM *a =
            getAudioStreamBuffer(src.p, names[i], uint32_t(std::strlen(names[i])));
        if (a == nullptr || a->unit == nullptr ||
            saveVonoToImageFile(dst_path, a->unit->data, a->length, names[i],
                                uint32_t(std::strlen(names[i]))) != 1)
            r = 0;
        destroyAudioStreamBuffer(a);
        _qfree(names[i]);
    }
    _qfree(names);
    return r;
}

}  // extern "C"
