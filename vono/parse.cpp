// The legacy audio (Vono) block at the end of a file or buffer: parsing it
// into a VonoInfo, reading its sound table and sound bytes, and the small
// writers that emit each piece of the block.
//
//   sound bytes ... | "VONO" version count (start end) x count | header size | "VONOBS"
//
// Parsing and the table read are written once over yax::FileIO / yax::BufIO;
// the file and buffer flavours log the same lines.
#include <cstring>

#include "container/layout.hpp"
#include "support/io.hpp"
#include "support/misrouted_write.hpp"
#include "yax_vono.h"

namespace yax {
namespace {

using namespace layout;

constexpr const char *kParseTag = "Vono::ParseVono";
constexpr const char *kReadTag = "Vono::ReadSoundData";

// Header sizes below this cannot hold a single sound pair.
constexpr uint32_t kMinHeaderSize = kHeaderFixed + 1;  // 13
// Versions from here on were written by a newer library than this one.
constexpr uint32_t kFirstRefusedVersion = 206;

// Where each flavour keeps its stream in the record.
inline void attach(VonoInfo *info, FileIO io) { info->fp = io.fp; }
inline void attach(VonoInfo *info, BufIO io) { info->buffer = io.h; }
inline FileIO streamOf(const VonoInfo *info, FileIO) { return FileIO{info->fp}; }
inline BufIO streamOf(const VonoInfo *info, BufIO) { return BufIO{info->buffer}; }

template <typename IO>
VonoInfo *parse(IO io) {
    if (!io.ok()) return nullptr;

    // A stream too short to end in the size word and "VONOBS" simply holds no
    // Vono data; it is answered silently, like any other missing tail.
    const int64_t probe = io.seek(0, SEEK_END);
    if (probe >= 0 && probe < kVonoTailProbe) return nullptr;

    if (io.seek(-static_cast<int64_t>(kVonoTailProbe), SEEK_END) < 0) {
        YAXLogE(kParseTag, "File Search Error");
        return nullptr;
    }
    uint32_t header_size = 0;
    io.read32(&header_size);
    unsigned char tail[sizeof kVonoTail] = {};
    if (io.read(tail, sizeof tail) <= 0 || std::memcmp(tail, kVonoTail, sizeof tail) != 0)
        return nullptr;  // no Vono data: not an error

    const int64_t size = io.seek(0, SEEK_END);
    if (size <= 0) {
        YAXLogE(kParseTag, "file search error %d\n", static_cast<int>(size));
        return nullptr;
    }
    if (header_size < kMinHeaderSize || header_size > size) {
        YAXLogE(kParseTag, "file has no suond OFFS");
        return nullptr;
    }
    if (io.seek(-(static_cast<int64_t>(header_size) + kVonoTailProbe), SEEK_END) < 0) {
        YAXLogE(kParseTag, "File Search Error");
        return nullptr;
    }
    unsigned char head[sizeof kVonoHead] = {};
    uint32_t version = 0;
    io.read(head, sizeof head);
    io.read32(&version);
    if (std::memcmp(head, kVonoHead, sizeof head) != 0) {
        YAXLogE(kParseTag, "file has no suond FSIG");
        return nullptr;
    }
    // The limit is deliberately 206, not the written 105: blocks up to 205
    // stay readable.
    if (version >= kFirstRefusedVersion) {
        YAXLogE(kParseTag,
                "the source file has YAX data but current YAX version is too old to parse the "
                "source file");
        return nullptr;
    }

    auto *info = static_cast<VonoInfo *>(_qcalloc(1, sizeof(VonoInfo)));
    if (info == nullptr) return nullptr;
    info->valid = 1;
    // The block's positions are 32-bit; a larger file still compares safely.
    info->file_size = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
    info->header_size = header_size;
    info->version = version;
    attach(info, io);
    return info;  // the stream now stands on the count word
}

// Reads the count and the sound table from where the parse left the stream.
template <typename IO>
int readTable(VonoInfo *info) {
    if (info == nullptr) {
        YAXLogE(kParseTag, "Wrong vono_info");
        return 0;
    }
    if (info->valid != 1) {
        YAXLogE(kParseTag, "Vono validation failed");
        return 0;
    }
    const IO io = streamOf(info, IO{});
    if (!io.ok()) {
        YAXLogE(kParseTag, "File doesn't exist");
        return 0;
    }
    uint32_t n = 0;
    io.read32(&n);
    // The bound adds the header size and the whole block length (which
    // contains the header again); files have always been judged this way.
    // Summed in 64 bits so that no count can wrap past it.
    const uint64_t whole_block = kVonoFixed + 8ULL * n;
    if (info->header_size + whole_block > info->file_size) {
        info->block_length = static_cast<uint32_t>(whole_block);
        YAXLogE(kParseTag, "header is bigger then file -> that's not true!!");
        return 0;
    }
    info->block_length = static_cast<uint32_t>(whole_block);

    _qfree(info->offsets);
    info->offsets = nullptr;
    // At least one (zero) pair is kept, so that the first pair of a record
    // with no sounds reads as 0, 0 rather than past the allocation.
    const size_t words = n == 0 ? 2 : 2 * static_cast<size_t>(n);
    info->offsets = static_cast<uint32_t *>(_qmalloc(words * sizeof(uint32_t)));
    if (info->offsets == nullptr) {
        YAXLogE(kParseTag, "sound data _qmalloc fail");
        return 0;
    }
    // Read results are not looked at: words past the end stay 0. Reading
    // stops at the end so that a count larger than the stream costs nothing.
    for (uint32_t i = 0; i < 2 * n; ++i) {
        if (io.read32(&info->offsets[i]) <= 0) break;
    }
    info->count = n;
    return 1;
}

template <typename IO>
int readSound(IO io, uint32_t start, uint32_t length, void *dest) {
    if (!io.ok() || (dest == nullptr && length != 0)) return 0;
    if (io.seek(start, SEEK_SET) < 0) {
        YAXLogE(kReadTag, "File Search error");
        return 0;
    }
    io.read(dest, length);  // how much arrived is not looked at
    return 1;
}

int freeRecord(VonoInfo *info) {
    if (info == nullptr) return 0;
    _qfree(info->offsets);
    _qfree(info);
    return 1;
}

// ---- the block writers ----

template <typename IO, typename MarkerWriter>
int writeHeader(IO io, MarkerWriter marker) {
    int r = marker(kVonoHead, sizeof kVonoHead);
    io.write32(kVersion);
    return r;
}

template <typename IO>
int writeCount(IO io, uint32_t n) {
    io.write32(n);
    return 0;
}

template <typename IO>
int writeTable(IO io, const uint32_t *table, uint32_t n) {
    if (table == nullptr) return 0;
    for (uint64_t i = 0; i < 2ULL * n; ++i) io.write32(table[i]);
    return 0;
}

template <typename IO>
int writePair(IO io, uint32_t start, uint32_t end) {
    io.write32(start);
    io.write32(end);
    return 0;
}

template <typename IO>
int writeTailer(IO io, uint32_t n) {
    io.write32(kHeaderFixed + 8 * n);
    return io.write(kVonoTail, sizeof kVonoTail);
}

// A file writer given no stream fails the way a failed write does, without
// touching anything.
template <typename Fn>
int withFile(FILE *fp, Fn fn) {
    return fp == nullptr ? FileIO::kWriteFailure : fn(FileIO{fp});
}

}  // namespace
}  // namespace yax

