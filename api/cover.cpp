// Replacing the image in front of a trailer (the "cover") in place: a cover
// of the same length is written over the old one; a shorter one leaves a gap
// that an "Invalid_Data" filler block names; a longer one overwrites the
// first blocks, which are saved and written back where the old header was.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "container/layout.hpp"
#include "container/validate.hpp"
#include "support/io.hpp"
#include "support/safe_file.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace {

namespace L = yax::layout;

constexpr const char *kCoverTag = "YAXAPIs::FastChangeCoverData";
constexpr const char *kOrgTag = "YAXAPIs::FastChangeOrgData";

// 1 when the handle's name list holds the filler's name: the name lookup's
// own scan, with its messages and tag.
uint32_t hasFiller(YAXDATA *handle) {
    if (handle->count == 0) return 0;
    return _getIndexOfName(handle, std::string(L::kFillerName).c_str()) < handle->count ? 1 : 0;
}

// Reads `n` bytes at `pos` into a new block (null on failure).
unsigned char *readAt(FILE *fp, int64_t pos, uint32_t n) {
    auto *p = static_cast<unsigned char *>(_qcalloc(1, n == 0 ? 1 : n));
    if (p == nullptr) return nullptr;
    if (_qlseek64(fp, pos, SEEK_SET) < 0 ||
        (n != 0 && static_cast<uint32_t>(_qfread(p, n, fp)) != n)) {
        _qfree(p);
        return nullptr;
    }
    return p;
}

// The move itself; the caller has checked the table.
int changeCover(YaxInfo *info, const void *cover, uint32_t cover_length, uint32_t has_filler) {
    FILE *fp = info->fp;
    const uint32_t n = info->meta_count;
    const int64_t size = info->file_size;
    const int64_t trailer = int64_t(info->header_offset) + info->meta_data[0]->offset;  // T
    const int64_t old_cover = size - trailer;                                           // C
    const int64_t header_pos = size - info->header_offset;                              // H
    const uint32_t offset0 = info->meta_data[0]->offset;
    const uint32_t len0 = info->meta_data[0]->length;
    if (old_cover < 0) return 0;

    auto put = [&](const void *p, uint32_t len, int *count) {
        int r = _qfwrite(p, len, fp);
        if (r == -1) {
            YAXLogE(kOrgTag, "file write error\n");
            return false;
        }
        *count = r;
        return true;
    };
    int last = 0;

    if (int64_t(cover_length) == old_cover) {
        rewind(fp);
        return put(cover, cover_length, &last) ? last : 0;
    }
    if (int64_t(cover_length) < old_cover) {
        const uint32_t gap = static_cast<uint32_t>(old_cover - cover_length);
        rewind(fp);
        if (!put(cover, cover_length, &last)) return 0;
        const int cover_count = last;
        if (has_filler == 0) {
            writeDummyYAXData(fp, gap);
            _qlseek64(fp, header_pos, SEEK_SET);
            FastCSamllCopyHeaderUpdate(info, n + 1, offset0 + gap, gap, 0);
        } else {
            writeDummyYAXData(fp, len0 + gap);
            _qlseek64(fp, header_pos, SEEK_SET);
            FastCSamllCopyHeaderUpdate(info, n, offset0 + gap, len0 + gap, 1);
        }
        return cover_count;
    }
    if (int64_t(cover_length) > size) {
        unsigned char *tail = readAt(fp, size - trailer, static_cast<uint32_t>(trailer));
        if (tail == nullptr) return 0;
        rewind(fp);
        bool ok = put(cover, cover_length, &last) && put(tail, static_cast<uint32_t>(trailer), &last);
        _qfree(tail);
        return ok ? last : 0;
    }

    // The big copy: the overhang d overwrites blocks 0..k (s bytes in all).
    const uint32_t d = static_cast<uint32_t>(cover_length - old_cover);
    uint32_t s = len0, k = 0, i = 1;
    while (d >= s && i < n) s += info->meta_data[i++]->length;
    if (d < s) k = i - 1;  // when the rows ran out first, k stays 0
    const bool filler = has_filler != 0;
    const uint32_t saved_len = filler ? s - len0 : s;
    const int64_t saved_pos = filler && n > 1 ? header_pos - info->meta_data[1]->offset : old_cover;
    unsigned char *saved = readAt(fp, saved_pos, saved_len);
    if (saved == nullptr) return 0;
    rewind(fp);
    if (!put(cover, cover_length, &last)) {
        _qfree(saved);
        return 0;
    }
    uint32_t which = 1, count = 0, f_offset = 0, f_length = s > d ? s - d : 0;
    bool ok = true;
    if (!filler) {
        if (s == d) {
            which = 3;
            count = n;
            _qlseek64(fp, header_pos, SEEK_SET);
            ok = put(cover, cover_length, &last);
        } else if (s > d) {
            which = 4;
            count = n + 1;
            f_offset = offset0 + (s - d);
            writeDummyYAXData(fp, s - d);
            _qlseek64(fp, header_pos, SEEK_SET);
            ok = put(saved, s, &last);
        }
    } else if (s > d) {
        which = k == 0 ? 2 : 6;
        count = n;
        f_offset = offset0 - d;
        writeDummyYAXData(fp, s - d);
        _qlseek64(fp, header_pos, SEEK_SET);
        if (k > 0) ok = put(saved, s - len0, &last);
    } else if (s == d) {
        count = n - 1;
        _qlseek64(fp, header_pos, SEEK_SET);
        if (k > 0) {
            which = 5;
            ok = put(saved, d, &last);
        }
    }
    if (ok) FastCBigCopyHeaderUpdate(info, count, f_offset, f_length, which, k);
    _qfree(saved);
    return ok ? last : 0;
}

}  // namespace

