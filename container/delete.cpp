// Removing entries from a parsed trailer. Three kinds of delete live here:
//
//  - rewriting deletes (DeleteAllData, DeleteAllYAXData, DeleteAYAXData,
//    DeleteMultiYAXData) write the whole new file under a temporary name
//    beside the old one, close everything, and move it into place;
//  - in-place deletes (DeleteAllYAXDataFP/Buffer, DeleteAYAXDataFP/Buffer)
//    slide the surviving blocks down on the open stream and cut it short;
//  - fast deletes (FastDeleteAllData, FastDeleteAllYAXData, FastDeleteAYAXData)
//    never change the file's length: the freed bytes become one
//    "Invalid_Data" filler entry, always row 0 of the table.
//
// Positions: the first block starts at file_size - (header_offset + row 0's
// offset) and the header at file_size - header_offset. Everything before the
// first block (the image, and an MP4 box head) is left as it is; only
// DeleteAllData cuts at data_start_position and so drops the box head too.
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "container/layout.hpp"
#include "container/validate.hpp"
#include "support/gather.hpp"
#include "support/io.hpp"
#include "support/copy.hpp"
#include "support/safe_file.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

using namespace layout;

// The replace step of these deletes has always reported under the legacy
// audio add's tag; log readers match on it, so it stays.
constexpr const char *kReplaceTag = "VonoAPIs::addVonoSound";
constexpr const char *kFastOneTag = "FastDeleteAYAXData";

// The smallest region that can hold a one-entry filler trailer: the filler
// block head and a one-row header with its tail.
constexpr uint64_t kMinFillerTrailer = kFillerBlockHead + kOneRowTrailer;  // 52

// Large blocks move in pieces so that no single read or write call has to
// carry more than the descriptor calls handle in one go.
constexpr uint32_t kMoveChunk = 1u << 26;

// ---- the header's field writers, for either backend ----

int qtss(FileIO io) { return _writeYAX_QTSS(io.fp); }
int qtss(BufIO io) { return _writeYAX_QTSS_Buffer(io.h); }
int qver(FileIO io) { return _writeYAX_QVER(io.fp); }
int qver(BufIO io) { return _writeYAX_QVER_Buffer(io.h); }
int qcnt(FileIO io, uint32_t n) { return _writeYAX_QCnt(io.fp, n); }
int qcnt(BufIO io, uint32_t n) { return _writeYAX_QCnt_Buffer(io.h, n); }
int qdr(FileIO io, YaxEntry *e) { return _writeYAX_QDR(io.fp, e); }
int qdr(BufIO io, YaxEntry *e) { return _writeYAX_QDR_Buffer(io.h, e); }
int qtho(FileIO io, uint32_t n) { return _writeYAX_QTHO(io.fp, n); }
int qtho(BufIO io, uint32_t n) { return _writeYAX_QTHO_Buffer(io.h, n); }
int qts(FileIO io) { return _writeYAX_QTS(io.fp); }
int qts(BufIO io) { return _writeYAX_QTS_Buffer(io.h); }

// Header and tail at the current position: "YAXH", version, `count`, the
// optional `lead` row, every row of the table that `skip` lets through, the
// header size for `count` rows, "YAXT". Write results are not looked at: a
// short disk shows at the next parse.
template <typename IO, typename Skip>
void writeTable(IO io, YaxInfo *info, uint32_t count, YaxEntry *lead, Skip skip) {
    qtss(io);
    qver(io);
    qcnt(io, count);
    if (lead != nullptr) qdr(io, lead);
    for (uint32_t i = 0; i < info->meta_count; ++i)
        if (!skip(i)) qdr(io, info->meta_data[i]);
    qtho(io, count);
    qts(io);
}

// The legacy audio end record behind the trailer's tail (30 bytes):
// "VONO", 105, `count`, the first sound's start and end pulled back by
// `pull_back`, 20, "VONOBS". A record without a sound table writes zeros for
// the two positions.
template <typename IO>
void writeVonoEnd(IO io, const VonoInfo *vono, uint32_t count, uint32_t pull_back) {
    uint32_t start = 0, end = 0;
    if (vono->offsets != nullptr && vono->count != 0) {
        start = vono->offsets[0] - pull_back;
        end = vono->offsets[1] - pull_back;
    }
    io.write(kVonoHead, sizeof kVonoHead);
    io.write32(kVersion);
    io.write32(count);
    io.write32(start);
    io.write32(end);
    io.write32(kVonoOneSoundHeaderSize);
    io.write(kVonoTail, sizeof kVonoTail);
}

