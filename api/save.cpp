// Saving one named entry into a file: by path or by open stream, with the
// payload in memory, in another file, or as a block the caller formatted.
//
// Every save makes the same decisions once the file's ending is known:
//   none          -> first-time add
//   legacy audio  -> turn the sound into TonePhoto entries, then add
//   trailer       -> (replace a same-name entry when allowed) add
//   both          -> as trailer, keeping the legacy block behind the new tail
// That ladder is written once (saveDecision); the path and stream flavours
// differ only in the operations they plug in (Target), in which refusals
// they log (BranchMsgs) and in the sizes they hand to the room checks
// (Request).
#include <unistd.h>

#include <cstring>

#include "api/edit_group.hpp"
#include "api/save_common.hpp"
#include "container/add.hpp"
#include "container/layout.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

using api::QBytes;
using api::QChars;
using namespace layout;

constexpr uint32_t kToneListCapacity = 1000;

// ---- what one save stores ----

struct EntryArgs {
    const char *name;
    uint32_t name_length;
    const void *sub_info;
    uint32_t sub_info_length;
    const void *data;
    uint32_t data_length;
    uint32_t data_type;
    const PayloadSource *source = nullptr;  // the payload streams from this file instead

    NewEntry entry() const {
        return NewEntry(data_type, name, name_length, sub_info, sub_info_length, data,
                        data_length, source);
    }
};

// What the ladder compares and checks. The room checks take the caller's
// sizes, except where a flavour has always passed 0 for the sub-information.
struct Request {
    const char *key;           // zero-terminated name for the same-name lookup
    uint32_t check_data;       // payload (or block) length
    uint32_t check_name;       // name length
    uint32_t sub_for_yax;      // sub-information length, trailer branch
    uint32_t sub_for_vono_yax; // sub-information length, trailer + legacy branch
    uint32_t sub_for_vono;     // sub-information length, legacy conversion
    int option;                // bit 0: replace a same-name entry
};

// Refusal messages of the decision ladder. A null text (or a null tag) is a
// silent refusal: the path flavour and the file-payload saves log none.
struct BranchMsgs {
    const char *tag;
    const char *unknown_signature;  // takes the code
    const char *vono_too_big;
    const char *vono_list;
    const char *vono_first_add;
    const char *yax_no_data;
    const char *yax_check;
    const char *yax_not_update;
    const char *vono_yax_no_data;
    const char *vono_yax_check;
    const char *vono_yax_not_update;
};

constexpr BranchMsgs kSilent{};
constexpr BranchMsgs kStreamMsgs{
    "YAXAPIs::saveYAXDataToFP",
    "Signature File!! mode : %d\n",
    "SIGNATURE_VONO Too big YAX data to add in the file",
    "headerBuff_szie <= 0",
    "NewAddVonoDataInFirstTimeFP fail",
    "SIGNATURE_YAX YAXdata NULL!!",
    "SIGNATURE_YAX checkYAXInfoForSaving fail!!",
    "SIGNATURE_YAX NOT UPDATE!!",
    "SIGNATURE_VONO_YAX YAXdata == NULL!!",
    "SIGNATURE_VONO_YAX checkYAXInfoForSaving ERROR!!",
    "SIGNATURE_VONO_YAX NOT UPDATE!!",
};

// The buffer flavour refuses legacy audio with the unknown-ending message,
// so its legacy texts are never used.
constexpr BranchMsgs kBufferMsgs{
    "YAXAPIs::saveYAXDataToBuffer",
    kStreamMsgs.unknown_signature,
    nullptr,
    nullptr,
    nullptr,
    kStreamMsgs.yax_no_data,
    kStreamMsgs.yax_check,
    kStreamMsgs.yax_not_update,
    nullptr,
    nullptr,
    nullptr,
};

void say(const BranchMsgs &m, const char *text) {
    if (m.tag != nullptr && text != nullptr) YAXLogE(m.tag, text);
}

