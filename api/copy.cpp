// Moving the entries of one file (the source) into another (the
// destination): the whole trailer appended behind a destination without
// one, or entry by entry into a destination that has one, by name or by
// data type. Legacy audio on either side is turned into TonePhoto entries on
// the way; an MP4 destination gets its "yaxd" box around what arrives.
//
// Every copy of a trailer checks the source's table first: its blocks must
// follow each other up to the header, or the rows copied unchanged would
// point at the wrong bytes in the destination. Such a source is refused
// before anything is written.
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "api/edit_group.hpp"
#include "container/add.hpp"
#include "container/layout.hpp"
#include "container/validate.hpp"
#include "support/bytes.hpp"
#include "support/copy.hpp"
#include "support/io.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

namespace L = layout;

constexpr const char *kTag = "YAXAPIs::mergeYAXData";
constexpr const char *kFpNull = "fp null\n";
constexpr const char *kWriteError = "file write error\n";

// A legacy record worth converting: recent enough, or with a flag word set.
VonoInfo *legacyRecord(const char *path) {
    VonoInfo *v = _checkAudioInImageFile(path);
    if (v != nullptr && v->version < L::kVersion && v->valid == 0) {
        DestroyVono(v);
        return nullptr;
    }
    return v;
}

// Turns a file's own legacy audio into TonePhoto entries, in place.
int convertLegacy(const char *path) {
    VonoInfo *v = legacyRecord(path);
    const int r = convertVonoToTonePhoto(&v, path);
    if (v != nullptr) DestroyVono(v);
    return r;
}

// Converts the source's legacy audio and runs `again` (the copy from the
// top). A source that stays legacy-only would run it forever: refused.
template <typename Again>
int convertedAgain(const char *src, Again again) {
    convertLegacy(src);
    if (getSignature(src) == SIGNATURE_VONO) {
        YAXLogE(kTag, "the legacy audio of the source could not be converted");
        return 0;
    }
    return again();
}

// The bytes from the source's first block to its header, or -1 (logged)
// when the table does not describe blocks that lie back to back up to the
// header, or when they would not fit in a box.
int64_t sourceBlocks(const YaxInfo *info, const char *tag) {
    if (info == nullptr || info->fp == nullptr || info->meta_count == 0 ||
        info->meta_data == nullptr || info->meta_data[0] == nullptr) {
        YAXLogE(tag, "the source has no table to copy");
        return -1;
    }
    if (!trailerEditable(FileIO{info->fp}, info, kNeedBackToBack, tag)) return -1;
    const int64_t blocks = info->meta_data[0]->offset;
    if (blocks + int64_t{info->header_offset} + L::kBoxHead > int64_t{UINT32_MAX}) {
        YAXLogE(tag, "the copied trailer does not fit in a box");
        return -1;
    }
    return blocks;
}

// Copies `count` bytes of `in` from `from` to the end of `out`.
bool appendFrom(FILE *out, FILE *in, int64_t from, uint64_t count) {
    if (_qlseek64(in, from, SEEK_SET) != from || _qlseek64(out, 0, SEEK_END) < 0) return false;
    const CopyOutcome r = copyFd(fileno(out), fileno(in), count);
    return r.stop == CopyStop::kDone && r.copied == count;
}

// The box head of an MP4 destination: four zero bytes for the size, then
// "yaxd". Returns the box start, 0 for a destination that is not MP4, -1
// after a failure (logged).
int64_t openBox(const char *dst) {
    FILE *fp = _qfopen(dst, "rb");
    if (fp == nullptr) {
        YAXLogE(kTag, kFpNull);
        return -1;
    }
    const int mp4 = checkMP4Fp(fp);
    _qfclose(fp);
    if (mp4 != 1) return 0;
    fp = _qfopen(dst, "ab");
    if (fp == nullptr) {
        YAXLogE(kTag, kFpNull);
        return -1;
    }
    const int64_t start = _qlseek64(fp, 0, SEEK_END);
    const bool ok = start > 0 && _writeYAX_TOTALSIZE(fp, 0) != FileIO::kWriteFailure &&
                    _writeYAX_MP4S(fp) != FileIO::kWriteFailure;
    _qfclose(fp);
    if (!ok) {
        YAXLogE(kTag, kWriteError);
        return -1;
    }
    return start;
}

