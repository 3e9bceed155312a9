// The public read side: open a file into a YAXDATA record, locate an entry's
// payload or sub-information by name or index, extract copies, list names of
// one data type, and the version functions.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "support/io.hpp"
#include "support/copy.hpp"

#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFFu;

// Parse modes by signature code 2, 3, 4: both legacy audio cases step over
// the audio tail the same way.
constexpr int kParseMode[] = {SIGNATURE_VONO, SIGNATURE_YAX, SIGNATURE_VONO};

char *copyString(const char *s) {
    const size_t n = std::strlen(s);
    auto *out = static_cast<char *>(_qmalloc(n + 1));
    if (out != nullptr) std::memcpy(out, s, n + 1);
    return out;
}

YAXDATA *openRecord(const char *path, const char *mode, const char *null_tag,
                    const char *open_tag) {
    if (path == nullptr) {
        YAXLogE(null_tag, "filename null");
        return nullptr;
    }
    FILE *fp = _qfopen(path, mode);
    if (fp == nullptr) {
        YAXLogE(open_tag, "File Open Error");
        return nullptr;
    }
    YAXDATA *record = checkYAXInFP(fp);
    if (record == nullptr) {
        _qfclose(fp);
        return nullptr;
    }
    record->filename = copyString(path);
    record->filename_size = record->filename != nullptr
                                ? static_cast<uint32_t>(std::strlen(path) + 1)
                                : 0;
    return record;
}

void releaseNames(YAXDATA *record) {
    _qfree(record->filename);
    record->filename = nullptr;
    record->filename_size = 0;
    if (record->YAX_name_list != nullptr) {
        for (uint32_t i = 0; i < record->count; ++i) _qfree(record->YAX_name_list[i]);
        _qfree(record->YAX_name_list);
        record->YAX_name_list = nullptr;
    }
    if (record->tonephoto_name_list != nullptr) {
        for (uint32_t i = 0; i < record->tonephoto_count; ++i)
            _qfree(record->tonephoto_name_list[i]);
        _qfree(record->tonephoto_name_list);
        record->tonephoto_name_list = nullptr;
    }
    record->tonephoto_count = 0;
}

// ---- records ------------------------------------------------------------------

// The parse calls of each flavour; a record made from a buffer differs from
// one made from a stream only in these.
template <typename IO>
struct RecordOps;

template <>
struct RecordOps<FileIO> {
    static unsigned int signature(const FileIO &io) { return getSignatureFP(io.fp); }
    static YaxInfo *parse(const FileIO &io, int mode) { return ParseYAX_FP(io.fp, mode); }
    static int list(YaxInfo *info) { return getYAXList(info); }
    static int names(YaxInfo *info) { return getAllNameOfDataList(info); }
    static int release(YaxInfo *info) { return DestroyYAX_FP(info); }
};

template <>
struct RecordOps<BufIO> {
    static unsigned int signature(const BufIO &io) { return getSignatureBuffer(io.h); }
    static YaxInfo *parse(const BufIO &io, int mode) { return ParseYAX_Buffer(io.h, mode); }
    static int list(YaxInfo *info) { return getYAXListBuffer(info); }
    static int names(YaxInfo *info) { return getAllNameOfDataListBuffer(info); }
    static int release(YaxInfo *info) { return DestroyYAX_Buffer(info); }
};

// A query record without a path: the parsed trailer, one name per row and
// the TonePhoto list. Null when there is no trailer or it cannot be read.
template <typename IO>
YAXDATA *parseRecord(const IO &io) {
    using Ops = RecordOps<IO>;
    if (!io.ok()) return nullptr;
    const unsigned int signature = Ops::signature(io);
    if (signature < SIGNATURE_VONO || signature > SIGNATURE_VONO_YAX) return nullptr;

    // A failed parse still goes through the list call, which reports it.
    YaxInfo *info = Ops::parse(io, kParseMode[signature - SIGNATURE_VONO]);
    if (Ops::list(info) != 1 || Ops::names(info) != 1) {
        Ops::release(info);
        return nullptr;
    }

    auto *record = static_cast<YAXDATA *>(_qcalloc(1, sizeof(YAXDATA)));
    char **names = record != nullptr && info->meta_count != 0
                       ? static_cast<char **>(_qcalloc(info->meta_count, sizeof(char *)))
                       : nullptr;
    if (names == nullptr) {
        _qfree(record);
        Ops::release(info);
        return nullptr;
    }
    record->type = 1;
    record->yax_info = info;
    record->count = info->meta_count;
    // From here on the record owns the names read into the rows.
    for (uint32_t i = 0; i < info->meta_count; ++i) names[i] = info->meta_data[i]->name;
    record->YAX_name_list = names;
    getTonePhotoInFile(record);
    record->filename = nullptr;
    record->filename_size = 0;
    return record;
}

