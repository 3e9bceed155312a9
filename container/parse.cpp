// Parsing a trailer into a YaxInfo: check the tail and header, then read the
// entry table. Parse and list are each written once over the file and buffer
// streams; the flavours' differences are spelled out in the traits below.
#include <cstring>

#include "container/layout.hpp"
#include "support/bytes.hpp"
#include "support/io.hpp"
#include "yax_container.h"
#include "yax_support.h"

namespace yax {
namespace {

using namespace layout;

constexpr const char *kParseTag = "YAX::ParseYAX_FP";  // the buffer parse logs under it too
constexpr const char *kListTag = "YAX::ParseYAXList";
constexpr const char *kMp4Tag = "YAX::checkSignatureMP4Tag";

// Distance from the end of the file back to the legacy audio block's length
// word, and what a legacy block adds to the tail distance beyond its length:
// the 10 bytes of length and "VONOBS" plus the trailer's own 8-byte tail.
constexpr int64_t kVonoLengthProbe = kVonoTailProbe;
constexpr int64_t kVonoTailExtra = kVonoTailProbe + kTailSize;

// ---- flavours -------------------------------------------------------------

struct FileFlavour {
    using IO = FileIO;
    static IO io(const YaxInfo *info) { return IO{info->fp}; }
    static bool hasStream(const YaxInfo *info) { return info->fp != nullptr; }
    static void attach(YaxInfo *info, FILE *fp) { info->fp = fp; }
    // The file list stops at an unusable table allocation or row.
    static constexpr bool kCheckTable = true;
    static constexpr bool kStopAtBadRow = true;
    static int addRow(YaxInfo *info, uint32_t offset, uint32_t length, uint32_t meta_type) {
        return _addData(info, offset, length, meta_type);
    }
    static int mp4Tag(YaxInfo *info) { return checkSignatureMP4Tag(info); }
};

struct BufferFlavour {
    using IO = BufIO;
    static IO io(const YaxInfo *info) { return IO{info->handle}; }
    static bool hasStream(const YaxInfo *info) { return info->handle != nullptr; }
    static void attach(YaxInfo *info, YAXBUFFER *handle) { info->handle = handle; }
    // The buffer list has never looked at the table allocation nor at a row's
    // result: a refused row simply stays empty and listing goes on. (A failed
    // table allocation still ends the list here rather than writing through
    // a null table.)
    static constexpr bool kCheckTable = false;
    static constexpr bool kStopAtBadRow = false;
    static int addRow(YaxInfo *info, uint32_t offset, uint32_t length, uint32_t meta_type) {
        return _addDataBuffer(info, offset, length, meta_type);
    }
    static int mp4Tag(YaxInfo *info) { return checkSignatureMP4TagBuffer(info); }
};

// ---- parse ----------------------------------------------------------------

template <typename Flavour, typename Stream>
YaxInfo *parse(Stream stream, int signature) {
    typename Flavour::IO io{stream};

    int64_t tail_distance = kTailSize;
    if (signature == SIGNATURE_VONO || signature == SIGNATURE_VONO_YAX) {
        int64_t pos = io.seek(-kVonoLengthProbe, SEEK_END);
        if (pos <= 0) {
            YAXLogE(kParseTag, "File Search Error %lld", static_cast<long long>(pos));
            return nullptr;
        }
        uint32_t vono_length = 0;
        io.read32(&vono_length);
        tail_distance = static_cast<int64_t>(vono_length) + kVonoTailExtra;
    }

    const int64_t file_size = io.seek(0, SEEK_END);
    if (file_size <= 0) {
        YAXLogE(kParseTag, "File Search Error");
        return nullptr;
    }

    if (io.seek(-tail_distance, SEEK_END) <= 0) {
        YAXLogE(kParseTag, "File Search Error");
        return nullptr;
    }
    uint32_t header_size = 0;
    unsigned char magic[4] = {};
    io.read32(&header_size);
    io.read(magic, sizeof magic);
    if (std::memcmp(magic, kTailMagic, sizeof magic) != 0) return nullptr;

    if (header_size < kHeaderFixed + 1 || header_size > file_size) {
        YAXLogE(kParseTag, "file has no suond OFFS");
        return nullptr;
    }

    // The header start must lie inside the file; a distance that does not fit
    // the record's 32-bit field cannot name a real header either.
    const int64_t header_offset = static_cast<int64_t>(header_size) + tail_distance;
    if (header_offset > static_cast<int64_t>(UINT32_MAX) ||
        io.seek(-header_offset, SEEK_END) <= 0) {
        YAXLogE(kParseTag, "File Search Error");
        return nullptr;
    }
    uint32_t version = 0;
    std::memset(magic, 0, sizeof magic);
    io.read(magic, sizeof magic);
    io.read32(&version);
    if (std::memcmp(magic, kHeaderMagic, sizeof magic) != 0) {
        YAXLogE(kParseTag, "file has no suond FSIG");
        return nullptr;
    }
    if (version > kMaxReadableVersion) {
        YAXLogE(kParseTag,
                "the source file has YAX data but current YAX version is too old to parse the "
                "source file");
        return nullptr;
    }

    auto *info = static_cast<YaxInfo *>(_qcalloc(1, sizeof(YaxInfo)));
    if (info == nullptr) return nullptr;
    info->valid = 1;
    info->header_offset = static_cast<uint32_t>(header_offset);
    info->file_size = file_size;
    info->version = version;
    Flavour::attach(info, stream);
    // The stream now stands on the header's count field, where the list
    // call picks up.
    return info;
}

// ---- list -----------------------------------------------------------------

template <typename Flavour>
int list(YaxInfo *info) {
    if (info == nullptr) {
        YAXLogE(kListTag, "Wrong YAX_info");
        return 0;
    }
    if (info->valid != 1) {
        YAXLogE(kListTag, "YAX validation failed");
        return 0;
    }
    if (!Flavour::hasStream(info)) {
        YAXLogE(kListTag, "File doesn't exist");
        return 0;
    }
    auto io = Flavour::io(info);

    uint32_t count = 0;
    io.read32(&count);
    if (count == 0) {
        YAXLogE(kListTag, "there is no data");
        return 0;
    }
    // The rows are counted twice here (once inside header_offset already);
    // readers have always refused a trailer with little host content before
    // it. The 64-bit sum also keeps an absurd count from reaching the
    // allocation below.
    const int64_t needed = static_cast<int64_t>(info->header_offset) +
                           static_cast<int64_t>(kRowSize) * count + 20;
    if (info->file_size < needed) {
        YAXLogE(kListTag, "header is bigger then file -> that's not true!!");
        return 0;
    }

    if (info->meta_data != nullptr) _destroyYAXDataList(info);
    info->meta_count = count;
    info->cur_index = 0;
    info->meta_data = static_cast<YaxEntry **>(_qcalloc(count, sizeof(YaxEntry *)));
    if (info->meta_data == nullptr) {
        if (Flavour::kCheckTable) YAXLogE(kListTag, "YAX_info->meta_data is NULL!!");
        return 0;
    }

    // A file's rows come in batches of whole rows, one read each: a table of
    // a thousand rows is a few reads, not three thousand. Bytes a short read
    // did not deliver count as 0, as they do for a single word. A buffer
    // read is all or nothing, so there each word is read on its own.
    constexpr uint32_t kBatchRows = 512;
    unsigned char rows[kBatchRows * kRowSize];
    uint32_t batched = 0;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t meta_type = 0, offset = 0, length = 0;
        if constexpr (Flavour::IO::kIsBuffer) {
            io.read32(&meta_type);
            io.read32(&offset);
            io.read32(&length);
        } else {
            if (i == batched) {
                const uint32_t n = count - i < kBatchRows ? count - i : kBatchRows;
                std::memset(rows, 0, n * kRowSize);
                io.read(rows, n * kRowSize);
                batched += n;
            }
            const unsigned char *row = rows + (i % kBatchRows) * kRowSize;
            meta_type = get32(row), offset = get32(row + kWord), length = get32(row + 2 * kWord);
        }
        info->cur_index = i;
        const int added = Flavour::addRow(info, offset, length, meta_type);
        if (Flavour::kStopAtBadRow && added == 0) {
            YAXLogE(kListTag, "YAX_info->meta_data[i] is NULL!!");
            _destroyYAXDataList(info);
            info->cur_index = 0;
            return 0;
        }
    }