extern "C" {

// ---- parsing ----

YAX_EXPORT VonoInfo *ParseVono(const char *path) {
    if (path == nullptr) return nullptr;
    FILE *fp = _qfopen(path, "rb");
    if (fp == nullptr) {
        YAXLogE(yax::kParseTag, "File Open Error");
        return nullptr;
    }
    VonoInfo *info = ParseVonoFP(fp);
    if (info == nullptr) _qfclose(fp);
    return info;
}

YAX_EXPORT VonoInfo *ParseVonoFP(FILE *fp) { return yax::parse(yax::FileIO{fp}); }

YAX_EXPORT VonoInfo *ParseVonoBuffer(YAXBUFFER *buffer) { return yax::parse(yax::BufIO{buffer}); }

YAX_EXPORT int ParseVonoSound(VonoInfo *info) { return yax::readTable<yax::FileIO>(info); }

YAX_EXPORT int ParseVonoSoundBufferApi(VonoInfo *info) { return yax::readTable<yax::BufIO>(info); }

YAX_EXPORT int ReadSoundData(FILE *fp, uint32_t start, uint32_t length, void *dest) {
    return yax::readSound(yax::FileIO{fp}, start, length, dest);
}

YAX_EXPORT int ReadSoundDataBufferApi(YAXBUFFER *buffer, uint32_t start, uint32_t length,
                                      void *dest) {
    return yax::readSound(yax::BufIO{buffer}, start, length, dest);
}

// ---- releasing ----

YAX_EXPORT int DestroyVono(VonoInfo *info) {
    if (info == nullptr) return 0;
    if (info->fp != nullptr) {
        _qfclose(info->fp);
        info->fp = nullptr;
    }
    return yax::freeRecord(info);
}

YAX_EXPORT int DestroyVonoFP(VonoInfo *info) { return yax::freeRecord(info); }

YAX_EXPORT int DestroyVonoBuffer(VonoInfo *info) { return yax::freeRecord(info); }

YAX_EXPORT int _destroyVONODATA(VonoInfo *info) { return DestroyVono(info); }

// ---- fully parsed records ----

YAX_EXPORT VonoInfo *_checkAudioInImageFile(const char *path) {
    VonoInfo *info = ParseVono(path);
    if (info == nullptr) return nullptr;
    if (ParseVonoSound(info) == 0) {
        DestroyVono(info);
        return nullptr;
    }
    return info;
}

YAX_EXPORT VonoInfo *_checkAudioInImageFP(FILE *fp) {
    VonoInfo *info = ParseVonoFP(fp);
    if (info == nullptr) return nullptr;
    if (ParseVonoSound(info) == 0) {
        DestroyVono(info);  // closes the caller's stream too; callers rely on it
        return nullptr;
    }
    return info;
}

YAX_EXPORT VonoInfo *_checkAudioInImageBuffer(YAXBUFFER *buffer) {
    VonoInfo *info = ParseVonoBuffer(buffer);
    if (info == nullptr) return nullptr;
    // The table is read with the file form, which finds no file in a buffer
    // record: this check never accepts a buffer. Callers depend on that.
    if (ParseVonoSound(info) == 0) {
        DestroyVono(info);
        return nullptr;
    }
    return info;
}

YAX_EXPORT uint32_t _getAudioCountInImageFile(VonoInfo *info) {
    return info == nullptr ? 0 : info->count;
}

YAX_EXPORT VONOOFFSET *_getAudioInImageFile(VonoInfo *info) {
    if (info == nullptr || info->offsets == nullptr || info->count == 0) return nullptr;
    const uint32_t start = info->offsets[0];
    const uint32_t end = info->offsets[1];
    if (start == 0 || end == start || start > info->file_size || end > info->file_size)
        return nullptr;
    auto *p = static_cast<VONOOFFSET *>(_qcalloc(1, sizeof(VONOOFFSET)));
    if (p == nullptr) return nullptr;
    p->offset = start;
    p->length = end - start;
    return p;
}

YAX_EXPORT void _destroyVONOOFFSET(VONOOFFSET *p) { _qfree(p); }

// ---- writers on a file ----

YAX_EXPORT int WriteSoundHeader(FILE *fp) {
    return yax::withFile(fp, [](yax::FileIO io) {
        return yax::writeHeader(io, [io](const void *m, uint32_t n) { return io.write(m, n); });
    });
}

YAX_EXPORT int WriteSoundCount(FILE *fp, uint32_t n) {
    return yax::withFile(fp, [n](yax::FileIO io) { return yax::writeCount(io, n); });
}

YAX_EXPORT int WriteSoundDataBuffer(FILE *fp, const uint32_t *table, uint32_t n) {
    return yax::withFile(fp, [=](yax::FileIO io) { return yax::writeTable(io, table, n); });
}

YAX_EXPORT int WriteSoundData(FILE *fp, uint32_t start, uint32_t end) {
    return yax::withFile(fp, [=](yax::FileIO io) { return yax::writePair(io, start, end); });
}

YAX_EXPORT int WriteSoundTailer(FILE *fp, uint32_t n) {
    return yax::withFile(fp, [n](yax::FileIO io) { return yax::writeTailer(io, n); });
}

// ---- writers on a buffer stream ----

YAX_EXPORT int WriteSoundHeaderBufferApi(YAXBUFFER *buffer) {
    // The head marker has always gone to the file writer, even here: it never
    // reaches the buffer, and the result is the file writer's failure.
    return yax::writeHeader(yax::BufIO{buffer},
                            [](const void *, uint32_t n) { return yax::fileWriteOnBuffer(n); });
}

YAX_EXPORT int WriteSoundCountBufferApi(YAXBUFFER *buffer, uint32_t n) {
    return yax::writeCount(yax::BufIO{buffer}, n);
}

YAX_EXPORT int WriteSoundDataBufferBufferApi(YAXBUFFER *buffer, const uint32_t *table,
                                             uint32_t n) {
    return yax::writeTable(yax::BufIO{buffer}, table, n);
}

YAX_EXPORT int WriteSoundDataBufferApi(YAXBUFFER *buffer, uint32_t start, uint32_t end) {
    return yax::writePair(yax::BufIO{buffer}, start, end);
}

YAX_EXPORT int WriteSoundTailerBufferApi(YAXBUFFER *buffer, uint32_t n) {
    return yax::writeTailer(yax::BufIO{buffer}, n);
}

}  // extern "C"