// A legacy record is worth checking for room when it is recent enough or
// carries its sound table.
bool usable(const VonoInfo *v) {
    return v != nullptr && (v->version >= kVersion || v->offsets != nullptr);
}

// ---- where the file is ----

// By path: every step opens and closes what it needs.
struct PathTarget {
    static constexpr bool kConvertsLegacy = true;
    static constexpr bool kUndoable = true;
    const char *path;
    const char *where() const { return path; }

    int signature() const { return getSignature(path); }
    YAXDATA *parse() const { return checkYAXInFile(path); }
    void release(YAXDATA *d) const { destroyYAXDATA(d); }
    VonoInfo *legacy() const { return _checkAudioInImageFile(path); }
    // The record's own read handle is not needed past the sound copy; the
    // deletes and adds only use its table.
    void detach(VonoInfo *v) const {
        if (v != nullptr && v->fp != nullptr) {
            _qfclose(v->fp);
            v->fp = nullptr;
        }
    }
    void releaseLegacy(VonoInfo *v) const { DestroyVono(v); }
    int deleteEntry(YaxInfo *info, uint32_t index, VonoInfo *v) const {
        return DeleteAYAXData(path, info, index, v);
    }
    int dropLegacy(VonoInfo *v) const { return deleteVono_NotExistYAX(path, v); }
    int addTone(const unsigned char *sound, uint32_t sound_length, const unsigned char *list,
                uint32_t list_length) const {
        return NewAddVonoDataInFirstTime(path, kToneMetaType, kToneSoundType,
                                         kToneFirstName.data(),
                                         static_cast<uint32_t>(kToneFirstName.size()), sound,
                                         sound_length, list, list_length);
    }
    int addFirst(const EntryArgs &e) const { return addFirstByPath(path, e.entry()); }
    int add(YaxInfo *info, const EntryArgs &e, VonoInfo *v) const {
        return addByPath(path, info, e.entry(), v);
    }
};

// By open stream: the caller's stream is used throughout and stays open.
struct StreamTarget {
    static constexpr bool kConvertsLegacy = true;
    static constexpr bool kUndoable = true;
    FILE *fp;
    FILE *where() const { return fp; }

    int signature() const { return static_cast<int>(getSignatureFP(fp)); }
    YAXDATA *parse() const { return checkYAXInFP(fp); }
    void release(YAXDATA *d) const { destroyYAXDATA_FP(d); }
    // Parsed here rather than through the one-call helper, whose failure
    // path closes the stream it was given: the caller's stream must survive
    // a damaged legacy block.
    VonoInfo *legacy() const {
        VonoInfo *v = ParseVonoFP(fp);
        if (v != nullptr && ParseVonoSound(v) == 0) {
            DestroyVonoFP(v);
            return nullptr;
        }
        return v;
    }
    // The record holds the caller's stream; nothing it is handed to may
    // close it.
    void detach(VonoInfo *v) const {
        if (v != nullptr) v->fp = nullptr;
    }
    void releaseLegacy(VonoInfo *v) const {
        detach(v);
        DestroyVonoFP(v);
    }
    int deleteEntry(YaxInfo *info, uint32_t index, VonoInfo *v) const {
        return DeleteAYAXDataFP(fp, info, index, v);
    }
    // The stream is positioned at the first sound; cutting the file there
    // removes the sounds and the legacy block, so the conversion writes its
    // entries where the sound used to start.
    int dropLegacy(VonoInfo *v) const {
        uint32_t start = v->offsets[0];
        if (deleteVono_NotExistYAX_FP(fp, v) == 0) return 0;
        return ftruncate64(fileno(fp), static_cast<off64_t>(start)) == 0 ? 1 : 0;
    }
    int addTone(const unsigned char *sound, uint32_t sound_length, const unsigned char *list,
                uint32_t list_length) const {
        return NewAddVonoDataInFirstTimeFP(fp, kToneMetaType, kToneSoundType,
                                           kToneFirstName.data(),
                                           static_cast<uint32_t>(kToneFirstName.size()), sound,
                                           sound_length, list, list_length);
    }
    int addFirst(const EntryArgs &e) const { return addFirstToStream(fp, e.entry()); }
    int add(YaxInfo *info, const EntryArgs &e, VonoInfo *v) const {
        return addToStream(fp, info, e.entry(), v);
    }
};