// Writes the size of the box at `start` (end of file - start), big-endian.
int closeBox(const char *dst, int64_t start) {
    FILE *fp = _qfopen(dst, "r+b");
    if (fp == nullptr) {
        YAXLogE(kTag, kFpNull);
        return 0;
    }
    const int64_t end = _qlseek64(fp, 0, SEEK_END);
    int r = 0;
    if (end - start <= int64_t{UINT32_MAX} && _qlseek64(fp, start, SEEK_SET) == start &&
        _writeYAX_TOTALSIZE(fp, static_cast<uint32_t>(end - start)) != FileIO::kWriteFailure)
        r = 1;
    _qfclose(fp);
    if (r == 0) YAXLogE(kTag, kWriteError);
    return r;
}

// Saves entry `index` of `from` into `dst` under its name, without its
// sub-information; a same-name entry of `dst` is kept (option 0).
void saveEntry(YAXDATA *from, uint32_t index, const char *dst) {
    YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(from, index);
    if (u == nullptr) return;
    const char *name = from->YAX_name_list[index];
    const YaxEntry *row = from->yax_info->meta_data[index];
    saveYAXDataToFile(dst, name, getStringLen(name), nullptr, 0, u->data, u->data_length,
                      _getDataType(row->meta_type), 0);
    destroyYAXDATA_UNIT(u);
}

// The sound named in the source's TonePhoto list: where its block starts
// among the source's blocks and its two lengths. False without a list, an
// empty list or the named entry.
struct ListedSound {
    uint32_t before = 0;  // lengths of the rows in front of it
    uint32_t name_length = 0;
    uint32_t payload_length = 0;
};

bool listedSound(YAXDATA *yd, ListedSound &out) {
    const std::string meta(L::kToneMetaName);
    const uint32_t mi = _getIndexOfName(yd, meta.c_str());
    if (mi >= yd->count) return false;
    YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(yd, mi);
    if (u == nullptr) return false;
    bool found = false;
    if (u->data != nullptr && u->data_length >= 12 && getVonoHeaderCount(u->data) >= 1) {
        const uint32_t c = get32(u->data + 8);
        std::string name(L::kToneFirstName);
        if (c != 0 && u->data_length >= 16) {
            const uint32_t n = get32(u->data + 12);
            const uint64_t at = 12 + uint64_t{4} * c;
            if (at + n <= u->data_length)
                name.assign(reinterpret_cast<const char *>(u->data + at), n);
            else
                name.clear();
        }
        const uint32_t si = name.empty() ? UINT32_MAX : _getIndexOfName(yd, name.c_str());
        YAXOFFSET *at = si < yd->count ? getYAXInFileByName(yd, name.c_str()) : nullptr;
        if (at != nullptr) {
            for (uint32_t i = 0; i < si; ++i) out.before += yd->yax_info->meta_data[i]->length;
            out.name_length = static_cast<uint32_t>(name.size());
            out.payload_length = at->length;
            destroyYAXOFFSET(at);
            found = true;
        }
    }
    destroyYAXDATA_UNIT(u);
    return found;
}