template <typename IO>
void destroyRecord(YAXDATA *record) {
    if (record == nullptr) return;
    releaseNames(record);
    RecordOps<IO>::release(record->yax_info);
    _qfree(record);
}

// ---- position queries ---------------------------------------------------------

enum class Target { Payload, SubInfo };

bool locate(YAXDATA *record, uint32_t index, Target target, int64_t *position,
            int64_t *length) {
    if (record == nullptr || index >= record->count) return false;
    int64_t pos = 0, len = 0;
    const int found = target == Target::Payload
                          ? readDataOfIndexOffset(record->yax_info, index, &pos, &len)
                          : readSubDataInfoOfDataOffset(record->yax_info, index, &pos, &len);
    if (found == 0 || len < 1 || pos < 0) return false;
    *position = pos;
    *length = len;
    return true;
}

// The name walk of the position queries: null arguments give nothing
// silently; the rest, lines included, is the search's own.
uint32_t indexOf(YAXDATA *record, const char *name) {
    if (record == nullptr || name == nullptr) return kNotFound;
    return _getIndexOfName(record, name);
}

template <typename Record>
Record *makeRecord(YAXDATA *record, uint32_t index, Target target) {
    int64_t pos = 0, len = 0;
    if (!locate(record, index, target, &pos, &len)) return nullptr;
    auto *out = static_cast<Record *>(_qcalloc(1, sizeof(Record)));
    if (out == nullptr) return nullptr;
    // The 32-bit records keep the low 32 bits.
    out->offset = static_cast<decltype(out->offset)>(pos);
    out->length = static_cast<decltype(out->length)>(len);
    return out;
}

// Extraction seeks with the 32-bit position and does not look at the seek's
// or the read's result: a short read leaves zeros in the copy.
void readAt(const YaxInfo *info, int64_t position, unsigned char *dest, uint32_t length) {
    const int64_t pos32 = static_cast<uint32_t>(position);
    if (info->fp != nullptr) {
        _qlseek64(info->fp, pos32, SEEK_SET);
        _qfread(dest, length, info->fp);
    } else if (info->handle != nullptr) {
        _qbseek(info->handle, pos32, SEEK_SET);
        _qbread(dest, length, info->handle);
    }
}

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT YAXDATA *checkYAXInFile(const char *path) {
    return yax::openRecord(path, "r+b", "YAX::checkYAXInFile", "YAXAPIs");
}

YAX_EXPORT YAXDATA *checkYAXWithReadPM(const char *path) {
    return yax::openRecord(path, "rb", "YAX::checkYAXWithReadPM", "YAX::checkYAXWithReadPM");
}

YAX_EXPORT YAXDATA *checkYAXInFP(FILE *fp) {
    return yax::parseRecord(yax::FileIO{fp});
}

YAX_EXPORT YAXDATA *checkYAXInBuffer(YAXBUFFER *buffer) {
    return yax::parseRecord(yax::BufIO{buffer});
}

YAX_EXPORT YAXOFFSET *getYAXInFileByName(YAXDATA *yaxdata, const char *name) {
    return yax::makeRecord<YAXOFFSET>(yaxdata, yax::indexOf(yaxdata, name),
                                      yax::Target::Payload);
}

YAX_EXPORT YAXOFFSET *getYAXInFileByIndex(YAXDATA *yaxdata, uint32_t index) {
    return yax::makeRecord<YAXOFFSET>(yaxdata, index, yax::Target::Payload);
}

YAX_EXPORT YAXOFFSET64 *getYAXInFileByName64(YAXDATA *yaxdata, const char *name) {
    return yax::makeRecord<YAXOFFSET64>(yaxdata, yax::indexOf(yaxdata, name),
                                        yax::Target::Payload);
}

YAX_EXPORT YAXOFFSET64 *getYAXInFileByIndex64(YAXDATA *yaxdata, uint32_t index) {
    return yax::makeRecord<YAXOFFSET64>(yaxdata, index, yax::Target::Payload);
}

