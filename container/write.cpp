// The lowest writing layer of the trailer: one writer per field (magics,
// version, count, table row, header size, tail, MP4 token and box size), each
// for a FILE* and for a buffer stream, and the composite writers built on
// them: a block's leading fields, a header and tail from a YaxInfo, and the
// "Invalid_Data" filler pieces that occupy a region without moving what
// follows. Nothing here seeks (except _generateYAXHeader, which measures):
// every writer emits at the stream's current position.
#include <cstdint>
#include <cstring>

#include "container/layout.hpp"
#include "support/io.hpp"
#include "support/safe_file.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

using namespace layout;

constexpr const char *kTagInfoTag = "YAXInternal::_writeDataTagInfo";
constexpr const char *kTagInfoMsg = "File Write Error";
// Zero bytes of a filler go out in pieces of this size, so a filler of any
// length costs one small scratch area.
constexpr uint32_t kZeroChunk = 64 * 1024;

// ---- field writers: each returns the primitive's result ----

template <typename IO>
int putMagic(const IO &io, const char (&magic)[4]) {
    return io.write(magic, kWord);
}

// A row's three word writes are not looked at: the row writer reports 1
// whatever happened, and callers that test a row for failure never see one.
template <typename IO>
int putRow(const IO &io, const YaxEntry &row) {
    io.write32(row.meta_type);
    io.write32(row.offset);
    io.write32(row.length);
    return 1;
}

// The file flavours get a null stream past the primitives as a failed write;
// the buffer primitives already answer a null handle with their failure value.
template <typename IO, typename Fn>
int onStream(const IO &io, Fn fn) {
    return io.ok() ? fn(io) : IO::kWriteFailure;
}

// True when `n` bytes of `p` went out. Writing nothing always succeeds (the
// buffer stream reports a zero-length write with its failure value); a
// missing source for a non-empty write counts as a failed write.
template <typename IO>
bool putBytes(const IO &io, const void *p, uint32_t n) {
    if (n == 0) return true;
    if (p == nullptr) return false;
    return !io.writeFailed(io.write(p, n));
}

// meta type, name length, [sub-info length], name, sub-info. The sub-info
// bytes are written whatever the flag says; callers pass a zero length when
// there is none. Both flavours log under the file flavour's tag.
template <typename IO>
int putTagInfo(const IO &io, uint32_t data_type, uint32_t has_sub_info, const char *name,
               uint32_t name_length, const void *sub_info, uint32_t sub_info_length) {
    bool ok = io.ok() && !io.writeFailed(io.write32(metaType(data_type, has_sub_info))) &&
              !io.writeFailed(io.write32(name_length)) &&
              (has_sub_info == 0 || !io.writeFailed(io.write32(sub_info_length))) &&
              putBytes(io, name, name_length) && putBytes(io, sub_info, sub_info_length);
    if (!ok) {
        YAXLogE(kTagInfoTag, kTagInfoMsg);
        return 0;
    }
    return 1;
}

// True when every row the header is about to write exists.
bool rowsPresent(const YaxInfo *info) {
    if (info->meta_count == 0) return true;
    if (info->meta_data == nullptr) return false;
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        if (info->meta_data[i] == nullptr) return false;
    }
    return true;
}

// Header and tail of a YaxInfo. The count word is written two higher than
// the rows that follow and than the header size; outside readers of these
// headers have always seen it so, and it stays.
template <typename IO>
int putHeaderFromInfo(const IO &io, const YaxInfo *info) {
    if (!io.ok() || !rowsPresent(info)) return 0;
    if (io.writeFailed(putMagic(io, kHeaderMagic))) return 0;
    if (io.writeFailed(io.write32(kVersion))) return 0;
    if (io.writeFailed(io.write32(info->meta_count + 2))) return 0;
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        if (io.writeFailed(putRow(io, *info->meta_data[i]))) return 0;
    }
    if (io.writeFailed(io.write32(headerSize(info->meta_count)))) return 0;
    int r = putMagic(io, kTailMagic);
    return io.writeFailed(r) ? 0 : r;
}