int merge(const char *src, const char *dst) {
    if (dst == nullptr || src == nullptr) return 0;
    YAXDATA *yd = checkYAXInFile(src);
    if (yd == nullptr) return 0;
    YaxInfo *info = yd->yax_info;
    if (info->fp == nullptr) {
        YAXLogE(kTag, "src_yax_info fp null\n");
        destroyYAXDATA(yd);
        return 0;
    }
    const int64_t blocks = sourceBlocks(info, kTag);
    if (blocks < 0) {
        destroyYAXDATA(yd);
        return 0;
    }
    FILE *out = _qfopen(dst, "ab");
    if (out == nullptr) {
        YAXLogE(kTag, kFpNull);
        destroyYAXDATA(yd);
        return 0;
    }
    const int64_t end = _qlseek64(out, 0, SEEK_END);
    const int64_t first = info->file_size - info->header_offset - blocks;
    if (!appendFrom(out, info->fp, first, static_cast<uint64_t>(blocks))) {
        YAXLogE(kTag, kWriteError);
        _qfclose(out);
        destroyYAXDATA(yd);
        return 0;
    }
    // The rows stay valid: offsets count back from the header, which again
    // directly follows the blocks.
    const bool header = writeTrailerHeader(out, info);
    destroyYAXDATA(yd);
    if (!header) {
        YAXLogE(kTag, kWriteError);
        _qfclose(out);
        return 0;
    }

    // Older readers find the newest sound through a legacy end record.
    int result = 1;
    yd = checkYAXInFile(src);
    ListedSound s;
    if (yd != nullptr && listedSound(yd, s)) {
        const auto p = static_cast<uint32_t>(end) + s.before;
        const uint32_t start = p + _getDataLength(0, s.name_length, 0, 0);
        const uint32_t stop = p + _getDataLength(0, s.name_length, 0, s.payload_length);
        if (_writeVonoHeader(out, start, stop) != 1) {
            YAXLogE(kTag, kWriteError);
            result = 0;
        }
    }
    if (yd != nullptr) destroyYAXDATA(yd);
    _qfclose(out);
    return result;
}

// Entry by entry into a destination that has a trailer.
int copyInto(const char *src, const char *dst, int s) {
    switch (s) {
    case SIGNATURE_NONE: return 0;
    case SIGNATURE_VONO:
        // The source's sound becomes TonePhoto entries of the source itself;
        // nothing reaches the destination.
        convertLegacy(src);
        return 1;
    case SIGNATURE_YAX: {
        YAXDATA *yd = checkYAXInFile(src);
        if (yd == nullptr) return 1;
        for (uint32_t i = 0; i < yd->count; ++i) saveEntry(yd, i, dst);
        destroyYAXDATA(yd);
        return 1;
    }
    case SIGNATURE_VONO_YAX: {
        YAXDATA *yd = checkYAXInFile(src);
        if (yd == nullptr) return 1;
        const uint32_t tones = yd->tonephoto_count;
        for (uint32_t i = 0; i + tones < yd->count && i < tones; ++i) {
            const char *name = yd->tonephoto_name_list[i];
            if (name == nullptr || name[0] == '\0') continue;
            const uint32_t at = _getIndexOfName(yd, name);
            if (at >= yd->count) continue;
            const char *row_name = yd->YAX_name_list[i];
            if (row_name != nullptr && std::strcmp(row_name, "TonePhoto_") == 0) {
                saveEntry(yd, at, dst);
            } else if (YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(yd, at)) {
                // a sound joins the destination's own TonePhoto list; the
                // source's other entries are not copied
                saveVonoToImageFile(dst, u->data, u->data_length, name, getStringLen(name));
                destroyYAXDATA_UNIT(u);
            }
        }
        destroyYAXDATA(yd);
        return 1;
    }
    default: return 1;
    }
}

template <typename Pick>
int copyPicked(const char *src, const char *dst, Pick pick);

template <typename Pick>
int copyPicked(const char *src, const char *dst, Pick pick) {
    if (src == nullptr || dst == nullptr) return 0;
    if (getSignature(dst) != SIGNATURE_NONE) return 1;
    api::EditGroup group(dst);
    if (!group.ready()) return 0;
    const int64_t box = openBox(dst);
    if (box < 0) return group.finish(0);
    const int s = getSignature(src);
    if (s == SIGNATURE_VONO) {
        const int r = convertedAgain(src, [&] { return copyPicked(src, dst, pick); });
        return group.finish(box > 0 && r == 1 ? closeBox(dst, box) : r);
    }
    if (s != SIGNATURE_YAX) return group.finish(0);
    if (YAXDATA *yd = checkYAXInFile(src)) {
        for (uint32_t i = 0; i < yd->count; ++i) {
            if (pick(yd, i)) saveEntry(yd, i, dst);
        }
        destroyYAXDATA(yd);
    }
    return group.finish(box > 0 ? closeBox(dst, box) : 1);
}

}  // namespace
}  // namespace yax

using namespace yax;