extern "C" {

// The move trusts every row: it copies blocks by their lengths and rewrites
// their offsets, so a table whose blocks do not lie back to back inside the
// file up to the header is refused before anything is written. In the safe
// mode the whole file is kept for undo (the cover starts at the first byte).
YAX_EXPORT int FastChangeOrgData(YaxInfo *info, const void *cover, uint32_t cover_length,
                                 uint32_t has_filler) {
    if (info == nullptr || info->fp == nullptr || info->meta_data == nullptr ||
        info->meta_count == 0 || info->meta_data[0] == nullptr || cover == nullptr)
        return 0;
    const int64_t real_size = _qlseek64(info->fp, 0, SEEK_END);
    if (!yax::trailerEditable(info, real_size, yax::kNeedBackToBack, 0, kOrgTag)) return 0;
    yax::UndoScope undo(info->fp, 0);
    if (!undo.ready()) return 0;
    const int r = changeCover(info, cover, cover_length, has_filler);
    return r != 0 && undo.commit() ? r : 0;  // a failed move is put back in the safe mode
}

YAX_EXPORT int FastChangeCoverData(const char *path, const void *cover, uint32_t cover_length) {
    if (path == nullptr || getSignature(path) != SIGNATURE_YAX) return 0;
    YAXDATA *handle = checkYAXInFile(path);
    if (handle == nullptr) {
        YAXLogE(kCoverTag, "yax_data NULL\n");
        return 0;
    }
    const uint32_t filler = hasFiller(handle);
    const int r = FastChangeOrgData(handle->yax_info, cover, cover_length, filler);
    destroyYAXDATA(handle);
    return r;
}

YAX_EXPORT void copyFpToBuffer(FILE *fp, YAXBUFFER *buf) {
    if (fp == nullptr || buf == nullptr || qbgetBuffer(buf) == nullptr) return;
    _qlseek64(fp, 0, SEEK_END);
    const int64_t len = _qftell(fp);
    _qlseek64(fp, 0, SEEK_SET);
    if (len <= 0 || len > 0x7FFFFFFF) return;
    auto *block = static_cast<unsigned char *>(_qcalloc(1, static_cast<size_t>(len)));
    if (block == nullptr) return;
    if (_qfread(block, static_cast<uint32_t>(len), fp) == len)
        _qbwrite(block, static_cast<uint32_t>(len), buf);
    _qfree(block);
}

}  // extern "C"