// In a buffer stream. Two documented differences from a stream: a buffer
// with legacy audio is refused rather than converted, and there is no undo
// copy (the buffer is the caller's own copy; a replace's delete stays done
// when the add after it fails). A buffer nothing was written to counts as
// one without a trailer, whatever its bytes. The parses are released with
// the stream flavour's destroy; the two differ only in which handle they
// forget, and neither touches the buffer.
struct BufferTarget {
    static constexpr bool kConvertsLegacy = false;
    static constexpr bool kUndoable = false;
    YAXBUFFER *h;

    int signature() const {
        return qbgetWriteSize(h) == 0 ? SIGNATURE_NONE : static_cast<int>(getSignatureBuffer(h));
    }
    YAXDATA *parse() const { return checkYAXInBuffer(h); }
    void release(YAXDATA *d) const { destroyYAXDATA_FP(d); }
    int deleteEntry(YaxInfo *info, uint32_t index, VonoInfo *v) const {
        return DeleteAYAXDataBuffer(h, info, index, v);
    }
    int addFirst(const EntryArgs &e) const {
        return AddYAXDataInFirstTimeBuffer(h, e.name, e.name_length, e.data_type, e.sub_info,
                                           e.sub_info_length, e.data, e.data_length);
    }
    int add(YaxInfo *info, const EntryArgs &e, VonoInfo *v) const {
        return AddYAXDataBuffer(h, info, e.name, e.name_length, e.data_type, e.sub_info,
                                e.sub_info_length, e.data, e.data_length, v);
    }
};

// ---- what is added ----

template <typename Target>
struct EntryAdder {
    const Target &t;
    const EntryArgs &e;
    int first() const { return t.addFirst(e); }
    int add(YaxInfo *info, VonoInfo *v) const { return t.add(info, e, v); }
};

// A block the caller formatted, written as it is.
struct DirectAdder {
    FILE *fp;
    const void *block;
    uint32_t block_length;
    uint32_t has_sub_info;
    uint32_t data_type;
    int first() const {
        return AddDirectYAXDataInFirstTimeFP(fp, data_type, has_sub_info, block, block_length);
    }
    int add(YaxInfo *info, VonoInfo *v) const {
        return AddDirectYAXDataFP(fp, info, data_type, has_sub_info, block, block_length, v);
    }
};

// ---- the ladder ----

template <typename Target>
struct LegacyHold {
    const Target &t;
    VonoInfo *v;
    ~LegacyHold() { t.releaseLegacy(v); }
};

struct TrailerMsgs {
    const char *no_data, *check, *not_update;
};

// Adds to an existing trailer, replacing a same-name entry when allowed.
// `vono`, when given, is the legacy block kept behind the new tail.
template <typename Target, typename Adder>
int addToTrailer(const Target &t, const Adder &adder, const Request &rq, const BranchMsgs &m,
                 const TrailerMsgs &tm, VonoInfo *vono, uint32_t check_sub) {
    YAXDATA *yd = t.parse();
    if (yd == nullptr) {
        say(m, tm.no_data);
        return 0;
    }
    if (checkYAXInfoForSaving(yd->yax_info, rq.check_data, check_sub, rq.check_name) == 0) {
        t.release(yd);
        say(m, tm.check);
        return 0;
    }
    uint32_t index = _getIndexOfName(yd, rq.key);
    if (index < yd->count) {
        if ((rq.option & 1) == 0) {
            t.release(yd);
            say(m, tm.not_update);
            return 0;
        }
        int deleted = t.deleteEntry(yd->yax_info, index, vono);
        t.release(yd);
        if (deleted == 0) return 0;
        yd = t.parse();
        // The replaced entry was the only one: start a new trailer. A trailer
        // that is there but cannot be parsed (no memory) is not overwritten.
        if (yd == nullptr) {
            const int left = t.signature();
            return left == SIGNATURE_YAX || left == SIGNATURE_VONO_YAX ? 0 : adder.first();
        }
    }
    int result = adder.add(yd->yax_info, vono);
    t.release(yd);
    return result;
}