template <typename IO>
int putThreeWords(const IO &io, uint32_t a, uint32_t b, uint32_t c) {
    if (io.ok()) {
        io.write32(a);
        io.write32(b);
        io.write32(c);
    }
    return 1;
}

// The 20-byte head of a filler block: its type, the name length 12 and
// "Invalid_Data"; never with sub-information.
void putFillerHead(const FileIO &io) {
    io.write32(metaType(kFillerType, 0));
    io.write32(static_cast<uint32_t>(kFillerName.size()));
    io.write(kFillerName.data(), static_cast<uint32_t>(kFillerName.size()));
}

void putZeros(const FileIO &io, uint32_t count) {
    if (count == 0) return;
    uint32_t chunk = count < kZeroChunk ? count : kZeroChunk;
    void *zeros = _qmalloc(chunk);
    if (zeros == nullptr) {
        noteIoFailure();  // the zeros are missing from the file as surely as after a failed write
        return;
    }
    for (uint32_t left = count; left != 0;) {
        uint32_t n = left < chunk ? left : chunk;
        if (io.writeFailed(io.write(zeros, n))) break;
        left -= n;
    }
    _qfree(zeros);
}

// A filler block of exactly `size` bytes. A size below the 20-byte head is
// the caller's error; the head is still written whole.
void putFillerBlock(const FileIO &io, uint32_t size) {
    putFillerHead(io);
    if (size > kFillerBlockHead) putZeros(io, size - kFillerBlockHead);
}

void putRowWords(const FileIO &io, uint32_t meta_type, uint32_t offset, uint32_t length) {
    YaxEntry row{};
    row.meta_type = meta_type;
    row.offset = offset;
    row.length = length;
    putRow(io, row);
}

}  // namespace
}  // namespace yax

using yax::BufIO;
using yax::FileIO;
namespace L = yax::layout;

