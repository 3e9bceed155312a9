// TonePhoto entries: sounds kept as trailer entries, the "TonePhoto_Meta_Info"
// name list that goes with them, and the one-sound Vono block written behind
// the trailer so that older readers still find the newest sound.
//
// Name-list payload: word0, word1, N, N name lengths, the names back to back.
// A payload built from scratch starts with 1, 0; an edited one keeps the two
// words it was read with.
#include <cstdint>
#include <cstring>

#include "container/layout.hpp"
#include "support/bytes.hpp"
#include "support/io.hpp"
#include "support/misrouted_write.hpp"
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

}  // extern "C"