// The legacy sound becomes the TonePhoto entries "TonePhoto_000" and
// "TonePhoto_Meta_Info"; then the caller's entry follows them.
template <typename Target, typename Adder>
int convertThenAdd(const Target &t, const Adder &adder, const Request &rq, const BranchMsgs &m) {
    LegacyHold<Target> old{t, t.legacy()};
    if (old.v == nullptr) return 0;
    if (usable(old.v) &&
        checkVonoInfoForSaving(old.v, rq.check_data, rq.sub_for_vono, rq.check_name) == 0) {
        say(m, m.vono_too_big);
        return 0;
    }
    QBytes sound(_getAudioStreamBuffer(old.v));
    if (!sound) return 0;
    uint32_t sound_length = old.v->offsets[1] - old.v->offsets[0];

    // The name list is built before the legacy block goes, so that nothing is
    // removed when it cannot be built.
    unsigned char list[kToneListCapacity] = {};
    uint32_t list_length =
        makeFirstVonoHeader(list, kToneFirstName.data(), static_cast<uint32_t>(kToneFirstName.size()));
    if (list_length == 0) {
        say(m, m.vono_list);
        return 0;
    }
    if (t.dropLegacy(old.v) == 0) return 0;
    if (t.addTone(sound.get(), sound_length, list, list_length) == 0) {
        say(m, m.vono_first_add);
        return 0;
    }

    YAXDATA *yd = t.parse();
    if (yd == nullptr) return 0;
    // The conversion wrote a fresh legacy block behind the new trailer; the
    // add writes it again behind its own tail.
    LegacyHold<Target> fresh{t, t.legacy()};
    t.detach(fresh.v);
    int result = adder.add(yd->yax_info, fresh.v);
    t.release(yd);
    return result;
}

template <typename Target, typename Adder>
int saveSteps(const Target &t, const Adder &adder, const Request &rq, const BranchMsgs &m);

// The safe-edit mode makes every save one edit (see edit_group.hpp).
template <typename Target, typename Adder>
int saveDecision(const Target &t, const Adder &adder, const Request &rq, const BranchMsgs &m) {
    if constexpr (!Target::kUndoable) {
        return saveSteps(t, adder, rq, m);
    } else {
        api::EditGroup group(t.where(), rq.key, (rq.option & 1) != 0);
        if (!group.ready()) return 0;
        return group.finish(saveSteps(t, adder, rq, m));
    }
}

template <typename Target, typename Adder>
int saveSteps(const Target &t, const Adder &adder, const Request &rq, const BranchMsgs &m) {
    int signature = t.signature();
    switch (signature) {
    case SIGNATURE_NONE:
        return adder.first();
    case SIGNATURE_VONO:
        if constexpr (Target::kConvertsLegacy) return convertThenAdd(t, adder, rq, m);
        break;
    case SIGNATURE_YAX:
        return addToTrailer(t, adder, rq, m, {m.yax_no_data, m.yax_check, m.yax_not_update},
                            nullptr, rq.sub_for_yax);
    case SIGNATURE_VONO_YAX:
        if constexpr (Target::kConvertsLegacy) {
            LegacyHold<Target> legacy{t, t.legacy()};
            if (!usable(legacy.v)) {
                say(m, m.vono_yax_no_data);
                return 0;
            }
            t.detach(legacy.v);
            return addToTrailer(t, adder, rq, m,
                                {m.vono_yax_no_data, m.vono_yax_check, m.vono_yax_not_update},
                                legacy.v, rq.sub_for_vono_yax);
        }
        break;
    default:
        break;
    }
    // Unknown endings, and legacy audio where the target does not convert it.
    if (m.tag != nullptr && m.unknown_signature != nullptr)
        YAXLogE(m.tag, m.unknown_signature, signature);
    return 0;
}