    const int mp4 = Flavour::mp4Tag(info);
    const YaxEntry *first = info->meta_data[0];
    const int64_t first_offset = first != nullptr ? first->offset : 0;
    info->data_start_position = info->file_size - (static_cast<int64_t>(info->header_offset) +
                                                   first_offset + (mp4 ? kBoxHead : 0));
    info->cur_index = 0;
    return 1;
}

// ---- MP4 box head ---------------------------------------------------------

// The box head is recognised by "yaxd" in the 4 bytes before block 0. That
// position has always been computed in 32 bits; a seek to 0 or a refused seek
// means no box.
template <typename Flavour>
int hasMp4Box(YaxInfo *info) {
    if (info == nullptr || !Flavour::hasStream(info) || info->meta_data == nullptr ||
        info->meta_count == 0 || info->meta_data[0] == nullptr)
        return 0;
    auto io = Flavour::io(info);
    const uint32_t first_block = static_cast<uint32_t>(info->file_size) -
                                 (info->header_offset + info->meta_data[0]->offset);
    const uint32_t probe = first_block - kWord;
    if (io.seek(static_cast<int64_t>(probe), SEEK_SET) <= 0) return 0;
    unsigned char token[4] = {};
    if (io.read(token, sizeof token) <= 0) {
        YAXLogE(kMp4Tag, "File Read Error");
        return 0;
    }
    return std::memcmp(token, kMp4Token, sizeof token) == 0 ? 1 : 0;
}

// ---- rows -----------------------------------------------------------------

template <typename Flavour>
int addRow(YaxInfo *info, uint32_t offset, uint32_t length, uint32_t meta_type) {
    if (info == nullptr || !Flavour::hasStream(info) || offset == 0 || info->file_size < 1)
        return 0;
    // The cursor is the caller's business; a record without a table has
    // nowhere to put the row.
    if (info->meta_data == nullptr) return 0;
    auto *entry = static_cast<YaxEntry *>(_qcalloc(1, sizeof(YaxEntry)));
    if (entry == nullptr) return 0;
    entry->offset = offset;
    entry->length = length;
    entry->meta_type = meta_type;
    entry->has_sub_info = (meta_type & kSubInfoFlag) ? 1 : 0;
    info->meta_data[info->cur_index] = entry;
    return 1;
}

// Closes the file stream the record owns. A buffer stream is never closed
// here: it always stays its caller's, whichever destroy flavour releases the
// record (the buffer API releases its parses through the stream flavour).
int destroy(YaxInfo *info) {
    if (info == nullptr) return 0;
    if (info->fp != nullptr) {
        _qfclose(info->fp);
        info->fp = nullptr;
    }
    info->handle = nullptr;
    _destroyYAXDataList(info);
    _qfree(info);
    return 1;
}

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT YaxInfo *ParseYAX(const char *path, int signature) {
    FILE *fp = path != nullptr ? _qfopen(path, "r+b") : nullptr;
    if (fp == nullptr) {
        YAXLogE("YAX::ParseYAX", "File Open Error");
        return nullptr;
    }
    YaxInfo *info = ParseYAX_FP(fp, signature);
    if (info == nullptr) _qfclose(fp);
    return info;
}

YAX_EXPORT YaxInfo *ParseYAX_FP(FILE *fp, int signature) {
    if (fp == nullptr) return nullptr;
    return yax::parse<yax::FileFlavour>(fp, signature);
}

YAX_EXPORT YaxInfo *ParseYAX_Buffer(YAXBUFFER *handle, int signature) {
    if (handle == nullptr) return nullptr;
    return yax::parse<yax::BufferFlavour>(handle, signature);
}

YAX_EXPORT int getYAXList(YaxInfo *info) { return yax::list<yax::FileFlavour>(info); }

YAX_EXPORT int getYAXListBuffer(YaxInfo *info) { return yax::list<yax::BufferFlavour>(info); }

YAX_EXPORT int checkSignatureMP4Tag(YaxInfo *info) {
    return yax::hasMp4Box<yax::FileFlavour>(info);
}

YAX_EXPORT int checkSignatureMP4TagBuffer(YaxInfo *info) {
    return yax::hasMp4Box<yax::BufferFlavour>(info);
}

YAX_EXPORT int DestroyYAX(YaxInfo *info) { return yax::destroy(info); }

YAX_EXPORT int DestroyYAX_FP(YaxInfo *info) {
    if (info == nullptr) return 0;
    info->fp = nullptr;
    return yax::destroy(info);
}

YAX_EXPORT int DestroyYAX_Buffer(YaxInfo *info) {
    if (info == nullptr) return 0;
    info->handle = nullptr;
    return yax::destroy(info);
}

YAX_EXPORT int _addData(YaxInfo *info, uint32_t offset, uint32_t length, uint32_t meta_type) {
    return yax::addRow<yax::FileFlavour>(info, offset, length, meta_type);
}

YAX_EXPORT int _addDataBuffer(YaxInfo *info, uint32_t offset, uint32_t length,
                              uint32_t meta_type) {
    return yax::addRow<yax::BufferFlavour>(info, offset, length, meta_type);
}

// Rows are freed, their names are not: once a query record has taken the
// names over it is the one that frees them. The table pointer is cleared so
// that a later list or destroy cannot free it twice; the count stays.
YAX_EXPORT void _destroyYAXDataList(YaxInfo *info) {
    if (info == nullptr || info->meta_data == nullptr) return;
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        if (info->meta_data[i] != nullptr) {
            _destroyYAXData(info->meta_data[i]);
            info->meta_data[i] = nullptr;
        }
    }
    _qfree(info->meta_data);
    info->meta_data = nullptr;
}

YAX_EXPORT void _destroyYAXData(YaxEntry *entry) {
    if (entry == nullptr) return;
    entry->name = nullptr;
    _qfree(entry);
}

}  // extern "C"
