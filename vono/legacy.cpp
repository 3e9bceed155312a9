// Editing the legacy audio block inside a file: the first sound, replacing
// and deleting it, copying it between files and reading it out.
//
// A file holds either  image | sound | block  or, once entries were added,
//   image | sound | data blocks | "YAXH" header | tail ("YAXT") | block.
// Edits of the second kind, and every delete, rebuild the file under a
// temporary name beside it and swap it in with yax::RewriteTemp.
#include <cstdio>
#include <cstring>

#include "container/add.hpp"
#include "container/layout.hpp"
#include "container/validate.hpp"
#include "support/copy.hpp"
#include "support/misrouted_write.hpp"
#include "support/safe_file.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

using namespace layout;

// The swap step of every rewriting edit here reports under the add
// function's tag, the deletes included; log readers have always seen it so.
constexpr const char *kReplaceTag = "VonoAPIs::addVonoSound";
constexpr const char *kFirstTimeTag = "Vono::AddVonoSoundInFirstTime";
constexpr const char *kAddTag = "YAX::addVonoSound";
constexpr const char *kHasYaxTag = "VonoAPIs::hasYAXData";
constexpr const char *kDeleteYaxTag = "VonoAPIs::deleteVono_ExistYAX";
constexpr const char *kDeletePlainTag = "VonoAPIs::deleteVono_NotExistYAX";
constexpr const char *kDeleteFpTag = "VonoAPIs::deleteVono_NotExistYAX_FP";
constexpr const char *kSoundFileTag = "VonoAPIs::_getSoundFileCreate";

constexpr char kTempPattern[] = "000.tmp";  // 8 bytes with its terminator
constexpr int kTempAttempts = 999;

// "YAXT" sits in the 4 bytes in front of "VONO" when a trailer precedes the block.
constexpr int64_t kTailInFront = kVonoTailProbe + kWord;  // + header size = distance from end

// Writes one block: "VONO", 105, count, one (start, end) pair, 20, "VONOBS".
// The header size always counts that one pair, also when count is 0.
void writeOneSoundBlock(FILE *fp, uint32_t count, uint32_t start, uint32_t end) {
    WriteSoundHeader(fp);
    WriteSoundCount(fp, count);
    WriteSoundData(fp, start, end);
    WriteSoundTailer(fp, 1);
}

}  // namespace

// Header, rows and tail of a parsed trailer, rows unchanged: offsets count
// back from the header, which moves together with the blocks.
bool writeTrailerHeader(FILE *out, const YaxInfo *yi) {
    constexpr int kFailed = -1;
    bool ok = _writeYAX_QTSS(out) != kFailed;
    ok = _writeYAX_QVER(out) != kFailed && ok;
    ok = _writeYAX_QCnt(out, yi->meta_count) != kFailed && ok;
    for (uint32_t i = 0; i < yi->meta_count; ++i) _writeYAX_QDR(out, yi->meta_data[i]);
    ok = _writeYAX_QTHO(out, yi->meta_count) != kFailed && ok;
    return _writeYAX_QTS(out) != kFailed && ok;
}