// The path flavour has always handed 0 as the sub-information length to
// the room checks of both legacy branches; the stream flavour hands the
// caller's length everywhere.
Request pathRequest(const char *key, const EntryArgs &e, int option) {
    return {key, e.data_length, e.name_length, e.sub_info_length, 0, 0, option};
}
Request streamRequest(const char *key, const EntryArgs &e, int option) {
    return {key,
            e.data_length,
            e.name_length,
            e.sub_info_length,
            e.sub_info_length,
            e.sub_info_length,
            option};
}

bool hasSubInfo(const void *sub_info, uint32_t sub_info_length) {
    return sub_info != nullptr && sub_info_length != 0;
}

int saveEntryByPath(const char *path, const EntryArgs &e, int option, const BranchMsgs &m) {
    QChars key = api::copyName(e.name, e.name_length);
    if (!key) return 0;
    PathTarget t{path};
    return saveDecision(t, EntryAdder<PathTarget>{t, e}, pathRequest(key.get(), e, option), m);
}

int saveEntryByStream(FILE *fp, const EntryArgs &e, int option, const BranchMsgs &m) {
    QChars key = api::copyName(e.name, e.name_length);
    if (!key) return 0;
    StreamTarget t{fp};
    return saveDecision(t, EntryAdder<StreamTarget>{t, e}, streamRequest(key.get(), e, option), m);
}

constexpr const char *kTooBig = "Too big YAX data to add in the file";

// The argument checks the stream and buffer flavours share, with their lines.
bool nameGiven(const char *tag, const EntryArgs &e) {
    if (e.name != nullptr && e.name_length != 0) return true;
    YAXLogE(tag, "YAXName == VELTA_YAX_NULL || YAXName_len <= 0");
    return false;
}

// Payload present, sub-information where the type needs it, size limit.
bool payloadAccepted(const char *tag, const EntryArgs &e) {
    const char *msg = nullptr;
    if (e.data == nullptr || e.data_length == 0)
        msg = "data == VELTA_YAX_NULL || data_len <= 0";
    else if (e.data_type == YAX_USER_DEFINED_DATA && !hasSubInfo(e.sub_info, e.sub_info_length))
        msg = "type & sub wrong !!";
    else if (e.data_length >= layout::kSizeLimit)
        msg = kTooBig;
    if (msg != nullptr) YAXLogE(tag, msg);
    return msg == nullptr;
}

int saveEntryInBuffer(YAXBUFFER *h, const EntryArgs &e, int option) {
    QChars key = api::copyName(e.name, e.name_length);
    if (!key) return 0;
    BufferTarget t{h};
    return saveDecision(t, EntryAdder<BufferTarget>{t, e}, streamRequest(key.get(), e, option),
                        kBufferMsgs);
}

constexpr const char *kPathTag = "YAXAPI";

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT int saveYAXDataToFile(const char *path, const char *name, uint32_t name_length,
                                 const void *sub_info, uint32_t sub_info_length, const void *data,
                                 uint32_t data_length, uint32_t data_type, int option) {
    using namespace yax;
    if (data_length >= layout::kSizeLimit) {
        YAXLogE(kPathTag, kTooBig);
        return 0;
    }
    if (path == nullptr) {
        YAXLogE(kPathTag, "filename == VELTA_YAX_NULL");
        return 0;
    }
    if (name == nullptr || name_length == 0) {
        YAXLogE(kPathTag, "YAXName == VELTA_YAX_NULL || YAXName_len <= 0");
        return 0;
    }
    if (data == nullptr || data_length == 0) {
        YAXLogE(kPathTag, "data == VELTA_YAX_NULL || data_len <= 0");
        return 0;
    }
    if (data_type == YAX_USER_DEFINED_DATA && !hasSubInfo(sub_info, sub_info_length)) {
        YAXLogE(kPathTag,
                "data_type == YAX_USER_DEFINED_DATA && ( data_sub_info == VELTA_YAX_NULL || "
                "data_sub_info_len <= 0 )");
        return 0;
    }
    EntryArgs e{name, name_length, sub_info, sub_info_length, data, data_length, data_type};
    return saveEntryByPath(path, e, option, kSilent);
}