extern "C" {

// ---- field writers ----

YAX_EXPORT int _writeYAX_MP4S(FILE *fp) {
    return yax::onStream(FileIO{fp}, [](const FileIO &io) { return yax::putMagic(io, L::kMp4Token); });
}
YAX_EXPORT int _writeYAX_MP4S_Buffer(YAXBUFFER *buf) {
    return yax::putMagic(BufIO{buf}, L::kMp4Token);
}

YAX_EXPORT int _writeYAX_TOTALSIZE(FILE *fp, uint32_t size) {
    return yax::onStream(FileIO{fp}, [size](const FileIO &io) { return io.write32be(size); });
}
YAX_EXPORT int _writeYAX_TOTALSIZE_Buffer(YAXBUFFER *buf, uint32_t size) {
    return BufIO{buf}.write32be(size);
}

YAX_EXPORT int _writeYAX_QTSS(FILE *fp) {
    return yax::onStream(FileIO{fp}, [](const FileIO &io) { return yax::putMagic(io, L::kHeaderMagic); });
}
YAX_EXPORT int _writeYAX_QTSS_Buffer(YAXBUFFER *buf) {
    return yax::putMagic(BufIO{buf}, L::kHeaderMagic);
}

YAX_EXPORT int _writeYAX_QVER(FILE *fp) {
    return yax::onStream(FileIO{fp}, [](const FileIO &io) { return io.write32(L::kVersion); });
}
YAX_EXPORT int _writeYAX_QVER_Buffer(YAXBUFFER *buf) { return BufIO{buf}.write32(L::kVersion); }

YAX_EXPORT int _writeYAX_QCnt(FILE *fp, uint32_t count) {
    return yax::onStream(FileIO{fp}, [count](const FileIO &io) { return io.write32(count); });
}
YAX_EXPORT int _writeYAX_QCnt_Buffer(YAXBUFFER *buf, uint32_t count) {
    return BufIO{buf}.write32(count);
}

YAX_EXPORT int _writeYAX_QDR(FILE *fp, YaxEntry *entry) {
    if (fp == nullptr || entry == nullptr) return 1;
    return yax::putRow(FileIO{fp}, *entry);
}
YAX_EXPORT int _writeYAX_QDR_Buffer(YAXBUFFER *buf, YaxEntry *entry) {
    if (entry == nullptr) return 1;
    return yax::putRow(BufIO{buf}, *entry);
}

YAX_EXPORT uint32_t _calculateYAX_QTHO(uint32_t count) { return L::headerSize(count); }

YAX_EXPORT int _writeYAX_QTHO(FILE *fp, uint32_t count) {
    return yax::onStream(FileIO{fp},
                         [count](const FileIO &io) { return io.write32(L::headerSize(count)); });
}
YAX_EXPORT int _writeYAX_QTHO_Buffer(YAXBUFFER *buf, uint32_t count) {
    return BufIO{buf}.write32(L::headerSize(count));
}

YAX_EXPORT int _writeYAX_QTS(FILE *fp) {
    return yax::onStream(FileIO{fp}, [](const FileIO &io) { return yax::putMagic(io, L::kTailMagic); });
}
YAX_EXPORT int _writeYAX_QTS_Buffer(YAXBUFFER *buf) {
    return yax::putMagic(BufIO{buf}, L::kTailMagic);
}

// ---- block and header writers ----

YAX_EXPORT int _writeDataTagInfo(FILE *fp, uint32_t data_type, uint32_t has_sub_info,
                                 const char *name, uint32_t name_length, const void *sub_info,
                                 uint32_t sub_info_length) {
    return yax::putTagInfo(FileIO{fp}, data_type, has_sub_info, name, name_length, sub_info,
                           sub_info_length);
}

YAX_EXPORT int _writeDataTagInfoBuffer(YAXBUFFER *buf, uint32_t data_type, uint32_t has_sub_info,
                                       const char *name, uint32_t name_length,
                                       const void *sub_info, uint32_t sub_info_length) {
    return yax::putTagInfo(BufIO{buf}, data_type, has_sub_info, name, name_length, sub_info,
                           sub_info_length);
}

YAX_EXPORT int writeYAXData(FILE *fp, uint32_t data_type, uint32_t has_sub_info, const char *name,
                            uint32_t name_length, const void *sub_info, uint32_t sub_info_length,
                            const void *data, uint32_t data_length) {
    if (fp == nullptr) return FileIO::kWriteFailure;
    _writeDataTagInfo(fp, data_type, has_sub_info, name, name_length, sub_info, sub_info_length);
    if (data == nullptr) return data_length == 0 ? 0 : FileIO::kWriteFailure;
    return _qfwrite(data, data_length, fp);
}

YAX_EXPORT int _writeDataHeaderInfo(FILE *fp, uint32_t a, uint32_t b, uint32_t c) {
    return yax::putThreeWords(FileIO{fp}, a, b, c);
}

YAX_EXPORT int _writeDataHeaderInfo_Buffer(YAXBUFFER *buf, uint32_t a, uint32_t b, uint32_t c) {
    return yax::putThreeWords(BufIO{buf}, a, b, c);
}

YAX_EXPORT int _writeYAXHeader(YaxInfo *info) {
    if (info == nullptr) return 0;
    return yax::putHeaderFromInfo(FileIO{info->fp}, info);
}

YAX_EXPORT int _writeYAXHeaderBuffer(YaxInfo *info) {
    if (info == nullptr) return 0;
    return yax::putHeaderFromInfo(BufIO{info->handle}, info);
}

// The header of a fast add. With `replace_first`, row 0 is replaced by two
// rows: the shrunken filler and the new entry behind it; the filler row takes
// the new entry's sub-information flag (its block never has one). Without it
// the new row goes last. The header size counts the old rows plus one.
YAX_EXPORT int writeYAXHeader(YaxInfo *info, uint32_t count, int replace_first,
                              uint32_t first_offset, uint32_t first_length, uint32_t new_offset,
                              uint32_t new_length, uint32_t new_type, uint32_t has_sub_info) {
    if (info == nullptr || info->fp == nullptr || !yax::rowsPresent(info))
        return FileIO::kWriteFailure;
    const FileIO io{info->fp};
    const uint32_t new_meta = L::metaType(new_type, has_sub_info);
    yax::putMagic(io, L::kHeaderMagic);
    io.write32(L::kVersion);
    io.write32(count);
    uint32_t first_old = 0;
    if (replace_first) {
        yax::putRowWords(io, L::metaType(L::kFillerType, has_sub_info), first_offset, first_length);
        yax::putRowWords(io, new_meta, new_offset, new_length);
        first_old = 1;
    }
    for (uint32_t i = first_old; i < info->meta_count; ++i) yax::putRow(io, *info->meta_data[i]);
    if (!replace_first) yax::putRowWords(io, new_meta, new_offset, new_length);
    io.write32(L::headerSize(info->meta_count + 1));
    return yax::putMagic(io, L::kTailMagic);
}

// Same rows, with row 0 retyped (in the record too): used when a new block
// took entry 0's place exactly.
YAX_EXPORT int writeDummyYAXHeader(YaxInfo *info, uint32_t data_type, uint32_t has_sub_info) {
    if (info == nullptr || info->fp == nullptr || !yax::rowsPresent(info))
        return FileIO::kWriteFailure;
    const FileIO io{info->fp};
    yax::putMagic(io, L::kHeaderMagic);
    io.write32(L::kVersion);
    io.write32(info->meta_count);
    if (info->meta_count != 0) {
        info->meta_data[0]->meta_type = L::metaType(data_type, has_sub_info);
        for (uint32_t i = 0; i < info->meta_count; ++i) yax::putRow(io, *info->meta_data[i]);
    }
    io.write32(L::headerSize(info->meta_count));
    return yax::putMagic(io, L::kTailMagic);
}

YAX_EXPORT void writeDummyYAXData(FILE *fp, uint32_t size) {
    if (fp == nullptr) return;
    yax::putFillerBlock(FileIO{fp}, size);
}

// A complete one-entry trailer of exactly `size` bytes: a filler block of
// size - 32 and a one-row header and tail. The row may carry the
// sub-information flag while the block never does.
YAX_EXPORT void writeDummyYAXDataHeader(FILE *fp, uint32_t size, uint32_t has_sub_info) {
    if (fp == nullptr) return;
    const FileIO io{fp};
    const uint32_t block = size - L::kOneRowTrailer;
    // Below 32 bytes the block size wraps; write only the filler head then
    // rather than gigabytes of zeros.
    yax::putFillerBlock(io, size >= L::kOneRowTrailer ? block : L::kFillerBlockHead);
    yax::putMagic(io, L::kHeaderMagic);
    io.write32(L::kVersion);
    io.write32(1);
    yax::putRowWords(io, L::metaType(L::kFillerType, has_sub_info), block, block);
    io.write32(L::headerSize(1));
    yax::putMagic(io, L::kTailMagic);
}

YAX_EXPORT YaxInfo *_generateYAXHeader(FILE *fp) {
    if (fp == nullptr) return nullptr;
    auto *info = static_cast<YaxInfo *>(_qcalloc(1, sizeof(YaxInfo)));
    if (info == nullptr) return nullptr;
    info->fp = fp;
    // Only the low word of the size is kept.
    info->file_size = static_cast<uint32_t>(_qlseek64(fp, 0, SEEK_END));
    info->version = L::kVersion;
    return info;
}

YAX_EXPORT YaxEntry *_generateYAXData(const void *data, uint32_t length, uint32_t data_type,
                                      uint32_t has_sub_info) {
    if (data == nullptr || length == 0) return nullptr;
    auto *entry = static_cast<YaxEntry *>(_qcalloc(1, sizeof(YaxEntry)));
    if (entry == nullptr) return nullptr;
    auto *copy = static_cast<unsigned char *>(_qmalloc(length));
    if (copy == nullptr) {
        _qfree(entry);
        return nullptr;
    }
    std::memcpy(copy, data, length);
    entry->data = copy;
    entry->data_length = length;
    entry->meta_type = L::metaType(data_type, has_sub_info);
    return entry;
}

// ---- headers after a cover replacement ----

// The header after a shorter cover: a filler row first (it names the gap in
// front of the first block), then the old rows, without row 0 when that row
// was the filler the new one swallowed.
YAX_EXPORT int FastCSamllCopyHeaderUpdate(YaxInfo *info, uint32_t count, uint32_t offset,
                                          uint32_t length, int skip_first) {
    if (info == nullptr || info->fp == nullptr || !yax::rowsPresent(info)) return 0;
    const FileIO io{info->fp};
    yax::putMagic(io, L::kHeaderMagic);
    io.write32(L::kVersion);
    io.write32(count);
    yax::putRowWords(io, L::metaType(L::kFillerType, 0), offset, length);
    for (uint32_t i = skip_first ? 1 : 0; i < info->meta_count; ++i)
        yax::putRow(io, *info->meta_data[i]);
    io.write32(L::headerSize(count));
    yax::putMagic(io, L::kTailMagic);
    return 1;
}

// The header after a longer cover, by case (see FastChangeOrgData). `last` is
// the last block the cover overwrote; blocks 0..last were moved behind the
// others (or lost, in case 1). Case 1 writes the parsed rows 1.. and repeats
// the last of them: the library always did, and readers of such a header
// have only ever looked at its first `count` rows.
YAX_EXPORT int FastCBigCopyHeaderUpdate(YaxInfo *info, uint32_t count, uint32_t offset,
                                        uint32_t length, uint32_t which, uint32_t last) {
    if (info == nullptr || info->fp == nullptr || !yax::rowsPresent(info)) return 0;
    const FileIO io{info->fp};
    const uint32_t n = info->meta_count;
    const uint32_t moved = last + 1;
    auto total = [&](uint32_t from, uint32_t to) {
        uint32_t sum = 0;
        for (uint32_t i = from; i < to && i < n; ++i) sum += info->meta_data[i]->length;
        return sum;
    };
    const uint32_t filler = L::metaType(L::kFillerType, 0);
    yax::putMagic(io, L::kHeaderMagic);
    io.write32(L::kVersion);
    io.write32(count);
    switch (which) {
    case 1:
        for (uint32_t i = 1; i < n; ++i) yax::putRow(io, *info->meta_data[i]);
        if (n >= 2)
            yax::putRow(io, *info->meta_data[n - 1]);
        else
            yax::putRowWords(io, 0, 0, 0);
        break;
    case 2:
        yax::putRowWords(io, filler, offset, length);
        for (uint32_t i = 1; i < n; ++i) yax::putRow(io, *info->meta_data[i]);
        break;
    case 3:
        writeCustomQDR(info, moved, 0, total(0, moved), total(moved, n));
        break;
    case 4:
        yax::putRowWords(io, filler, offset, length);
        writeCustomQDR(info, moved, 0, total(0, moved), total(moved, n));
        break;
    case 5:
        writeCustomQDR(info, moved, 1, 0, 0);
        break;
    case 6: {
        const uint32_t kept = total(1, last + 1);
        yax::putRowWords(io, filler, offset + kept, length);
        writeCustomQDR(info, moved, 1, kept, total(moved, n));
        break;
    }
    default:
        break;
    }
    io.write32(L::headerSize(count));
    yax::putMagic(io, L::kTailMagic);
    return 1;
}

}  // extern "C"