// ---- finding the legacy record behind the trailer ----

// Of a file by path: the record's own stream is closed at once.
VonoInfo *vonoOfPath(const char *path) {
    VonoInfo *vono = _checkAudioInImageFile(path);
    if (vono != nullptr && vono->fp != nullptr) {
        _qfclose(vono->fp);
        vono->fp = nullptr;
    }
    return vono;
}

// Of the stream being edited. The record would share the caller's stream, and
// the edit goes on writing to it, so a table that cannot be read releases the
// record without closing the stream, and a found record lets go of it at once.
VonoInfo *vonoOfStream(FileIO io) {
    VonoInfo *vono = ParseVonoFP(io.fp);
    if (vono == nullptr) return nullptr;
    if (ParseVonoSound(vono) != 1) {
        DestroyVonoFP(vono);
        return nullptr;
    }
    vono->fp = nullptr;
    return vono;
}

VonoInfo *vonoOfStream(BufIO io) {
    VonoInfo *vono = _checkAudioInImageBuffer(io.h);
    if (vono != nullptr) vono->buffer = nullptr;
    return vono;
}

// ---- geometry and the checks that keep a damaged record inside the file ----

int64_t headerStart(const YaxInfo *info) {
    return info->file_size - static_cast<int64_t>(info->header_offset);
}

int64_t dataStart(const YaxInfo *info) {
    return headerStart(info) - static_cast<int64_t>(info->meta_data[0]->offset);
}

// Whether the table can drive an edit without reading or writing outside the
// file (validate.hpp); `all_rows` for the deletes that walk every block.
template <typename IO>
bool tableFits(IO io, const YaxInfo *info, bool all_rows, const char *tag) {
    return trailerEditable(io, info, all_rows ? kNeedBackToBack : kNeedFirstBlock, tag);
}

// Reads or writes `n` bytes in pieces; a piece that moves nothing ends it.
template <typename IO>
uint64_t readAll(IO io, unsigned char *dest, uint64_t n) {
    uint64_t done = 0;
    while (done < n) {
        const uint32_t piece = n - done > kMoveChunk ? kMoveChunk : static_cast<uint32_t>(n - done);
        const int got = io.read(dest + done, piece);
        if (got <= 0) break;
        done += static_cast<uint32_t>(got);
    }
    return done;
}

template <typename IO>
void writeAll(IO io, const unsigned char *src, uint64_t n) {
    for (uint64_t done = 0; done < n; done += kMoveChunk) {
        const uint32_t piece = n - done > kMoveChunk ? kMoveChunk : static_cast<uint32_t>(n - done);
        if (io.writeFailed(io.write(src + done, piece))) return;
    }
}

// A scratch area of `size` zeroed bytes, or null when that size cannot even be
// expressed on this platform or memory is short.
unsigned char *scratch(uint64_t size, const char *tag) {
    if (size > SIZE_MAX) {
        YAXLogE(tag, "file is too large to edit in memory");
        return nullptr;
    }
    return static_cast<unsigned char *>(_qmalloc(static_cast<size_t>(size)));
}

// ---- the rewriting skeleton ----

// `body` writes the new file into the temporary stream. Then both streams are
// closed, the temporary file takes the place of `path`, and `path` is opened
// again for reading into info->fp. A temporary file that cannot be opened is
// reported as success with nothing changed; callers have always relied on it
// (the safe-edit mode reports it, and any failed write, as 0 instead).
template <typename Body>
int rewrite(const char *path, YaxInfo *info, const char *mode, Body body) {
    RewriteTemp temp(path, _getTempFileName);
    if (!temp.named()) return 0;
    if (!temp.open(mode)) return temp.untouchedResult();
    body(FileIO{temp.fp()});
    if (!temp.finish()) return 0;
    _qfclose(info->fp);
    info->fp = nullptr;
    if (!temp.replace(path, kReplaceTag)) return 0;
    info->fp = _qfopen(path, "rb");
    return 1;
}

// Copies `n` bytes of the edited file from absolute position `from`.
void copyOut(FileIO out, FILE *in, int64_t from, int64_t n) {
    _qlseek64(in, from, SEEK_SET);
    copyKept(out.fp, in, n);
}