YAX_EXPORT int saveYAXDataToFP(FILE *fp, const char *name, uint32_t name_length,
                               const void *sub_info, uint32_t sub_info_length, const void *data,
                               uint32_t data_length, uint32_t data_type, int option) {
    using namespace yax;
    const char *tag = kStreamMsgs.tag;
    if (fp == nullptr) {
        YAXLogE(tag, "fp NULL !!");
        return 0;
    }
    EntryArgs e{name, name_length, sub_info, sub_info_length, data, data_length, data_type};
    if (!nameGiven(tag, e) || !payloadAccepted(tag, e)) return 0;
    return saveEntryByStream(fp, e, option, kStreamMsgs);
}

YAX_EXPORT int saveYAXDataToBuffer(YAXBUFFER *buffer, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const void *data, uint32_t data_length, uint32_t data_type,
                                   int option) {
    using namespace yax;
    const char *tag = kBufferMsgs.tag;
    if (buffer == nullptr) {
        YAXLogE(tag, "Buffer NULL !!");
        return 0;
    }
    EntryArgs e{name, name_length, sub_info, sub_info_length, data, data_length, data_type};
    if (!payloadAccepted(tag, e)) return 0;
    if (qbgetBufferSize(buffer) == 0) return 0;
    // Beyond what the buffer flavour has always checked: a name is required
    // (it is copied and compared), and a handle whose written size is not
    // inside its storage is not read or written at all.
    if (!nameGiven(tag, e)) return 0;
    if (buffer->buffer == nullptr || buffer->write_size < 0 ||
        static_cast<uint32_t>(buffer->write_size) > buffer->buffer_size) {
        YAXLogE(tag, "buffer write size out of range");
        return 0;
    }
    return saveEntryInBuffer(buffer, e, option);
}

YAX_EXPORT int saveYAXFileDataToFile(const char *path, const char *name, uint32_t name_length,
                                     const void *sub_info, uint32_t sub_info_length,
                                     const char *payload_path, uint32_t data_type, int option) {
    using namespace yax;
    if (path == nullptr || payload_path == nullptr || name == nullptr || name_length == 0)
        return 0;
    if (data_type == YAX_USER_DEFINED_DATA && !hasSubInfo(sub_info, sub_info_length)) return 0;
    api::PayloadFile payload;
    constexpr api::PayloadMsgs msgs{kPathTag, nullptr, kPathTag, nullptr, nullptr, nullptr};
    if (!payload.open(payload_path, msgs) || !payload.holdIfTarget(path, msgs)) return 0;
    EntryArgs e{name,           name_length,      sub_info,  sub_info_length,
                payload.data(), payload.length(), data_type, payload.source()};
    return saveEntryByPath(path, e, option, kSilent);
}

YAX_EXPORT int saveYAXFileDataToFP(FILE *fp, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const char *payload_path, uint32_t data_type, int option) {
    using namespace yax;
    constexpr const char *tag = "YAXAPIs::saveYAXFileDataToFP";
    if (fp == nullptr) {
        YAXLogE(tag, "fp null\n");
        return 0;
    }
    if (name == nullptr || name_length == 0) {
        YAXLogE(tag, "YAXName null or yax name length is 0. the length is larger than 1\n");
        return 0;
    }
    if (data_type == YAX_USER_DEFINED_DATA && !hasSubInfo(sub_info, sub_info_length)) {
        YAXLogE(tag, "data_type fail\n");
        return 0;
    }
    api::PayloadFile payload;
    constexpr api::PayloadMsgs msgs{tag, "fopen fail", tag, "File Search Error %d\n",
                                    "File Search Error\n", "data null\n"};
    if (payload_path == nullptr) {
        YAXLogE(tag, msgs.open_fail);
        return 0;
    }
    if (!payload.open(payload_path, msgs) || !payload.holdIfTarget(fileno(fp), msgs)) return 0;
    EntryArgs e{name,           name_length,      sub_info,  sub_info_length,
                payload.data(), payload.length(), data_type, payload.source()};
    return saveEntryByStream(fp, e, option, kSilent);
}

