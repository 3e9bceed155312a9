// TonePhoto entries: sounds kept as trailer entries, the "TonePhoto_Meta_Info"
// name list that goes with them, and the one-sound Vono block written behind
// the trailer so that older readers still find the newest sound.
//
// Name-list payload: word0, word1, N, N name lengths, the names back to back.
// A payload built from scratch starts with 1, 0; an edited one keeps the two
// words it was read with.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "container/layout.hpp"
#include "container/validate.hpp"
#include "support/bytes.hpp"
#include "support/gather.hpp"
#include "support/io.hpp"
#include "support/misrouted_write.hpp"
#include "support/safe_file.hpp"
#include "vono/tone_set.hpp"
#include "vono/tonephoto_payload.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace {

namespace L = yax::layout;

// The one-sound Vono block: "VONO", 105, 1, start, end, 20, "VONOBS".
// Each flavour says how its tail marker goes out; the first write that fails
// ends the block with 0.
template <typename IO, typename TailWriter>
int writeOneSoundBlock(const IO &io, uint32_t start, uint32_t end, TailWriter writeTail) {
    if (io.writeFailed(io.write(L::kVonoHead, sizeof L::kVonoHead))) return 0;
    const uint32_t words[] = {L::kVersion, 1u, start, end, L::kVonoOneSoundHeaderSize};
    for (uint32_t w : words) {
        if (io.writeFailed(io.write32(w))) return 0;
    }
    return writeTail() ? 1 : 0;
}

constexpr char kFirstTag[] = "YAXEncoder::NewAddVonoDataInFirstTime";
constexpr char kFirstFpTag[] = "YAXEncoder::NewAddVonoDataInFirstTimeFP";
constexpr char kAddTag[] = "YAXEncoder::NewAddVonoData";

constexpr char kMetaName[] = "TonePhoto_Meta_Info";
constexpr char kFirstSoundName[] = "TonePhoto_000";
constexpr uint32_t kMetaNameLength = sizeof kMetaName - 1;        // 19
constexpr uint32_t kFirstSoundNameLength = sizeof kFirstSoundName - 1;  // 13
static_assert(kMetaNameLength == L::kToneMetaName.size());
static_assert(kFirstSoundNameLength == L::kToneFirstName.size());

// The converters build their first list in a buffer of this size.
constexpr size_t kFirstListBuffer = 1000;

// A sound + list pair as the two unchecked adds write it: the sound block, the
// list block, a header holding the `old_count` rows of `old_rows` and the two
// new rows, the tail, and the Vono block pointing at the new sound's bytes.
// `at` is where the sound block starts.
struct SoundAndList {
    uint32_t meta_type, sound_type;
    const char *name;
    uint32_t name_len;
    const void *data;
    uint32_t data_len;
    const void *meta;
    uint32_t meta_len;

    uint32_t soundLength() const { return _getDataLength(0, name_len, 0, data_len); }
    uint32_t listLength() const { return _getDataLength(0, kMetaNameLength, 0, meta_len); }
};

// A listed table: every row present.
bool tableComplete(const YaxInfo *info) {
    if (info->meta_count == 0) return true;
    if (info->meta_data == nullptr) return false;
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        if (info->meta_data[i] == nullptr) return false;
    }
    return true;
}

