// Reading what the table rows do not hold: each entry's name and
// sub-information length from its block head, the positions and lengths of
// sub-information and payload, and the bytes themselves; and finding an
// entry by name in a query record.
#include <cstring>

#include "container/layout.hpp"
#include "support/io.hpp"
#include "support/read_window.hpp"
#include "yax_container.h"
#include "yax_support.h"

namespace yax {
namespace {

using namespace layout;

constexpr const char *kNameTag = "YAX::_getNameOfData";
constexpr const char *kAllNamesTag = "YAX::getAllNameOfDataList";  // both flavours
constexpr const char *kReadTag = "YAXDecoder::readDataOfIndex";
constexpr const char *kIndexTag = "YAXAPIs::_getIndexOfName";

// The seek before a block head has always been judged by the low 32 bits of
// the returned position on a file (a hit on a multiple of 4 GiB counts as a
// failure, a refused seek passes) and by the plain position on a buffer.
struct FileFlavour {
    using IO = FileIO;
    static IO io(const YaxInfo *info) { return IO{info->fp}; }
    static bool hasStream(const YaxInfo *info) { return info->fp != nullptr; }
    static constexpr const char *kNoStream = "fp NULL";
    static bool seekFailed(int64_t pos) { return static_cast<uint32_t>(pos) == 0; }
};

struct BufferFlavour {
    using IO = BufIO;
    static IO io(const YaxInfo *info) { return IO{info->handle}; }
    static bool hasStream(const YaxInfo *info) { return info->handle != nullptr; }
    static constexpr const char *kNoStream = "handle NULL";
    static bool seekFailed(int64_t pos) { return pos == 0; }
};

// ---- names ----------------------------------------------------------------

template <typename Flavour, typename IO>
int readNameWith(YaxInfo *info, uint32_t index, IO &io) {
    if (info == nullptr) {
        YAXLogE(kNameTag, "YAX_info NULL");
        return 0;
    }
    if (index >= info->meta_count) {
        YAXLogE(kNameTag, "index false");
        return 0;
    }
    if (!Flavour::hasStream(info)) {
        YAXLogE(kNameTag, Flavour::kNoStream);
        return 0;
    }
    if (info->file_size <= 0) {
        YAXLogE(kNameTag, "file_size <= 0");
        return 0;
    }
    if (info->meta_data == nullptr) {
        YAXLogE(kNameTag, "meta_data NULL");
        return 0;
    }
    YaxEntry *entry = info->meta_data[index];
    // A row the buffer list left empty has no block to read.
    if (entry == nullptr || entry->offset == 0) {
        YAXLogE(kNameTag, "start_offset <= 0");
        return 0;
    }

    // A second read replaces the name; until it succeeds the entry has none.
    if (entry->name != nullptr) {
        _qfree(entry->name);
        entry->name = nullptr;
        entry->name_length = 0;
    }

    uint32_t back = 0;
    if (__builtin_add_overflow(info->header_offset, entry->offset, &back)) {
        YAXLogE(kNameTag, "data_start_position is larger than header_offset, abnormal operation");
        return 0;
    }
    // Block start + 4: the name length field.
    const int64_t pos = io.seek(-(static_cast<int64_t>(back) - kWord), SEEK_END);
    if (Flavour::seekFailed(pos)) {
        YAXLogE(kNameTag, "File System Error %d\n ", 0);
        return 0;
    }

    uint32_t name_length = 0;
    io.read32(&name_length);
    if (name_length == 0 || name_length > kMaxNameLength) {
        YAXLogE(kNameTag, "name length is wrong : %ubyte", name_length);
        return 0;
    }
    if (entry->has_sub_info) {
        uint32_t sub_info_length = 0;
        io.read32(&sub_info_length);
        entry->sub_info_length = sub_info_length;
        if (sub_info_length == 0) {
            YAXLogE(kNameTag, "sub data read size <= 0");
            return 0;
        }
    }

    auto *name = static_cast<char *>(_qmalloc(name_length + 1));
    if (name == nullptr) return 0;
    entry->name = name;
    entry->name_length = name_length;
    // A short read leaves zeros behind; the name is cut there.
    io.read(name, name_length);
    name[name_length] = '\0';
    return 1;
}

template <typename Flavour>
int readName(YaxInfo *info, uint32_t index) {
    // the refusals come first; a missing record has no stream to name
    auto io = info != nullptr ? Flavour::io(info) : typename Flavour::IO{nullptr};
    return readNameWith<Flavour>(info, index, io);
}

template <typename Flavour>
int readAllNames(YaxInfo *info) {
    if (info == nullptr) {
        YAXLogE(kAllNamesTag, "YAX_info NULL!");
        return 0;
    }
    if (info->meta_count == 0) {
        YAXLogE(kAllNamesTag, "meta_count <= 0");
        return 0;
    }
    if (!Flavour::hasStream(info)) {
        YAXLogE(kAllNamesTag, Flavour::kNoStream);
        return 0;
    }
    if (info->file_size <= 0) {
        YAXLogE(kAllNamesTag, "file_size <= 0");
        return 0;
    }
    if (info->meta_data == nullptr) {
        YAXLogE(kAllNamesTag, "meta_data NULL");
        return 0;
    }
    // A file's name heads are read through one small window (see
    // read_window.hpp): a long table costs a few reads instead of three per
    // row. A buffer is read in place.
    auto readAll = [info](auto &io) {
        for (uint32_t i = 0; i < info->meta_count; ++i) {
            if (readNameWith<Flavour>(info, i, io) == 0) {
                YAXLogE(kAllNamesTag, "%dth data has no name!", static_cast<int>(i));
                return 0;
            }
        }
        return 1;
    };
    if constexpr (!Flavour::IO::kIsBuffer) {
        ReadWindow window(info->fp);
        if (window.usable()) return readAll(window);
    }
    auto io = Flavour::io(info);
    return readAll(io);
}

// ---- positions --------------------------------------------------------------

// The offset functions and readDataOfIndex work on whichever stream the
// record holds: a file record reads through fp, a buffer record through its
// handle.
bool hasAnyStream(const YaxInfo *info) { return info->fp != nullptr || info->handle != nullptr; }

void ensureName(YaxInfo *info, uint32_t index) {
    if (info->meta_data[index]->name_length != 0) return;
    if (info->fp != nullptr)
        _getNameOfData(info, index);
    else
        _getNameOfDataBuffer(info, index);
}

// The refusals shared by both offset functions; none of them logs.
YaxEntry *usableEntry(YaxInfo *info, uint32_t index) {
    if (info == nullptr || info->meta_count == 0 || !hasAnyStream(info) ||
        index >= info->meta_count || info->file_size < 1 || info->meta_data == nullptr)
        return nullptr;
    YaxEntry *entry = info->meta_data[index];
    if (entry == nullptr || entry->offset == 0 || entry->length == 0) return nullptr;
    return entry;
}

int fail(int64_t *position, int64_t *length) {
    if (position) *position = 0;
    if (length) *length = 0;
    return 0;
}

int subInfoOffset(YaxInfo *info, uint32_t index, int64_t *position, int64_t *length) {
    YaxEntry *entry = usableEntry(info, index);
    if (entry == nullptr || entry->has_sub_info == 0) return 0;
    ensureName(info, index);
    // Block start + 12 (type, name length, sub-information length) + name.
    const int64_t pos = info->file_size + kBlockFixed + kSubInfoField -
                        static_cast<int64_t>(info->header_offset) - entry->offset +
                        entry->name_length;
    const int64_t len = entry->sub_info_length;
    // A row offset reaching before the start of the file locates nothing.
    if (len == 0 || pos < 0 || pos + len > info->file_size) return fail(position, length);
    if (position) *position = pos;
    if (length) *length = len;
    return 1;
}

int payloadOffset(YaxInfo *info, uint32_t index, int64_t *position, int64_t *length) {
    YaxEntry *entry = usableEntry(info, index);
    if (entry == nullptr) return 0;
    ensureName(info, index);
    int64_t head = kBlockFixed + static_cast<int64_t>(entry->name_length);
    if (entry->sub_info_length != 0) {
        int64_t sub_pos = 0, sub_len = 0;
        if (subInfoOffset(info, index, &sub_pos, &sub_len) == 0) return fail(position, length);
        head += kSubInfoField + static_cast<int64_t>(entry->sub_info_length);
    }
    const int64_t pos = info->file_size - static_cast<int64_t>(info->header_offset) -
                        entry->offset + head;
    const int64_t len = static_cast<int64_t>(entry->length) - head;
    if (len < 1 || pos < 0 || pos + len > info->file_size) return fail(position, length);
    if (position) *position = pos;
    if (length) *length = len;
    return 1;
}

// ---- bytes ------------------------------------------------------------------

// One allocation of exactly the located length, handed to the caller at once,
// then one seek from the start and one read.
template <typename Flavour>
int readRange(YaxInfo *info, int64_t position, int64_t length, unsigned char **out) {
    auto *bytes = static_cast<unsigned char *>(_qmalloc(static_cast<size_t>(length)));
    if (bytes == nullptr) return 0;
    *out = bytes;
    auto io = Flavour::io(info);
    if (Flavour::seekFailed(io.seek(position, SEEK_SET))) {
        YAXLogE(kReadTag, "File Search Error");
        return 0;
    }
    if (io.read(bytes, static_cast<uint32_t>(length)) <= 0) {
        YAXLogE(kReadTag, "File Read Error");
        return 0;
    }
    return 1;
}

template <typename Flavour>
int readEntry(YaxInfo *info, uint32_t index, unsigned char **data, unsigned char **sub_info) {
    int64_t pos = 0, len = 0;
    if (sub_info != nullptr) {
        if (readSubDataInfoOfDataOffset(info, index, &pos, &len) == 0) {
            YAXLogE(kReadTag, "SubData readDataOfIndexOffset Fail");
            return 0;
        }
        if (readRange<Flavour>(info, pos, len, sub_info) == 0) return 0;
    }
    if (data == nullptr) return 1;
    if (readDataOfIndexOffset(info, index, &pos, &len) == 0) {
        YAXLogE(kReadTag, "Data readDataOfIndexOffset Fail");
        return 0;
    }
    return readRange<Flavour>(info, pos, len, data);
}

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT int _getNameOfData(YaxInfo *info, uint32_t index) {
    return yax::readName<yax::FileFlavour>(info, index);
}

YAX_EXPORT int _getNameOfDataBuffer(YaxInfo *info, uint32_t index) {
    return yax::readName<yax::BufferFlavour>(info, index);
}

YAX_EXPORT int getAllNameOfDataList(YaxInfo *info) {
    return yax::readAllNames<yax::FileFlavour>(info);
}

YAX_EXPORT int getAllNameOfDataListBuffer(YaxInfo *info) {
    return yax::readAllNames<yax::BufferFlavour>(info);
}

YAX_EXPORT int readSubDataInfoOfDataOffset(YaxInfo *info, uint32_t index, int64_t *position,
                                           int64_t *length) {
    return yax::subInfoOffset(info, index, position, length);
}

YAX_EXPORT int readDataOfIndexOffset(YaxInfo *info, uint32_t index, int64_t *position,
                                     int64_t *length) {
    return yax::payloadOffset(info, index, position, length);
}

YAX_EXPORT int readDataOfIndex(YaxInfo *info, uint32_t index, unsigned char **data,
                               unsigned char **sub_info) {
    if (info == nullptr) {
        YAXLogE(yax::kReadTag, "YAX_info NULL");
        return 0;
    }
    if (info->fp != nullptr)
        return yax::readEntry<yax::FileFlavour>(info, index, data, sub_info);
    if (info->handle != nullptr)
        return yax::readEntry<yax::BufferFlavour>(info, index, data, sub_info);
    YAXLogE(yax::kReadTag, "fp null");
    return 0;
}

YAX_EXPORT uint32_t _getIndexOfName(YAXDATA *yaxdata, const char *name) {
    using yax::kIndexTag;
    constexpr uint32_t kNotFound = 0xFFFFFFFFu;
    if (name == nullptr) {
        YAXLogE(kIndexTag, "name null");
        return kNotFound;
    }
    if (yaxdata == nullptr) {
        YAXLogE(kIndexTag, "YAXdata null");
        return kNotFound;
    }
    if (yaxdata->type == 0) {
        YAXLogE(kIndexTag, "type null");
        return kNotFound;
    }
    if (yaxdata->YAX_name_list == nullptr) {
        YAXLogE(kIndexTag, "YAX_name_list null");
        return kNotFound;
    }
    for (uint32_t i = 0; i < yaxdata->count; ++i) {
        const char *candidate = yaxdata->YAX_name_list[i];
        if (candidate == nullptr) {
            YAXLogE(kIndexTag, "%d YAX_name null", static_cast<int>(i));
            return kNotFound;
        }
        if (std::strcmp(candidate, name) == 0) return i;  // the first match wins
    }
    return kNotFound;
}

}  // extern "C"