YAX_EXPORT YAXOFFSET *getYAXSubInfoInFileByName(YAXDATA *yaxdata, const char *name) {
    return yax::makeRecord<YAXOFFSET>(yaxdata, yax::indexOf(yaxdata, name),
                                      yax::Target::SubInfo);
}

YAX_EXPORT YAXOFFSET *getYAXSubInfoInFileByIndex(YAXDATA *yaxdata, uint32_t index) {
    return yax::makeRecord<YAXOFFSET>(yaxdata, index, yax::Target::SubInfo);
}

YAX_EXPORT YAXOFFSET64 *getYAXSubInfoInFileByName64(YAXDATA *yaxdata, const char *name) {
    return yax::makeRecord<YAXOFFSET64>(yaxdata, yax::indexOf(yaxdata, name),
                                        yax::Target::SubInfo);
}

YAX_EXPORT YAXOFFSET64 *getYAXSubInfoInFileByIndex64(YAXDATA *yaxdata, uint32_t index) {
    return yax::makeRecord<YAXOFFSET64>(yaxdata, index, yax::Target::SubInfo);
}

// Callers look the name up first; an absent name gives all ones rather than
// a type read from outside the table.
YAX_EXPORT uint32_t getYAXDataType(YAXDATA *yaxdata, const char *name) {
    const uint32_t index = _getIndexOfName(yaxdata, name);
    if (index == yax::kNotFound || index >= yaxdata->count || yaxdata->yax_info == nullptr ||
        yaxdata->yax_info->meta_data == nullptr || index >= yaxdata->yax_info->meta_count ||
        yaxdata->yax_info->meta_data[index] == nullptr)
        return yax::kNotFound;
    return _getDataType(yaxdata->yax_info->meta_data[index]->meta_type);
}

YAX_EXPORT char **getNameListByDataType(YAXDATA *yaxdata, uint32_t data_type, uint32_t *count) {
    if (yaxdata == nullptr) {
        YAXLogE("getNameListByDataType", "YAX_data null!!!\n");
        return nullptr;
    }
    const YaxInfo *info = yaxdata->yax_info;
    if (yaxdata->count == 0 || info == nullptr || info->meta_data == nullptr ||
        yaxdata->YAX_name_list == nullptr)
        return nullptr;
    const uint32_t rows = yaxdata->count < info->meta_count ? yaxdata->count : info->meta_count;
    auto matches = [&](uint32_t i) {
        return info->meta_data[i] != nullptr && yaxdata->YAX_name_list[i] != nullptr &&
               _getDataType(info->meta_data[i]->meta_type) == data_type;
    };
    uint32_t found = 0;
    for (uint32_t i = 0; i < rows; ++i) found += matches(i) ? 1 : 0;
    if (found == 0) return nullptr;

    auto **list = static_cast<char **>(_qcalloc(found, sizeof(char *)));
    if (list == nullptr) return nullptr;
    uint32_t k = 0;
    for (uint32_t i = 0; i < rows; ++i) {
        if (!matches(i)) continue;
        list[k] = yax::copyString(yaxdata->YAX_name_list[i]);
        if (list[k] == nullptr) {
            for (uint32_t j = 0; j < k; ++j) _qfree(list[j]);
            _qfree(list);
            return nullptr;
        }
        ++k;
    }
    if (count != nullptr) *count = found;
    return list;
}

YAX_EXPORT YAXDATA_UNIT *extractYAXDataFromFilebyIndex(YAXDATA *yaxdata, uint32_t index) {
    if (yaxdata == nullptr || yaxdata->type != 1 || index >= yaxdata->count) return nullptr;
    int64_t sub_pos = 0, sub_len = 0, pos = 0, len = 0;
    const bool has_sub =
        yax::locate(yaxdata, index, yax::Target::SubInfo, &sub_pos, &sub_len);
    if (!yax::locate(yaxdata, index, yax::Target::Payload, &pos, &len)) return nullptr;

    auto *unit = static_cast<YAXDATA_UNIT *>(_qcalloc(1, sizeof(YAXDATA_UNIT)));
    if (unit == nullptr) return nullptr;
    const YaxInfo *info = yaxdata->yax_info;
    if (has_sub) {
        unit->sub_info = static_cast<unsigned char *>(_qmalloc(static_cast<size_t>(sub_len)));
        if (unit->sub_info == nullptr) {
            destroyYAXDATA_UNIT(unit);
            return nullptr;
        }
        unit->sub_info_length = static_cast<uint32_t>(sub_len);
        yax::readAt(info, sub_pos, unit->sub_info, unit->sub_info_length);
    }
    unit->data = static_cast<unsigned char *>(_qmalloc(static_cast<size_t>(len)));
    if (unit->data == nullptr) {
        destroyYAXDATA_UNIT(unit);
        return nullptr;
    }
    unit->data_length = static_cast<uint32_t>(len);
    yax::readAt(info, pos, unit->data, unit->data_length);
    unit->data_type = _getDataType(info->meta_data[index]->meta_type);
    return unit;
}