void writeUnchecked(FILE *fp, uint32_t at, const SoundAndList &a, YaxEntry *const *old_rows,
                    uint32_t old_count) {
    const yax::tone::SetBlock blocks[] = {{a.sound_type, a.name, a.name_len, a.data_len},
                                          {a.meta_type, kMetaName, kMetaNameLength, a.meta_len}};
    const yax::tone::SetCheck unchecked{nullptr};
    auto blocksOut = [&] {
        yax::tone::writeSetBlocks(fp, blocks, 1, unchecked, [&](uint32_t i) {
            return i == 0 ? _qfwrite(a.data, a.data_len, fp) != -1 : _qfwrite(a.meta, a.meta_len, fp) != -1;
        });
    };
    auto tableOut = [&] { yax::tone::writeSetTable(fp, at, blocks, 1, old_rows, old_count, unchecked); };
    auto inOrder = [&] {
        _qlseek64(fp, at, SEEK_SET);
        blocksOut();
        tableOut();
    };
    // Over an existing trailer the same bytes go out in an order that an
    // interruption cannot turn into a file without one, as the adds do:
    // blocks that end inside the old trailer go out with the table in one
    // write; longer ones follow a table written (in one write, flushed)
    // beyond the old end, whose old rows still point at their blocks, and a
    // failed block write puts the old bytes and length back.
    const int fd = fileno(fp);
    const int64_t end = old_count == 0 ? -1 : ::lseek64(fd, 0, SEEK_END);
    const uint64_t total = uint64_t{blocks[0].length()} + blocks[1].length();
    if (end < int64_t{at}) return inOrder();
    if (at + total < uint64_t(end)) {
        yax::writeAtOnce(fp, [&] {
            inOrder();
            return 0;
        });
        return;
    }
    std::vector<unsigned char> old(static_cast<size_t>(end - at));
    bool sent = ::pread64(fd, old.data(), old.size(), at) == static_cast<ssize_t>(old.size());
    if (sent) {
        yax::WriteGather gather(fp);
        _qlseek64(fp, static_cast<int64_t>(at + total), SEEK_SET);
        tableOut();
        sent = gather.send();
    }
    if (!sent) return inOrder();
    fdatasync(fd);  // the new table reaches the disk before the old one is overwritten
    const int64_t new_end = _qlseek64(fp, 0, SEEK_END);
    const uint64_t failures = yax::ioFailures();
    _qlseek64(fp, at, SEEK_SET);
    blocksOut();
    if (yax::ioFailures() != failures &&
        (::pwrite64(fd, old.data(), old.size(), at) != static_cast<ssize_t>(old.size()) ||
         ::ftruncate64(fd, end) != 0))
        yax::noteIoFailure();
    _qlseek64(fp, new_end, SEEK_SET);
}

// The name list entry read from a parsed trailer, with its length.
struct ListPayload {
    unsigned char *data = nullptr;
    int64_t length = 0;
    ~ListPayload() { _qfree(data); }
};

bool readListPayload(YaxInfo *info, uint32_t index, ListPayload &out) {
    int64_t position = 0;
    if (readDataOfIndexOffset(info, index, &position, &out.length) != 1) return false;
    return readDataOfIndex(info, index, &out.data, nullptr) == 1 && out.data != nullptr;
}

}  // namespace

