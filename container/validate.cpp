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
    if (header < 0 || start < 0) {
        YAXLogE(tag, "the entry table does not fit the file");
        return false;
    }
    const uint32_t last_checked = (needs & kNeedRowsInside) ? info->meta_count : 1;
    for (uint32_t i = 0; i < last_checked; ++i) {
        const YaxEntry &e = *info->meta_data[i];
        if (static_cast<int64_t>(e.offset) > header || e.offset == 0) {
            YAXLogE(tag, "the entry table does not fit the file");
            return false;
        }
        if (e.length > e.offset) {
            YAXLogE(tag, "a block of the entry table runs into the header");
            return false;
        }
    }
    if (needs & kNeedBackToBack) {
        // Offsets count back from the header: each block must begin where
        // the one before it ended, and the last must end at the header.
        uint64_t at = first.offset;
        for (uint32_t i = 0; i < info->meta_count; ++i) {
            const YaxEntry &e = *info->meta_data[i];
            if (e.offset != at) {
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
    // A name (and sub-information) read from past the end of its own block
    // came from the next block or the header: any edit that changes those
    // bytes changes what that row reads as, and can leave a file whose table
    // no longer parses. Rows whose names could not be read are left out. A
    // filler's row may carry the sub-information flag of the entry saved
    // beside it while its block never does: its own fields are the name's.
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        const YaxEntry &e = *info->meta_data[i];
        if (e.name == nullptr) continue;
        const bool sub = e.has_sub_info != 0 && _getDataType(e.meta_type) != kFillerType;
        const uint64_t fields = kBlockFixed + (sub ? kSubInfoField : 0) + uint64_t{e.name_length} +
                                (sub ? uint64_t{e.sub_info_length} : 0);
        if (fields > e.length) {
            YAXLogE(tag, "row %u's name or sub-information runs past its block", i);
            return false;
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

// ---- the consistency report behind `yax check` ----

namespace yax {
namespace {

// Reads the file at absolute positions and counts what it reports.
class Report {
public:
    Report(FILE *fp, YaxCheckReport report, void *context)
        : fp_(fp), report_(report), context_(context) {}

    bool at(int64_t pos, void *dest, uint32_t n) const {
        return pos >= 0 && _qlseek64(fp_, pos, SEEK_SET) == pos &&
               _qfread(dest, n, fp_) == static_cast<int>(n);
    }
    bool word(int64_t pos, uint32_t *v) const {
        unsigned char b[4];
        if (!at(pos, b, 4)) return false;
        *v = uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
        return true;
    }
    bool magic(int64_t pos, const char *m, uint32_t n) const {
        char b[8];
        return at(pos, b, n) && std::memcmp(b, m, n) == 0;
    }
    void problem(const char *kind, const char *format, ...) {
        char text[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        ++count_;
        if (report_ != nullptr) report_(context_, kind, text);
    }
    int count() const { return count_; }

private:
    FILE *fp_;
    YaxCheckReport report_;
    void *context_;
    int count_ = 0;
};

// The legacy block at the end: its own sizes, and its sounds inside the file
// in front of it. Returns the block's first byte, or -1.
int64_t checkLegacy(Report &r, int64_t size) {
    uint32_t hsize = 0, count = 0;
    if (!r.word(size - kVonoTailProbe, &hsize)) return -1;
    const int64_t block = size - kVonoTailProbe - int64_t{hsize};
    if (hsize < 13 || block < 0 || !r.magic(block, kVonoHead, 4) || !r.word(block + 8, &count)) {
        r.problem("legacy", "the audio block's header size %u does not fit the file", hsize);
        return -1;
    }
    if (uint64_t{hsize} != kHeaderFixed + 8ull * count)
        r.problem("legacy", "the audio block's header size %u disagrees with its %u sounds", hsize,
                  count);
    const uint32_t fits = (hsize - kHeaderFixed) / 8;
    for (uint32_t i = 0; i < count && i < fits && i < 64; ++i) {
        uint32_t start = 0, end = 0;
        if (!r.word(block + 12 + 8 * int64_t{i}, &start) || !r.word(block + 16 + 8 * int64_t{i}, &end))
            break;
        if (start == 0 || end <= start || int64_t{end} > block)
            r.problem("legacy", "sound %u (%u to %u) does not lie in front of the audio block", i,
                      start, end);
    }
    return block;
}

struct RowView {
    uint32_t meta_type, offset, length;
};

void checkTrailer(Report &r, int64_t size, int64_t tail) {
    uint32_t hsize = 0, version = 0, count = 0;
    if (tail < 0 || !r.word(tail, &hsize)) {
        r.problem("tail", "the tail does not fit the file");
        return;
    }
    const int64_t header = tail - int64_t{hsize};
    if (hsize < 13 || header < 0) {
        r.problem("tail", "the tail's header size %u does not fit the file", hsize);
        return;
    }
    if (!r.magic(header, kHeaderMagic, 4) || !r.word(header + 4, &version) ||
        !r.word(header + 8, &count)) {
        r.problem("header", "no header where the tail points (%lld)", static_cast<long long>(header));
        return;
    }
    if (version > kMaxReadableVersion) r.problem("header", "version %u is too new to read", version);
    if (count == 0) {
        r.problem("header", "the header lists no rows");
        return;
    }
    const uint64_t rows_end = static_cast<uint64_t>(header) + kHeaderFixed + uint64_t{kRowSize} * count;
    if (rows_end > static_cast<uint64_t>(tail)) {
        r.problem("rows", "the %u table rows run past the tail", count);
        return;
    }
    if (rows_end < static_cast<uint64_t>(tail))
        r.problem("stale", "%llu stale bytes between the last row and the tail",
                  static_cast<unsigned long long>(tail - rows_end));
    const uint64_t header_offset = static_cast<uint64_t>(size - header);
    if (static_cast<uint64_t>(size) < header_offset + 12ull * count + 20)
        r.problem("list", "the trailer cannot be listed: too little lies in front of it");

    std::vector<RowView> rows(count);
    for (uint32_t i = 0; i < count; ++i) {
        const int64_t at = header + kHeaderFixed + int64_t{kRowSize} * i;
        if (!r.word(at, &rows[i].meta_type) || !r.word(at + 4, &rows[i].offset) ||
            !r.word(at + 8, &rows[i].length))
            return;
    }
    std::set<std::string> names;
    std::vector<std::string> seen(count);
    for (uint32_t i = 0; i < count; ++i) {
        const RowView &row = rows[i];
        if (row.offset == 0 || int64_t{row.offset} > header) {
            r.problem("row", "row %u points outside the file (offset %u)", i, row.offset);
            continue;
        }
        if (row.length > row.offset) {
            r.problem("overlap", "row %u's block runs into the header (length %u, offset %u)", i,
                      row.length, row.offset);
            continue;
        }
        if (i > 0 && rows[i - 1].offset >= rows[i - 1].length && rows[i - 1].offset > row.offset) {
            const uint32_t prev_end = rows[i - 1].offset - rows[i - 1].length;
            if (prev_end > row.offset)
                r.problem("gap", "%u bytes between rows %u and %u belong to no entry",
                          prev_end - row.offset, i - 1, i);
            else if (prev_end < row.offset)
                r.problem("overlap", "rows %u and %u overlap by %u bytes", i - 1, i,
                          row.offset - prev_end);
        } else if (i > 0) {
            r.problem("overlap", "row %u does not follow row %u", i, i - 1);
        }
        if (i + 1 == count && row.offset != row.length)
            r.problem("gap", "%u bytes between the last block and the header belong to no entry",
                      row.offset - row.length);
        if (i > 0 && row.offset > rows[0].offset)
            r.problem("image", "row %u's block lies in front of the first block, in the image", i);
        // The block itself: its type word and a readable name.
        const int64_t block = header - int64_t{row.offset};
        uint32_t meta = 0, name_length = 0, sub_length = 0;
        if (row.length < kBlockFixed || !r.word(block, &meta) || !r.word(block + 4, &name_length)) {
            r.problem("name", "row %u's block is too short for its fields", i);
            continue;
        }
        // A filler's row may carry the sub-information flag of the entry
        // saved beside it while its block never does: the block decides.
        const bool filler_row = _getDataType(row.meta_type) == kFillerType;
        const bool sub = ((filler_row ? meta : row.meta_type) & kSubInfoFlag) != 0;
        const uint32_t fixed = kBlockFixed + (sub ? kSubInfoField : 0);
        if (row.length < fixed || (sub && !r.word(block + 8, &sub_length))) {
            r.problem("name", "row %u's block is too short for its fields", i);
            continue;
        }
        if (meta != row.meta_type && !(filler_row && (meta | kSubInfoFlag) == row.meta_type))
            r.problem("type", "row %u's type word %#x disagrees with its block's %#x", i,
                      row.meta_type, meta);
        if (name_length == 0 || name_length > kMaxNameLength ||
            uint64_t{fixed} + name_length + sub_length > row.length) {
            r.problem("name", "row %u's name is not readable (length %u)", i, name_length);
            continue;
        }
        std::string name(name_length, '\0');
        if (!r.at(block + fixed, name.data(), name_length)) continue;
        if (!names.insert(name).second) {
            for (uint32_t k = 0; k < i; ++k)
                if (seen[k] == name) {
                    r.problem("duplicate", "rows %u and %u have the same name", k, i);
                    break;
                }
        }
        seen[i] = name;
        if (i > 0 && _getDataType(row.meta_type) == kFillerType)
            r.problem("filler", "row %u is a filler entry but not row 0", i);
    }
    // An MP4 box in front of the first block holds everything to the end.
    const int64_t first = header - int64_t{rows[0].offset};
    uint32_t box = 0;
    if (rows[0].offset != 0 && first >= int64_t{kBoxHead} && r.magic(first - 4, kMp4Token, 4) &&
        r.word(first - 8, &box)) {
        box = (box >> 24) | ((box >> 8) & 0xFF00u) | ((box << 8) & 0xFF0000u) | (box << 24);
        const int64_t span = size - (first - kBoxHead);
        if (int64_t{box} != span && int64_t{box} != span - kBoxHead)
            r.problem("mp4", "the box size %u disagrees with the %lld bytes from the box to the end",
                      box, static_cast<long long>(span));
    }
}

}  // namespace
}  // namespace yax

extern "C" YAX_EXPORT int yaxCheckFile(const char *path, YaxCheckReport report, void *context) {
    using namespace yax;
    FILE *fp = path != nullptr ? _qfopen(path, "rb") : nullptr;
    if (fp == nullptr) return -1;
    Report r(fp, report, context);
    const int64_t size = _qlseek64(fp, 0, SEEK_END);
    const unsigned int sig = size >= 0 ? getSignatureFP(fp) : 0;
    if (sig == 0 && size > 0) r.problem("tail", "the end of the file cannot be read");
    int64_t tail = size - kTailSize;
    if (sig == SIGNATURE_VONO || sig == SIGNATURE_VONO_YAX) {
        const int64_t block = checkLegacy(r, size);
        if (sig == SIGNATURE_VONO_YAX && block >= 0) {
            tail = block - kTailSize;
            if (block != size - int64_t{kVonoOneSoundBlock})
                r.problem("legacy", "a trailer sits in front of an audio block of %lld bytes, "
                          "where only 30-byte blocks are looked behind",
                          static_cast<long long>(size - block));
        }
    }
    if (sig == SIGNATURE_YAX || sig == SIGNATURE_VONO_YAX) checkTrailer(r, size, tail);
    _qfclose(fp);
    return r.count();
}