bool usableForRewrite(const char *path, const YaxInfo *info) {
    return path != nullptr && info != nullptr && info->fp != nullptr && info->file_size >= 1;
}

// ---- in-place deletes: one body for the file and the buffer stream ----

// What differs between the two in-place flavours, in one place: where the
// record keeps its stream, how the stream is cut short, and the log tags.
struct FileInPlace {
    using IO = FileIO;
    static constexpr const char *kAllTag = "YAXEncoder::DeleteAllYAXDataFP";
    static constexpr const char *kOneTag = "YAXEncoder::DeleteAYAXDataFP";
    static bool hasStream(const YaxInfo *info) { return info->fp != nullptr; }
    static int truncate(IO io, int64_t size) {
        return ftruncate64(fileno(io.fp), static_cast<off64_t>(size));
    }
};

struct BufferInPlace {
    using IO = BufIO;
    static constexpr const char *kAllTag = "YAXEncoder::DeleteAllYAXDataBuffer";
    static constexpr const char *kOneTag = "YAXEncoder::DeleteAYAXDataBuffer";
    static bool hasStream(const YaxInfo *info) { return info->handle != nullptr; }
    static int truncate(IO io, int64_t size) { return btruncate(io.h, size); }
};

// `keep_vono` false (the fast delete-all's small-entry path) drops a legacy
// end record with the trailer.
template <typename F>
int deleteAllInPlace(typename F::IO io, YaxInfo *info, bool keep_vono = true) {
    if (!io.ok() || info == nullptr || !F::hasStream(info) || info->file_size < 1) return 0;
    if (!tableFits(io, info, false, F::kAllTag)) return 0;
    const int64_t start = dataStart(info);
    auto undo = undoScope(io, start);
    if (!undo.ready()) return 0;
    VonoInfo *vono = keep_vono ? vonoOfStream(io) : nullptr;
    io.seek(0, SEEK_SET);
    const bool cut = F::truncate(io, start) == 0;
    if (!cut) {
        YAXLogE(F::kAllTag, "truncate fail");
    } else if (vono != nullptr) {
        io.seek(start, SEEK_SET);
        writeVonoEnd(io, vono, 0, 0);
    }
    _destroyVONODATA(vono);
    return cut && undo.commit() ? 1 : 0;
}

template <typename F>
int deleteOneInPlace(typename F::IO io, YaxInfo *info, uint32_t index, VonoInfo *vono) {
    if (!io.ok() || info == nullptr || !F::hasStream(info) || info->file_size < 1 ||
        index >= info->meta_count)
        return 0;
    // A single entry goes the way of delete-all, whatever that reports.
    if (index == 0 && info->meta_count == 1) {
        deleteAllInPlace<F>(io, info);
        return 1;
    }
    if (!tableFits(io, info, true, F::kOneTag)) return 0;
    // The scratch area is as large as the whole file, as it has always been.
    unsigned char *kept_bytes = scratch(static_cast<uint64_t>(info->file_size), F::kOneTag);
    if (kept_bytes == nullptr) return 0;

    const int64_t start = dataStart(info);
    auto undo = undoScope(io, start);
    if (!undo.ready()) {
        _qfree(kept_bytes);
        return 0;
    }
    const uint32_t gone = info->meta_data[index]->length;
    uint64_t kept = 0;
    io.seek(start, SEEK_SET);
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        YaxEntry *e = info->meta_data[i];
        if (i == index) {
            io.seek(start + static_cast<int64_t>(kept) + e->length, SEEK_SET);
            continue;
        }
        if (i < index) e->offset -= gone;
        readAll(io, kept_bytes + kept, e->length);
        kept += e->length;
    }
    const auto table = [&] {
        writeTable(io, info, info->meta_count - 1, nullptr, [index](uint32_t i) { return i == index; });
        if (vono != nullptr) writeVonoEnd(io, vono, vono->count, vono->sound_moved ? gone : 0);
    };
    if constexpr (!F::IO::kIsBuffer) {
        // A file gets the kept blocks, the table and the tail in one write and
        // is cut to its new length after it: an interruption finds the old
        // trailer or, once written, the new one followed by stale bytes that
        // the cut removes. When the one write fails the file is put back and
        // the steps below run as usual.
        int64_t end = -1;
        bool sent;
        {
            WriteGather gather(io.fp);
            io.seek(start, SEEK_SET);
            writeAll(io, kept_bytes, kept);
            table();
            end = io.seek(0, SEEK_CUR);
            sent = gather.send();
        }
        if (sent) {
            _qfree(kept_bytes);
            if (F::truncate(io, end) != 0) {
                YAXLogE(F::kOneTag, "truncate fail");
                return 0;
            }
            return undo.commit() ? 1 : 0;
        }
    }
    io.seek(start, SEEK_SET);
    writeAll(io, kept_bytes, kept);
    io.seek(start + static_cast<int64_t>(kept), SEEK_SET);
    _qfree(kept_bytes);

    if (F::truncate(io, start + static_cast<int64_t>(kept)) != 0) {
        YAXLogE(F::kOneTag, "truncate fail");
        return 0;
    }
    table();
    return undo.commit() ? 1 : 0;
}

