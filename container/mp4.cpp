// The "yaxd" box that holds a trailer inside an MP4 file: its detection, its
// creation in front of a first entry, the box put around a trailer that had
// none, and the size refresh after the boxed trailer grew.
//
// The stored size counts the 8 bytes of the box head when the box is made in
// front of a first entry and when it is refreshed, but not when it is put
// around an existing trailer (8 less). Readers of these files have always
// seen the three sizes so; they stay.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "container/layout.hpp"
#include "support/gather.hpp"
#include "support/io.hpp"
#include "yax_container.h"
#include "yax_support.h"

namespace {

using namespace yax;
using namespace yax::layout;

constexpr const char *kSearchError = "File Search Error";
constexpr const char *kWriteError = "File Write Error";

}  // namespace

extern "C" {

YAX_EXPORT int checkMP4Fp(FILE *fp) {
    if (fp == nullptr) return 0;
    const FileIO io{fp};
    io.seek(0, SEEK_END);
    (void)_qftell(fp);  // looked at once, never used
    io.seek(0, SEEK_SET);
    if (io.seek(4, SEEK_SET) < 1) return 0;
    unsigned char brand[4];
    if (io.read(brand, sizeof brand) != static_cast<int>(sizeof brand)) {
        // the box check's tag, shared on purpose
        YAXLogE("YAX::checkSignatureMP4Tag", "File Read Error");
        return 0;
    }
    if (std::memcmp(brand, "ftyp", 4) != 0) return 0;
    io.seek(0, SEEK_SET);
    return 1;
}

YAX_EXPORT int writeFirstMP4Tag(FILE *fp, uint32_t size) {
    constexpr const char *tag = "YAX::writeFirstMP4Tag";
    if (fp == nullptr || FileIO{fp}.seek(0, SEEK_END) < 1) {
        YAXLogE(tag, kSearchError);
        return 0;
    }
    if (_writeYAX_TOTALSIZE(fp, size) == FileIO::kWriteFailure ||
        _writeYAX_MP4S(fp) == FileIO::kWriteFailure) {
        YAXLogE(tag, kWriteError);
        return 0;
    }
    return 1;
}

YAX_EXPORT int writeMP4Tag(YaxInfo *info, uint32_t added) {
    constexpr const char *tag = "YAX::writeMP4Tag";
    if (info == nullptr || info->fp == nullptr) return 0;
    // The grown trailer: the parsed one, the block just added and its row.
    const int64_t start = info->data_start_position;
    const int64_t length = info->file_size + int64_t{added} - start + kRowSize;
    if (start < 0 || length <= 0 || length > int64_t{kSizeLimit - 1}) {
        YAXLogE(tag, "the trailer does not fit in a box");
        return 0;
    }
    // The grown trailer must end where the file ends; a save that rebuilt the
    // trailer instead of growing it (a replaced entry whose block was too
    // small for filler) leaves the parse stale, and the box is not put
    // around bytes that are not the trailer.
    const int64_t end = _qlseek64(info->fp, 0, SEEK_END);
    if (end != start + length) {
        YAXLogE(tag, "the trailer is not where the parse left it (%lld bytes, file ends at %lld): no box",
                static_cast<long long>(start + length), static_cast<long long>(end));
        return 0;
    }
    const auto n = static_cast<uint32_t>(length);
    // zero-filled: a read that comes up short leaves zeros, not stale heap
    auto *trailer = static_cast<unsigned char *>(_qcalloc(1, n));
    if (trailer == nullptr) return 0;
    const FileIO io{info->fp};
    int result = 0;
    if (io.seek(start, SEEK_SET) < 0) {
        YAXLogE(tag, kSearchError);
    } else {
        io.read(trailer, n);
        // Box head and the trailer 8 bytes further on go out in one write
        // (see WriteGather); a failed size or token write ends it silently.
        result = writeAtOnce(info->fp, [&] {
            if (io.seek(start, SEEK_SET) < 0) {
                YAXLogE(tag, kSearchError);
                return 0;
            }
            if (_writeYAX_TOTALSIZE(info->fp, n) == FileIO::kWriteFailure ||
                _writeYAX_MP4S(info->fp) == FileIO::kWriteFailure)
                return 0;
            if (io.write(trailer, n) == FileIO::kWriteFailure) {
                YAXLogE(tag, kWriteError);
                return 0;
            }
            return 1;
        });
    }
    _qfree(trailer);
    return result;
}

YAX_EXPORT int updateMP4Tag(YaxInfo *info) {
    constexpr const char *tag = "YAX::updateMP4Tag";
    if (info == nullptr || info->fp == nullptr ||
        FileIO{info->fp}.seek(info->data_start_position, SEEK_SET) < 1) {
        YAXLogE(tag, kSearchError);
        return 0;
    }
    const auto size = static_cast<uint32_t>(info->file_size - info->data_start_position);
    if (_writeYAX_TOTALSIZE(info->fp, size) == FileIO::kWriteFailure) {
        YAXLogE(tag, kWriteError);
        return 0;
    }
    return 1;
}

}  // extern "C"