YAX_EXPORT int saveDirectYAXData(FILE *fp, const void *block, uint32_t block_length,
                                 const char *name, uint32_t has_sub_info, uint32_t data_type,
                                 int option) {
    using namespace yax;
    constexpr const char *tag = "YAXAPIs::saveDirectYAXData";
    if (fp == nullptr) {
        YAXLogE(tag, "fp == VELTA_YAX_NULL");
        return 0;
    }
    if (name == nullptr) {
        YAXLogE(tag, "YAXName == VELTA_YAX_NULL");
        return 0;
    }
    if (block == nullptr || block_length == 0) {
        YAXLogE(tag, "data == VELTA_YAX_NULL || data_len <= 0");
        return 0;
    }
    if (data_type == YAX_USER_DEFINED_DATA && has_sub_info == 0) {
        YAXLogE(tag, "data_type == YAX_USER_DEFINED_DATA && ( !check_data_sub_info )");
        return 0;
    }
    // The block already holds its own sub-information; the room checks count
    // only the block and the name.
    uint32_t name_length = static_cast<uint32_t>(std::strlen(name));
    Request rq{name, block_length, name_length, 0, 0, 0, option};
    StreamTarget t{fp};
    return saveDecision(t, DirectAdder{fp, block, block_length, has_sub_info, data_type}, rq,
                        kSilent);
}

YAX_EXPORT int saveYAXDataHeaderToFP(FILE *fp, const char *name, uint32_t name_length,
                                     const void *sub_info, uint32_t sub_info_length,
                                     uint32_t data_type) {
    using namespace yax;
    constexpr const char *tag = "YAXAPIs::saveYAXDataHeaderToFP";
    if (fp == nullptr) {
        YAXLogE(tag, "fp == VELTA_YAX_NULL");
        return 0;
    }
    if (name == nullptr || name_length == 0) {
        YAXLogE(tag, "YAXName == VELTA_YAX_NULL || YAXName_len <= 0");
        return 0;
    }
    bool has_sub = hasSubInfo(sub_info, sub_info_length);
    if (data_type == YAX_USER_DEFINED_DATA && !has_sub) {
        // No blanks inside the parentheses here, unlike the other saves.
        YAXLogE(tag,
                "data_type == YAX_USER_DEFINED_DATA && (data_sub_info == VELTA_YAX_NULL || "
                "data_sub_info_len <= 0)");
        return 0;
    }
    // The streaming pair only ever starts a trailer; anything else is left
    // alone and reported as done.
    if (getSignatureFP(fp) != SIGNATURE_NONE) return 1;
    if (static_cast<uint32_t>(_qlseek64(fp, 0, SEEK_END)) == 0) {
        YAXLogE(tag, "File Search Error");
        return 0;
    }
    uint32_t sub_length = has_sub ? sub_info_length : 0;
    if (_writeDataTagInfo(fp, data_type, has_sub ? 1 : 0, name, name_length, sub_info,
                          sub_length) == 0) {
        YAXLogE(tag, "File Write Error");
        return 0;
    }
    return static_cast<int>(_getDataLength(has_sub ? 1 : 0, name_length, sub_length, 0));
}

YAX_EXPORT int saveYAXTailToFP(FILE *fp, uint32_t block_length, uint32_t data_type,
                               uint32_t has_sub_info) {
    if (block_length >= yax::layout::kSizeLimit) {
        YAXLogE("YAXAPIs::saveYAXTailToFP", "Too big YAX data to add in the file");
        return 0;
    }
    if (fp == nullptr) return 0;
    if (getSignatureFP(fp) != SIGNATURE_NONE) return 1;
    return saveFirstYAXTailToFP(fp, block_length, data_type, has_sub_info);
}

}  // extern "C"