// ---- fast deletes ----

int fastDeleteAll(YaxInfo *info, bool keep_vono, const char *tag) {
    if (info == nullptr || info->fp == nullptr || info->file_size < 1) return 0;
    const FileIO io{info->fp};
    if (!tableFits(io, info, false, tag)) return 0;
    // Everything from the first block to the end of the file becomes one
    // filler entry with its own one-row header and tail.
    const uint64_t region = static_cast<uint64_t>(info->header_offset) + info->meta_data[0]->offset;
    // A single entry whose block is shorter than the filler's own fields
    // leaves no room for a filler trailer: it is cut off in place instead.
    if (region < kMinFillerTrailer) return deleteAllInPlace<FileInPlace>(io, info, keep_vono);
    if (region > UINT32_MAX) {
        YAXLogE(tag, "no room for the filler entry");
        return 0;
    }
    UndoScope undo(info->fp, dataStart(info));
    if (!undo.ready()) return 0;
    VonoInfo *vono = keep_vono ? vonoOfStream(io) : nullptr;
    // The filler's fields, header and tail (and the end record) go out in one
    // write (see WriteGather).
    writeAtOnce(info->fp, [&] {
        io.seek(dataStart(info), SEEK_SET);
        writeDummyYAXDataHeader(info->fp, static_cast<uint32_t>(region), 0);
        // The old end record was inside the region; it goes again behind the
        // new tail, so the file grows by its length.
        if (vono != nullptr) writeVonoDataHeader(info->fp, vono);
        return 0;
    });
    _destroyVONODATA(vono);
    return undo.commit() ? 1 : 0;
}

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT int DeleteAllData(const char *path, YaxInfo *info) {
    if (!yax::usableForRewrite(path, info)) return 0;
    const int64_t keep = info->data_start_position;
    const int64_t real_size = _qlseek64(info->fp, 0, SEEK_END);
    if (keep < 0 || keep > info->file_size || real_size < info->file_size) {
        YAXLogE("YAXEncoder::DeleteAllData", "the entry table does not fit the file");
        return 0;
    }
    // Cut at data_start_position: an MP4 box head goes with the trailer.
    return yax::rewrite(path, info, "wb", [&](yax::FileIO out) {
        yax::copyOut(out, info->fp, 0, keep);
    });
}

YAX_EXPORT int DeleteAllYAXData(const char *path, YaxInfo *info) {
    if (!yax::usableForRewrite(path, info)) return 0;
    if (!yax::tableFits(yax::FileIO{info->fp}, info, false, "YAXEncoder::DeleteAllYAXData"))
        return 0;
    VonoInfo *vono = yax::vonoOfPath(path);
    const int64_t start = yax::dataStart(info);
    const int r = yax::rewrite(path, info, "wb", [&](yax::FileIO out) {
        yax::copyOut(out, info->fp, 0, start);
        if (vono != nullptr) yax::writeVonoEnd(out, vono, 0, 0);
    });
    _destroyVONODATA(vono);
    return r;
}

YAX_EXPORT int DeleteAllYAXDataFP(FILE *fp, YaxInfo *info) {
    return yax::deleteAllInPlace<yax::FileInPlace>(yax::FileIO{fp}, info);
}

YAX_EXPORT int DeleteAllYAXDataBuffer(YAXBUFFER *handle, YaxInfo *info) {
    return yax::deleteAllInPlace<yax::BufferInPlace>(yax::BufIO{handle}, info);
}