YAX_EXPORT YAXDATA_UNIT *extractYAXDataFromFilebyName(YAXDATA *yaxdata, const char *name,
                                                      uint32_t name_length) {
    if (name == nullptr || name_length == 0) return nullptr;
    return extractYAXDataFromFilebyIndex(yaxdata, _getIndexOfName(yaxdata, name));
}

YAX_EXPORT int64_t yaxStreamYAXData(YAXDATA *yaxdata, uint32_t index, int part, FILE *out) {
    constexpr const char *tag = "YAXAPIs::yaxStreamYAXData";
    if (yaxdata == nullptr || out == nullptr || yaxdata->yax_info == nullptr ||
        yaxdata->yax_info->fp == nullptr) {
        YAXLogE(tag, "no file record or no output");
        return -1;
    }
    if (part != YAX_STREAM_PAYLOAD && part != YAX_STREAM_SUB_INFO) {
        YAXLogE(tag, "unknown part %d", part);
        return -1;
    }
    int64_t pos = 0, len = 0;
    const auto target = part == YAX_STREAM_PAYLOAD ? yax::Target::Payload : yax::Target::SubInfo;
    if (!yax::locate(yaxdata, index, target, &pos, &len)) {
        YAXLogE(tag, "entry %u has no such part", index);
        return -1;
    }
    FILE *in = yaxdata->yax_info->fp;
    struct stat st {};
    if (fstat(fileno(in), &st) != 0 || len > static_cast<int64_t>(st.st_size) - pos) {
        YAXLogE(tag, "entry %u lies outside the file", index);
        return -1;
    }
    std::fflush(out);
    if (_qlseek64(in, pos, SEEK_SET) != pos) return -1;
    const yax::CopyOutcome r = yax::copyFd(fileno(out), fileno(in), static_cast<uint64_t>(len));
    if (r.stop != yax::CopyStop::kDone) {
        YAXLogE(tag, "copied %lld of %lld bytes", static_cast<long long>(r.copied),
                static_cast<long long>(len));
        return -1;
    }
    return len;
}

YAX_EXPORT int64_t yaxStreamYAXDataByName(YAXDATA *yaxdata, const char *name, int part,
                                          FILE *out) {
    return yaxStreamYAXData(yaxdata, yax::indexOf(yaxdata, name), part, out);
}

YAX_EXPORT char *getYAXVersion(void) {
    auto *text = static_cast<char *>(_qmalloc(4));
    if (text != nullptr) std::snprintf(text, 4, "%d", YAX_VERSION);
    return text;
}

YAX_EXPORT void printYAXVersion(void) {
    constexpr const char *kTag = "YAX Version Info";
    YAXLogD(kTag, "Velta YAX Library Version\n");
    YAXLogD(kTag, "Version\t : %d\n", YAX_VERSION);
    YAXLogD(kTag, "Build Date\t : %s %s\n", __DATE__, __TIME__);
}

YAX_EXPORT void destroyYAXDATA(YAXDATA *yaxdata) {
    if (yaxdata == nullptr) return;
    yax::releaseNames(yaxdata);
    DestroyYAX(yaxdata->yax_info);
    _qfree(yaxdata);
}

YAX_EXPORT void destroyYAXDATA_FP(YAXDATA *yaxdata) {
    yax::destroyRecord<yax::FileIO>(yaxdata);
}

YAX_EXPORT void destroyYAXDATA_Buffer(YAXDATA *yaxdata) {
    yax::destroyRecord<yax::BufIO>(yaxdata);
}

YAX_EXPORT void destroyYAXDATA_UNIT(YAXDATA_UNIT *unit) {
    if (unit == nullptr) return;
    _qfree(unit->data);
    _qfree(unit->sub_info);
    _qfree(unit);
}

YAX_EXPORT void destroyYAXOFFSET(YAXOFFSET *record) { _qfree(record); }

YAX_EXPORT void destroyYAXOFFSET64(YAXOFFSET64 *record) { _qfree(record); }

}  // extern "C"