namespace {

// Where the block's data begins: the first sound's start. A record without
// sounds has nothing in front of its block but the file's own content, so
// the block's own first byte stands in for it.
uint32_t firstSoundStart(const VonoInfo *info) {
    if (info->count > 0 && info->offsets != nullptr) return info->offsets[0];
    return info->file_size - (info->header_size + kVonoTailProbe);
}

// The first byte of the legacy block itself, in the file as it is now.
int64_t blockStart(const VonoInfo *info) {
    const int64_t size = info->fp != nullptr ? _qlseek64(info->fp, 0, SEEK_END) : info->file_size;
    return size - (static_cast<int64_t>(info->header_size) + kVonoTailProbe);
}

void closeStream(VonoInfo *info) {
    if (info != nullptr && info->fp != nullptr) {
        _qfclose(info->fp);
        info->fp = nullptr;
    }
}

void closeTrailerStream(YAXDATA *y) {
    if (y->yax_info != nullptr && y->yax_info->fp != nullptr) {
        _qfclose(y->yax_info->fp);
        y->yax_info->fp = nullptr;
    }
}

// A Vono record this module parsed for itself and destroys again.
struct OwnedVono {
    VonoInfo *p = nullptr;
    ~OwnedVono() { DestroyVono(p); }
};

struct OwnedYax {
    YAXDATA *p = nullptr;
    ~OwnedYax() { destroyYAXDATA(p); }
};

// First sound as a byte range that can exist in the file: the range test of
// the first-sound query, plus an end that does not lie in front of the start.
bool plausibleFirstSound(VonoInfo *info, uint32_t *start, uint32_t *length) {
    VONOOFFSET *o = _getAudioInImageFile(info);
    if (o == nullptr) return false;
    *start = o->offset;
    *length = o->length;
    _destroyVONOOFFSET(o);
    return info->offsets[1] > info->offsets[0];
}

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT char *_getVonoTempFileName(const char *path) {
    const int index = getExtIndex(path);
    if (index <= 0) return nullptr;
    const size_t stem = static_cast<size_t>(index);
    auto *name = static_cast<char *>(_qmalloc(stem + sizeof yax::kTempPattern));
    if (name == nullptr) return nullptr;
    std::memcpy(name, path, stem);
    // photo000.tmp, photo100.tmp, ... photo900.tmp, photo000.tmp, ...: only
    // the first digit changes. After the last attempt its name is used even
    // though that file exists.
    for (int i = 0; i < yax::kTempAttempts; ++i) {
        std::memcpy(name + stem, yax::kTempPattern, sizeof yax::kTempPattern);
        name[stem] = static_cast<char>('0' + i % 10);
        FILE *probe = _qfopen(name, "rb");
        if (probe == nullptr) break;
        _qfclose(probe);
    }
    return name;
}

YAX_EXPORT int64_t AddVonoSoundInFirstTime(const char *path, const void *data, uint32_t length) {
    if (path == nullptr) return 0;
    FILE *fp = _qfopen(path, "ab");
    if (fp == nullptr) return 0;
    const int64_t start = _qlseek64(fp, 0, SEEK_END);
    if (start <= 0) {
        YAXLogE(yax::kFirstTimeTag, "File Search error %d", static_cast<int>(start));
        _qfclose(fp);
        return -1;
    }
    if (_qfwrite(data, length, fp) == -1) {
        YAXLogE(yax::kFirstTimeTag, "File Search error %d", -1);
        _qfclose(fp);
        return -1;
    }
    const auto s = static_cast<uint32_t>(start);
    yax::writeOneSoundBlock(fp, 1, s, s + length);
    const int64_t size = _qlseek64(fp, 0, SEEK_END);
    _qfclose(fp);
    if (size <= 0) {
        YAXLogE(yax::kFirstTimeTag, "File Search error %d", static_cast<int>(size));
        return -1;
    }
    return size;
}

YAX_EXPORT int checkVonoInfoForSaving(VonoInfo *info, uint32_t size1, uint32_t size2,
                                      uint32_t size3) {
    // The room already taken is read at table index 2 x count - 3: for more
    // sounds the end of the second-to-last one. For a single sound the index
    // is -1, the word in front of the table; in the block that word is the
    // count itself (1), and that value is used rather than reading in front
    // of the table's allocation.
    uint64_t taken = 0;
    if (info != nullptr && info->count > 0) {
        const int64_t index = 2 * static_cast<int64_t>(info->count) - 3;
        if (index < 0)
            taken = info->count;
        else if (info->offsets != nullptr)
            taken = info->offsets[index];
    }
    const uint64_t total = static_cast<uint64_t>(size1) + size2 + size3 + yax::layout::kVonoFixed +
                           taken;
    if (total < yax::layout::kSizeLimit) return 1;
    YAXLogE("checkVonoInfoForSaving",
            "There is no space for saving YAX data in the source file, a vnoo data");
    return 0;
}

YAX_EXPORT int hasYAXData(const char *path, VonoInfo *info) {
    if (path == nullptr) return 0;
    yax::OwnedVono own;
    if (info == nullptr) {
        own.p = _checkAudioInImageFile(path);
        if (own.p == nullptr) return 0;
        info = own.p;
    }
    if (info->fp == nullptr || info->file_size == 0) return 0;
    if (_qlseek64(info->fp, -(static_cast<int64_t>(info->header_size) + yax::kTailInFront),
                  SEEK_END) < 0) {
        YAXLogE(yax::kHasYaxTag, "File Search Error");
        return 0;
    }
    unsigned char magic[4] = {};
    _qfread(magic, sizeof magic, info->fp);
    if (std::memcmp(magic, yax::layout::kTailMagic, sizeof magic) == 0) {
        std::puts("meta not null");
        return 2;
    }
    std::puts("meta null");
    return 1;
}

YAX_EXPORT int deleteVono_NotExistYAX_FP(FILE *fp, VonoInfo *info) {
    if (fp == nullptr) return 0;
    VonoInfo *own = nullptr;
    if (info == nullptr) {
        own = ParseVonoFP(fp);
        if (own == nullptr) return 0;
        if (ParseVonoSound(own) == 0) {
            DestroyVonoFP(own);
            return 0;
        }
        info = own;
    }
    if (!yax::vonoSoundEditable(info, yax::blockStart(info), yax::kDeleteFpTag)) {
        DestroyVonoFP(own);
        return 0;
    }
    // The caller writes from here on; nothing is cut off.
    const bool ok = info->fp != nullptr &&
                    _qlseek64(info->fp, yax::firstSoundStart(info), SEEK_SET) >= 0;
    if (!ok) YAXLogE(yax::kDeleteFpTag, "File Search Error");
    DestroyVonoFP(own);
    return ok ? 1 : 0;
}

YAX_EXPORT int deleteVono_NotExistYAX(const char *path, VonoInfo *info) {
    if (path == nullptr) return 0;
    yax::OwnedVono own;
    if (info == nullptr) info = own.p = _checkAudioInImageFile(path);  // may stay null
    if (info != nullptr && !yax::vonoSoundEditable(info, yax::blockStart(info), yax::kDeletePlainTag))
        return 0;

    yax::RewriteTemp temp(path, _getVonoTempFileName);
    if (!temp.named()) return 0;
    // A temporary file that cannot be made is reported as success.
    if (!temp.open("wb")) return temp.untouchedResult();
    if (info == nullptr || info->fp == nullptr || _qlseek64(info->fp, 0, SEEK_SET) < 0) {
        YAXLogE(yax::kDeletePlainTag, "File Search Error");
        return temp.untouchedResult();
    }
    yax::copyKept(temp.fp(), info->fp, yax::firstSoundStart(info));
    if (!temp.finish()) return 0;
    yax::closeStream(info);
    return temp.replace(path, yax::kReplaceTag) ? 1 : 0;
}

YAX_EXPORT int deleteVono_ExistYAX(const char *path, VonoInfo *info) {
    if (path == nullptr) return 0;
    yax::OwnedYax trailer{checkYAXInFile(path)};
    if (trailer.p == nullptr || trailer.p->yax_info == nullptr) return 0;
    yax::closeTrailerStream(trailer.p);
    const YaxInfo *yi = trailer.p->yax_info;
    yax::OwnedVono own;
    if (info == nullptr) info = own.p = _checkAudioInImageFile(path);

    int64_t first_block = -1;
    if (yi->meta_count > 0 && yi->meta_data != nullptr && yi->meta_data[0] != nullptr)
        first_block = yi->file_size - (static_cast<int64_t>(yi->header_offset) +
                                       yi->meta_data[0]->offset);
    // The sound lies in front of the blocks, and the blocks are copied one
    // after another from the first: a file that says otherwise is refused.
    if (info != nullptr && info->fp != nullptr && first_block >= 0 &&
        (!yax::vonoSoundEditable(info, first_block, yax::kDeleteYaxTag) ||
         !yax::trailerEditable(yax::FileIO{info->fp}, yi, yax::kNeedBackToBack,
                               yax::kDeleteYaxTag)))
        return 0;

    yax::RewriteTemp temp(path, _getVonoTempFileName);
    if (!temp.named()) return 0;
    if (!temp.open("wb")) return temp.untouchedResult();
    if (info == nullptr || info->fp == nullptr || _qlseek64(info->fp, 0, SEEK_SET) < 0) {
        YAXLogE(yax::kDeleteYaxTag, "File Search Error 1");
        return temp.untouchedResult();
    }
    // The image: everything in front of the sound (in front of the first
    // data block when the record holds no sound).
    const int64_t image_end = info->count > 0 && info->offsets != nullptr
                                  ? static_cast<int64_t>(info->offsets[0])
                                  : first_block;
    yax::copyKept(temp.fp(), info->fp, image_end);

    if (first_block < 0 || _qlseek64(info->fp, first_block, SEEK_SET) < 0) {
        YAXLogE(yax::kDeleteYaxTag, "File Search Error 2");
        return temp.untouchedResult();
    }
    // The blocks follow the image back to back, so the rows stay as they are.
    for (uint32_t i = 0; i < yi->meta_count; ++i)
        yax::copyKept(temp.fp(), info->fp, yi->meta_data[i]->length);
    yax::writeTrailerHeader(temp.fp(), yi);
    yax::writeOneSoundBlock(temp.fp(), 0, 0, 0);
    if (!temp.finish()) return 0;
    yax::closeStream(info);
    return temp.replace(path, yax::kReplaceTag) ? 1 : 0;
}

YAX_EXPORT int addVonoSound(const char *path, VonoInfo *info, const void *data, uint32_t length) {
    const int where = hasYAXData(path, info);
    const uint32_t count = info != nullptr ? info->count : 0;

    if (where == 1) {
        if (count > 0) {
            if (deleteVono_NotExistYAX(path, info) == 0) return 0;
            DestroyVono(_checkAudioInImageFile(path));  // read again, not used further
        }
        return static_cast<int>(AddVonoSoundInFirstTime(path, data, length));
    }
    if (where != 2) return 0;

    // A trailer lies between the sound and the block. An existing sound is
    // deleted first, and the file is read again; the result is that of the
    // delete, so a sound added where the record held none reports 0 although
    // the file was written.
    int result = 0;
    VonoInfo *source = info;
    yax::OwnedVono reparsed;
    if (count > 0) {
        result = deleteVono_ExistYAX(path, info);
        if (result == 0) return 0;
        // The caller's record is spent: its stream is released here, the
        // record itself stays the caller's to destroy.
        yax::closeStream(info);
        source = reparsed.p = _checkAudioInImageFile(path);
    }
    yax::OwnedYax trailer{checkYAXInFile(path)};
    if (trailer.p == nullptr || trailer.p->yax_info == nullptr) return 0;
    yax::closeTrailerStream(trailer.p);
    if (source == nullptr || source->fp == nullptr) return 0;

    yax::RewriteTemp temp(path, _getVonoTempFileName);
    if (!temp.named() || !temp.open("wb")) return 0;

    const YaxInfo *yi = trailer.p->yax_info;
    const int64_t image_end = yi->data_start_position;
    if (image_end < 0 || _qlseek64(source->fp, 0, SEEK_SET) < 0) {
        YAXLogE(yax::kAddTag, "File Search Error");
        return 0;
    }
    yax::copyKept(temp.fp(), source->fp, image_end);
    _qfwrite(data, length, temp.fp());
    if (_qlseek64(source->fp, image_end, SEEK_SET) < 0) {
        YAXLogE(yax::kAddTag, "File Search Error");
        return 0;
    }
    for (uint32_t i = 0; i < yi->meta_count; ++i)
        yax::copyKept(temp.fp(), source->fp, yi->meta_data[i]->length);
    yax::writeTrailerHeader(temp.fp(), yi);
    const auto start = static_cast<uint32_t>(image_end);
    yax::writeOneSoundBlock(temp.fp(), 1, start, start + length);
    if (!temp.finish()) return 0;
    yax::closeStream(source);
    if (!temp.replace(path, yax::kReplaceTag)) return 0;
    return result;
}

YAX_EXPORT int deleteAVono(const char *path) {
    yax::OwnedVono v{_checkAudioInImageFile(path)};
    if (v.p == nullptr) return 0;
    if (v.p->count == 0) {
        std::puts("sound_count 0");
        return 0;
    }
    // The delete's own result is not passed on.
    switch (hasYAXData(path, v.p)) {
        case 1:
            deleteVono_NotExistYAX(path, v.p);
            return 1;
        case 2:
            deleteVono_ExistYAX(path, v.p);
            return 1;
        default:
            std::puts("error");
            return 0;
    }
}

YAX_EXPORT int _getSoundFileCreate(VonoInfo *info, const char *out_path) {
    if (info == nullptr || out_path == nullptr || info->count == 0 || info->offsets == nullptr)
        return 0;
    const uint32_t start = info->offsets[0];
    const uint32_t length = info->offsets[1] - start;
    // An end in front of the start cannot be a sound; it is refused like an
    // allocation of that size would be.
    if (info->offsets[1] < start || length > info->file_size) return 0;
    auto *bytes = static_cast<unsigned char *>(_qmalloc(length == 0 ? 1 : length));
    if (bytes == nullptr) return 0;
    FILE *out = _qfopen(out_path, "wb");
    if (out == nullptr) {
        _qfree(bytes);
        return 0;
    }
    if (info->fp == nullptr) {
        std::puts("file null");  // the buffer is written unread
    } else if (_qlseek64(info->fp, start, SEEK_SET) < 0) {
        YAXLogE(yax::kSoundFileTag, "File Search error");
        _qfree(bytes);
        _qfclose(out);
        // the write that followed went to the stream just closed
        return yax::fileWriteOnClosedStream(length);
    } else {
        _qfread(bytes, length, info->fp);
    }
    const int written = _qfwrite(bytes, length, out);
    _qfree(bytes);
    _qfclose(out);
    return written;
}

YAX_EXPORT unsigned char *_getAudioStreamBuffer(VonoInfo *info) {
    uint32_t start = 0, length = 0;
    if (!yax::plausibleFirstSound(info, &start, &length) || info->fp == nullptr) return nullptr;
    if (_qlseek64(info->fp, start, SEEK_SET) <= 0) return nullptr;
    auto *bytes = static_cast<unsigned char *>(_qmalloc(length));
    if (bytes == nullptr) return nullptr;
    _qfread(bytes, length, info->fp);
    return bytes;
}

YAX_EXPORT int _copyAudioData(const char *src_path, const char *dst_path) {
    if (src_path == nullptr || dst_path == nullptr) return 0;
    yax::OwnedVono src{_checkAudioInImageFile(src_path)};
    if (src.p == nullptr) return 1;
    // The destination's table is not read: its count stays 0, so an existing
    // sound there is not deleted first, and without a trailer a second block
    // lands behind the first.
    yax::OwnedVono dst{ParseVono(dst_path)};
    if (src.p->count == 0 || src.p->offsets == nullptr) return 1;
    const uint32_t start = src.p->offsets[0];
    const uint32_t end = src.p->offsets[1];
    if (end < start || end > src.p->file_size) return 1;  // not a sound of this file
    const uint32_t length = end - start;
    auto *bytes = static_cast<unsigned char *>(_qmalloc(length == 0 ? 1 : length));
    if (bytes == nullptr) return 1;
    ReadSoundData(src.p->fp, start, length, bytes);
    if (dst.p == nullptr)
        AddVonoSoundInFirstTime(dst_path, bytes, length);
    else
        addVonoSound(dst_path, dst.p, bytes, length);
    _qfree(bytes);
    return 1;
}

YAX_EXPORT int _writeVonoOffset(const char *path) {
    // Never finished: it only leaves an empty temporary file beside `path`.
    char *name = path != nullptr ? _getVonoTempFileName(path) : nullptr;
    if (name != nullptr) {
        FILE *fp = _qfopen(name, "wb");
        if (fp != nullptr) _qfclose(fp);
        _qfree(name);
    }
    std::puts("Vono is null");
    return 0;
}

}  // extern "C"