YAX_EXPORT int DeleteAYAXData(const char *path, YaxInfo *info, uint32_t index, VonoInfo *vono) {
    if (!yax::usableForRewrite(path, info) || index >= info->meta_count) return 0;
    // A single entry goes the way of delete-all, whatever that reports; the
    // end record it writes is the file's own, not `vono`.
    if (index == 0 && info->meta_count == 1) {
        DeleteAllYAXData(path, info);
        return 1;
    }
    if (!yax::tableFits(yax::FileIO{info->fp}, info, true, "YAXEncoder::DeleteAYAXData")) return 0;
    const int64_t start = yax::dataStart(info);
    const uint32_t gone = info->meta_data[index]->length;
    // The table in memory keeps the shifted offsets and the deleted row:
    // callers parse the new file again.
    return yax::rewrite(path, info, "w+b", [&](yax::FileIO out) {
        yax::copyOut(out, info->fp, 0, start);
        int64_t at = start;
        for (uint32_t i = 0; i < info->meta_count; ++i) {
            YaxEntry *e = info->meta_data[i];
            if (i != index) {
                if (i < index) e->offset -= gone;
                yax::copyOut(out, info->fp, at, e->length);
            }
            at += e->length;
        }
        yax::writeTable(out, info, info->meta_count - 1, nullptr,
                        [index](uint32_t i) { return i == index; });
        if (vono != nullptr)
            yax::writeVonoEnd(out, vono, vono->count, vono->sound_moved ? gone : 0);
    });
}

YAX_EXPORT int DeleteAYAXDataFP(FILE *fp, YaxInfo *info, uint32_t index, VonoInfo *vono) {
    return yax::deleteOneInPlace<yax::FileInPlace>(yax::FileIO{fp}, info, index, vono);
}

YAX_EXPORT int DeleteAYAXDataBuffer(YAXBUFFER *handle, YaxInfo *info, uint32_t index,
                                    VonoInfo *vono) {
    return yax::deleteOneInPlace<yax::BufferInPlace>(yax::BufIO{handle}, info, index, vono);
}

YAX_EXPORT int DeleteMultiYAXData(const char *path, YaxInfo *info, uint32_t *indices,
                                  uint32_t count) {
    constexpr const char *kTag = "YAXEncoder::DeleteMultiYAXData";
    if (!yax::usableForRewrite(path, info)) return 0;
    if (indices == nullptr || count == 0) return 0;
    if (info->meta_count == 0 || info->meta_data == nullptr) return 0;
    // Every index must name a row, once: a name that was not found arrives
    // here as all ones, and must not turn into a delete of something else.
    auto *doomed = static_cast<unsigned char *>(_qcalloc(info->meta_count, 1));
    if (doomed == nullptr) return 0;
    for (uint32_t k = 0; k < count; ++k) {
        const uint32_t i = indices[k];
        const char *why = i >= info->meta_count ? "index %u is out of range"
                          : doomed[i]           ? "index %u is listed twice"
                                                : nullptr;
        if (why != nullptr) {
            YAXLogE(kTag, why, i);
            _qfree(doomed);
            return 0;
        }
        doomed[i] = 1;
    }
    if (count == info->meta_count) {
        _qfree(doomed);
        DeleteAllYAXData(path, info);
        return 1;
    }
    if (!yax::tableFits(yax::FileIO{info->fp}, info, true, kTag)) {
        _qfree(doomed);
        return 0;
    }
    const int64_t start = yax::dataStart(info);
    // A kept row moves back by the blocks deleted behind it: the pending
    // shift starts with all of them and loses each one as the walk passes it.
    uint32_t pending = 0;
    for (uint32_t i = 0; i < info->meta_count; ++i)
        if (doomed[i]) pending += info->meta_data[i]->length;
    const int r = yax::rewrite(path, info, "wb", [&](yax::FileIO out) {
        yax::copyOut(out, info->fp, 0, start);
        int64_t at = start;
        for (uint32_t i = 0; i < info->meta_count; ++i) {
            YaxEntry *e = info->meta_data[i];
            if (doomed[i]) {
                pending -= e->length;
            } else {
                e->offset -= pending;
                yax::copyOut(out, info->fp, at, e->length);
            }
            at += e->length;
        }
        // No legacy end record here: one behind the trailer is dropped.
        yax::writeTable(out, info, info->meta_count - count, nullptr,
                        [doomed](uint32_t i) { return doomed[i] != 0; });
    });
    _qfree(doomed);
    return r;
}