extern "C" {

// ---- name-list payloads ----

YAX_EXPORT uint32_t makeFirstVonoHeader(unsigned char *out, const char *name, uint32_t name_len) {
    if (out == nullptr || (name == nullptr && name_len != 0)) return 0;
    yax::put32(out, 1);
    yax::put32(out + 4, 0);
    yax::put32(out + 8, 1);
    yax::put32(out + 12, name_len);
    if (name_len != 0) std::memcpy(out + 16, name, name_len);
    return 16 + name_len;
}

YAX_EXPORT uint32_t makeSecondVonoHeader(unsigned char *out, const char *name1, uint32_t len1,
                                         const char *name2, uint32_t len2) {
    if (out == nullptr || (name1 == nullptr && len1 != 0) || (name2 == nullptr && len2 != 0))
        return 0;
    yax::put32(out, 1);
    yax::put32(out + 4, 0);
    yax::put32(out + 8, 2);
    yax::put32(out + 12, len1);
    yax::put32(out + 16, len2);
    if (len1 != 0) std::memcpy(out + 20, name1, len1);
    if (len2 != 0) std::memcpy(out + 20 + len1, name2, len2);
    return 20 + len1 + len2;
}

YAX_EXPORT uint32_t makeAddVonoHeader(unsigned char *out, YaxInfo *info, uint32_t index,
                                      uint32_t /*ignored*/, const char *name,
                                      uint32_t name_len) {
    ListPayload payload;
    yax::tone::ListView view;
    if (out == nullptr || (name == nullptr && name_len != 0) ||
        !readListPayload(info, index, payload) ||
        !yax::tone::openList(payload.data, static_cast<uint64_t>(payload.length), view)) {
        std::puts("error!!!!!!!!");
        return 0;
    }
    const uint32_t n = view.count;
    const auto names = static_cast<uint32_t>(view.namesBytes);
    unsigned char *p = out;
    yax::put32(p, view.word0());
    yax::put32(p + 4, view.word1());
    yax::put32(p + 8, n + 1);
    p += yax::tone::kListFixed;
    std::memcpy(p, view.data + yax::tone::kListFixed, 4u * n);
    p += 4u * n;
    yax::put32(p, name_len);
    p += 4;
    std::memcpy(p, view.namesStart(), names);
    p += names;
    if (name_len != 0) std::memcpy(p, name, name_len);
    return 16 + 4 * n + names + name_len;
}

YAX_EXPORT uint32_t makeMinusVonoHeader(unsigned char *out, YaxInfo *info, uint32_t index,
                                        uint32_t /*ignored*/, const char *name) {
    ListPayload payload;
    yax::tone::ListView view;
    if (out == nullptr || !readListPayload(info, index, payload) || payload.length <= 0 ||
        !yax::tone::openList(payload.data, static_cast<uint64_t>(payload.length), view))
        return 0;
    const uint32_t n = view.count;

    // Which listed name is being removed: the last equal one, else the first.
    uint32_t k = 0;
    if (name != nullptr) {
        yax::tone::forEachName(view, [&](uint32_t i, const char *listed, uint32_t len) {
            if (std::strlen(name) == len && std::memcmp(listed, name, len) == 0) k = i;
            return true;
        });
    }

    yax::put32(out, view.word0());
    yax::put32(out + 4, view.word1());
    yax::put32(out + 8, n - 1);  // all ones for an empty list

    // One pass per listed name; pass k copies nothing and the source only
    // advances on a copy, so the list always loses its last name whichever
    // name matched. Callers arrange their entries around exactly this.
    unsigned char *lengths = out + yax::tone::kListFixed;
    uint32_t src = 0;
    uint32_t copied = 0;
    for (uint32_t pass = 0; pass < n; ++pass) {
        if (pass == k) continue;
        std::memcpy(lengths + 4u * src, view.data + yax::tone::kListFixed + 4u * src, 4);
        copied += view.lengthAt(src);
        ++src;
    }
    unsigned char *names = lengths + 4u * src;
    if (copied != 0) std::memcpy(names, view.namesStart(), copied);
    return 12 + 4 * (n - 1) + copied;
}

YAX_EXPORT uint32_t getVonoHeaderCount(const unsigned char *payload) {
    if (payload == nullptr) return 0;
    return yax::get32(payload + 8);
}

// ---- the Vono block behind the trailer ----

YAX_EXPORT void writeVonoDataHeader(FILE *fp, VonoInfo *info) {
    if (info == nullptr || fp == nullptr) return;
    // A record without a table (count 0) writes the two zero words of an
    // empty block, so the block keeps its 30 bytes.
    uint32_t start = 0, end = 0;
    if (info->offsets != nullptr && info->count != 0) {
        start = info->offsets[0];
        end = info->offsets[1];
    }
    _qfwrite(L::kVonoHead, sizeof L::kVonoHead, fp);
    _qfwriteInt32(L::kVersion, fp);
    _qfwriteInt32(info->count, fp);
    _qfwriteInt32(start, fp);
    _qfwriteInt32(end, fp);
    _qfwriteInt32(L::kVonoOneSoundHeaderSize, fp);
    _qfwrite(L::kVonoTail, sizeof L::kVonoTail, fp);
}

YAX_EXPORT int _writeVonoHeader(FILE *fp, uint32_t start, uint32_t end) {
    if (fp == nullptr) return 0;
    const yax::FileIO io{fp};
    return writeOneSoundBlock(io, start, end, [&] {
        return !io.writeFailed(io.write(L::kVonoTail, sizeof L::kVonoTail));
    });
}

// The buffer flavour hands its tail marker to the file writer, which cannot
// write to a buffer stream: the marker never arrives, the file writer's
// failure line is logged, and the block is reported as not written (0) even
// though its first 24 bytes are in the buffer. Callers rely on that result.
YAX_EXPORT int _writeVonoHeaderBuffer(YAXBUFFER *buf, uint32_t start, uint32_t end) {
    if (buf == nullptr) return 0;
    const yax::BufIO io{buf};
    return writeOneSoundBlock(io, start, end, [] {
        return yax::fileWriteOnBuffer(sizeof L::kVonoTail) != yax::FileIO::kWriteFailure;
    });
}

YAX_EXPORT int writeCustomQDR(YaxInfo *info, uint32_t first, uint32_t from, uint32_t add,
                              uint32_t sub) {
    if (info == nullptr || info->fp == nullptr || info->meta_data == nullptr) return 0;
    const uint32_t count = info->meta_count;
    auto writeShifted = [&](uint32_t i, bool grow) {
        const YaxEntry *e = info->meta_data[i];
        if (e == nullptr) return;
        YaxEntry row{};
        row.meta_type = e->meta_type;
        row.length = e->length;
        row.offset = grow ? e->offset + add : e->offset - sub;
        _writeYAX_QDR(info->fp, &row);
    };
    // The rows behind the moved blocks keep their order and move first; the
    // moved blocks' rows follow.
    for (uint32_t i = first; i < count; ++i) writeShifted(i, true);
    if (from < first) {
        for (uint32_t i = from; i < first && i < count; ++i) writeShifted(i, false);
    }
    return 1;
}

YAX_EXPORT int NewAddVonoDataInFirstTime(const char *path, uint32_t meta_type, uint32_t sound_type,
                                         const char *name, uint32_t name_len, const void *data,
                                         uint32_t data_len, const void *meta, uint32_t meta_len) {
    if (data == nullptr || data_len == 0) {
        YAXLogE(kFirstTag, "vono_data null");
        return 0;
    }
    if (meta == nullptr || meta_len == 0) {
        YAXLogE(kFirstTag, "vono_info_data null");
        return 0;
    }
    if (name == nullptr && name_len != 0) {
        YAXLogE(kFirstTag, "vono_name null");
        return 0;
    }
    FILE *fp = path != nullptr ? _qfopen(path, "r+b") : nullptr;
    if (fp == nullptr) {
        YAXLogE(kFirstTag, "file open error");
        return 0;
    }
    // Positions inside the Vono block are 32-bit, as are the images it serves.
    const auto image_end = static_cast<uint32_t>(_qlseek64(fp, 0, SEEK_END));
    // This flavour does not look at its write results.
    writeUnchecked(fp, image_end, {meta_type, sound_type, name, name_len, data, data_len, meta,
                                   meta_len},
                   nullptr, 0);
    _qfclose(fp);
    return 1;
}

YAX_EXPORT int NewAddVonoDataInFirstTimeFP(FILE *fp, uint32_t meta_type, uint32_t sound_type,
                                           const char *name, uint32_t name_len, const void *data,
                                           uint32_t data_len, const void *meta, uint32_t meta_len) {
    // The messages of this flavour end in a blank; callers match them as they are.
    if (data == nullptr || data_len == 0) {
        YAXLogE(kFirstFpTag, "vono_data == VELTA_YAX_NULL || vono_data_size <= 0 ");
        return 0;
    }
    if (meta == nullptr || meta_len == 0) {
        YAXLogE(kFirstFpTag, "vono_info_data == VELTA_YAX_NULL || vono_info_data_size <= 0 ");
        return 0;
    }
    if (fp == nullptr) {
        YAXLogE(kFirstFpTag, "fp == VELTA_YAX_NULL ");
        return 0;
    }
    auto fail = [](const char *what) {
        YAXLogE(kFirstFpTag, "%s", what);
        return 0;
    };
    if (name == nullptr && name_len != 0) return fail("File _writeDataTagInfo Error");
    // The stream flavour writes where the caller left the stream: after the
    // legacy block has been dropped that is the old sound's start, and the
    // new, longer content covers everything behind it.
    const int64_t end = _qlseek64(fp, 0, SEEK_CUR);
    if (end <= 0) return fail("File Search Error");
    const auto image_end = static_cast<uint32_t>(end);

    const yax::tone::SetBlock blocks[] = {{sound_type, name, name_len, data_len},
                                          {meta_type, kMetaName, kMetaNameLength, meta_len}};
    // A payload write is taken as failed only when it reports 0 bytes.
    return yax::tone::writeToneSet(fp, image_end, blocks, 1, nullptr, 0, kFirstFpTag,
                                   [&](uint32_t i) {
                                       return i == 0 ? _qfwrite(data, data_len, fp) != 0
                                                     : _qfwrite(meta, meta_len, fp) != 0;
                                   });
}

YAX_EXPORT int NewAddVonoData(YaxInfo *info, uint32_t meta_type, uint32_t sound_type,
                              const char *name, uint32_t name_len, const void *data,
                              uint32_t data_len, const void *meta, uint32_t meta_len) {
    if (data == nullptr || data_len == 0) {
        YAXLogE(kAddTag, "vono_data NULL");
        return 0;
    }
    if (name == nullptr || name_len == 0) {
        YAXLogE(kAddTag, "vono_name NULL");
        return 0;
    }
    if (meta == nullptr || meta_len == 0) {
        YAXLogE(kAddTag, "vono_info_data NULL");
        return 0;
    }
    if (info == nullptr) {
        YAXLogE(kAddTag, "yax_info NULL");
        return 0;
    }
    if (info->fp == nullptr) {
        YAXLogE(kAddTag, "yax_info->fp NULL");
        return 0;
    }
    if (!tableComplete(info)) {
        YAXLogE(kAddTag, "yax_info NULL");
        return 0;
    }
    // The new blocks go over the header: no block may reach into it.
    if (info->meta_count != 0 &&
        !yax::trailerEditable(info, info->file_size, yax::kNeedRowsInside, 0, kAddTag))
        return 0;
    FILE *fp = info->fp;
    // The new blocks start where "YAXH" was: the old header, tail and any
    // Vono block behind them are overwritten by longer content.
    const int64_t header = _qlseek64(fp, -static_cast<int64_t>(info->header_offset), SEEK_END);
    if (header < 0) {
        YAXLogE(kAddTag, "File Search Error");
        return 0;
    }
    const SoundAndList add{meta_type, sound_type, name, name_len, data, data_len, meta, meta_len};
    // Offsets count back from the header, which moves back by both blocks.
    const uint32_t grow = add.soundLength() + add.listLength();
    for (uint32_t i = 0; i < info->meta_count; ++i) info->meta_data[i]->offset += grow;
    writeUnchecked(fp, static_cast<uint32_t>(header), add, info->meta_data, info->meta_count);
    return 1;
}

YAX_EXPORT int convertVonoToTonePhoto(VonoInfo **pinfo, const char *path) {
    if (pinfo == nullptr || *pinfo == nullptr) return 0;
    VonoInfo *vono = *pinfo;
    // Nothing is touched unless the sound has been read and the list buffer
    // exists: the legacy block is dropped only when both can be written back.
    unsigned char *sound = _getAudioStreamBuffer(vono);
    if (sound == nullptr) return 0;
    const uint32_t length = vono->offsets[1] - vono->offsets[0];
    auto *list = static_cast<unsigned char *>(_qmalloc(kFirstListBuffer));
    if (list == nullptr) {
        _qfree(sound);
        return 0;
    }

    deleteVono_NotExistYAX(path, vono);
    const uint32_t list_len = makeFirstVonoHeader(list, kFirstSoundName, kFirstSoundNameLength);
    const int result = NewAddVonoDataInFirstTime(path, L::kToneMetaType, L::kToneSoundType,
                                                 kFirstSoundName, kFirstSoundNameLength, sound,
                                                 length, list, list_len);
    _qfree(list);
    // The sound copy is deliberately not released here.
    return result;
}

YAX_EXPORT int _convertVonoToTonePhoto(VonoInfo **pinfo) {
    if (pinfo == nullptr || *pinfo == nullptr || (*pinfo)->fp == nullptr) return 0;
    VonoInfo *vono = *pinfo;
    unsigned char *sound = _getAudioStreamBuffer(vono);
    if (sound == nullptr) return 0;
    const uint32_t length = vono->offsets[1] - vono->offsets[0];

    int result = 0;
    auto *list = static_cast<unsigned char *>(_qmalloc(kFirstListBuffer));
    // Dropping the legacy block leaves the stream at the old sound's start;
    // the add writes the sound and list entries from there.
    if (list != nullptr && deleteVono_NotExistYAX_FP(vono->fp, vono) == 1) {
        const uint32_t list_len =
            makeFirstVonoHeader(list, kFirstSoundName, kFirstSoundNameLength);
        result = NewAddVonoDataInFirstTimeFP(vono->fp, L::kToneMetaType, L::kToneSoundType,
                                             kFirstSoundName, kFirstSoundNameLength, sound,
                                             length, list, list_len);
    }
    _qfree(list);
    _qfree(sound);
    return result;
}

}  // extern "C"