extern "C" {

YAX_EXPORT int copyMergeYAXData(YaxInfo *info, FILE *out) {
    if (info == nullptr || out == nullptr || info->fp == nullptr) return 0;
    const int64_t blocks = sourceBlocks(info, kTag);
    if (blocks < 0) return 0;
    const int64_t n = blocks + info->header_offset;
    const int64_t from = info->file_size - n;
    if (from < 0 || _qlseek64(info->fp, from, SEEK_SET) != from) {
        YAXLogE("YAXAPIs", "copyMergeYAXData start");
        return 0;
    }
    const int64_t end = _qlseek64(out, 0, SEEK_END);
    if (end <= 0) {
        YAXLogE(kTag, "File Search Error %lld\n", static_cast<long long>(end));
        return 0;
    }
    const CopyOutcome r = copyFd(fileno(out), fileno(info->fp), static_cast<uint64_t>(n));
    if (r.stop != CopyStop::kDone) {
        YAXLogE(kTag, "File write Error\n");
        return 0;
    }
    return 1;
}

YAX_EXPORT int mergeYAXData(const char *src, const char *dst) {
    if (dst == nullptr) return 0;
    // A trailer appended behind another one (or behind legacy audio) would
    // hide what the destination holds.
    const int d = getSignature(dst);
    if (d == SIGNATURE_YAX || d == SIGNATURE_VONO || d == SIGNATURE_VONO_YAX) {
        YAXLogE(kTag, "the destination already holds entries or legacy audio");
        return 0;
    }
    api::EditGroup group(dst);
    if (!group.ready()) return 0;
    return group.finish(merge(src, dst));
}

YAX_EXPORT int copyYAXData(const char *src, const char *dst) {
    if (src == nullptr || dst == nullptr) return 0;
    api::EditGroup group(dst);
    if (!group.ready()) return 0;
    int d = getSignature(dst);
    const int s = getSignature(src);
    if (d == SIGNATURE_NONE) {
        // A source without data, or one whose trailer cannot be copied,
        // changes nothing but an MP4 destination's empty box head.
        if (s == SIGNATURE_YAX || s == SIGNATURE_VONO_YAX) {
            YAXDATA *yd = checkYAXInFile(src);
            const bool fits = yd != nullptr && sourceBlocks(yd->yax_info, kTag) >= 0;
            if (yd != nullptr) destroyYAXDATA(yd);
            if (!fits) return group.finish(0);
        }
        const int64_t box = openBox(dst);
        if (box < 0) return group.finish(0);
        int r = 1;
        switch (s) {
        case SIGNATURE_NONE: return group.finish(0);  // an MP4's box head stays, unsized
        case SIGNATURE_VONO:
            // Converted, the source is copied again from the top (an MP4
            // destination gets a second box head inside the first).
            r = convertedAgain(src, [&] { return copyYAXData(src, dst); });
            break;
        case SIGNATURE_YAX:
        case SIGNATURE_VONO_YAX: r = merge(src, dst); break;
        default: break;
        }
        if (box > 0) {
            const int sized = closeBox(dst, box);
            if (r == 1) r = sized;
        }
        return group.finish(r);
    }
    if (d == SIGNATURE_VONO) {
        convertLegacy(dst);
        d = getSignature(dst);
    }
    if (d == SIGNATURE_YAX || d == SIGNATURE_VONO_YAX) return group.finish(copyInto(src, dst, s));
    return group.finish(1);
}

YAX_EXPORT int copyYAXDataKeyName(const char *src, const char *dst, const char *key_name) {
    if (key_name == nullptr) return 0;
    bool done = false;  // the first entry of that name only
    return copyPicked(src, dst, [&](YAXDATA *yd, uint32_t i) {
        const char *name = yd->YAX_name_list[i];
        if (done || name == nullptr || std::strcmp(name, key_name) != 0) return false;
        return done = true;
    });
}

YAX_EXPORT int copyYAXDataType(const char *src, const char *dst, uint32_t data_type) {
    return copyPicked(src, dst, [&](YAXDATA *yd, uint32_t i) {
        return _getDataType(yd->yax_info->meta_data[i]->meta_type) == data_type;
    });
}

}  // extern "C"