YAX_EXPORT int FastDeleteAllData(YaxInfo *info) {
    return yax::fastDeleteAll(info, false, "YAXEncoder::FastDeleteAllData");
}

YAX_EXPORT int FastDeleteAllYAXData(YaxInfo *info) {
    return yax::fastDeleteAll(info, true, "YAXEncoder::FastDeleteAllYAXData");
}

YAX_EXPORT int FastDeleteAYAXData(YaxInfo *info, uint32_t index, VonoInfo *vono, int no_pad) {
    using namespace yax::layout;
    const char *tag = yax::kFastOneTag;
    if (info == nullptr) {
        YAXLogE(tag, "YAX_info null");
        return 0;
    }
    if (info->fp == nullptr || info->file_size < 1) {
        YAXLogE(tag, "YAX_info->fp, YAX_info->file_size null");
        return 0;
    }
    if (index >= info->meta_count) {
        YAXLogE(tag, "index <0, YAX_info->meta_count fail");
        return 0;
    }
    if (index == 0 && info->meta_count == 1) {
        FastDeleteAllYAXData(info);
        return 1;
    }
    const yax::FileIO io{info->fp};
    // The walk below takes a filler it meets for row 0 and skips row 0.
    if (!yax::trailerEditable(io, info, yax::kNeedBackToBack | yax::kNeedFillerFirst, tag, index))
        return 0;
    // A block shorter than the filler's 20-byte fields, with no old filler
    // to merge into, cannot become filler: that entry alone is deleted in
    // place, and the file gets shorter by its length.
    const uint32_t gone = info->meta_data[index]->length;
    bool has_filler = false;
    for (uint32_t i = 0; i < info->meta_count; ++i)
        if (i != index && _getDataType(info->meta_data[i]->meta_type) == kFillerType)
            has_filler = true;
    if (!has_filler && gone < kFillerBlockHead)
        return yax::deleteOneInPlace<yax::FileInPlace>(io, info, index, vono);
    const uint64_t region = static_cast<uint64_t>(info->header_offset) + info->meta_data[0]->offset;
    unsigned char *kept_bytes = yax::scratch(region, tag);
    if (kept_bytes == nullptr) return 0;

    const int64_t start = yax::dataStart(info);
    yax::UndoScope undo(info->fp, start);
    if (!undo.ready()) {
        _qfree(kept_bytes);
        return 0;
    }
    uint64_t kept = 0, filler = 0;
    int64_t at = start;
    bool absorbed = false;
    io.seek(start, SEEK_SET);
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        YaxEntry *e = info->meta_data[i];
        if (i == index) {
            at += e->length;
            io.seek(at, SEEK_SET);
            filler += e->length;
            // Absorbing an old filler drops its 12-byte row; the new filler
            // takes those bytes so the end of the file stays where it was.
            if (absorbed && no_pad == 0) filler += kRowSize;
        } else if (_getDataType(e->meta_type) == kFillerType) {
            at += e->length;
            io.seek(at, SEEK_SET);
            filler += e->length;
            absorbed = true;
        } else {
            if (i < index) e->offset -= gone;
            yax::readAll(io, kept_bytes + kept, e->length);
            kept += e->length;
            at += e->length;
        }
    }
    if (filler < kFillerBlockHead || filler > UINT32_MAX) {
        YAXLogE(tag, "no room for the filler entry");
        _qfree(kept_bytes);
        return 0;
    }
    YaxEntry row{};
    row.offset = static_cast<uint32_t>(kept + filler);
    row.length = static_cast<uint32_t>(filler);
    row.meta_type = metaType(kFillerType, 0);
    // Filler, kept blocks, table and tail are one run from the first block
    // on, and go out in one write (see WriteGather).
    yax::writeAtOnce(info->fp, [&] {
        io.seek(start, SEEK_SET);
        writeDummyYAXData(info->fp, static_cast<uint32_t>(filler));
        yax::writeAll(io, kept_bytes, kept);
        // The old filler, when one was absorbed, is row 0.
        yax::writeTable(io, info, info->meta_count - (absorbed ? 1 : 0), &row,
                        [index, absorbed](uint32_t i) { return i == index || (absorbed && i == 0); });
        if (vono != nullptr) writeVonoDataHeader(info->fp, vono);
        return 0;
    });
    _qfree(kept_bytes);
    return undo.commit() ? 1 : 0;
}

}  // extern "C"
