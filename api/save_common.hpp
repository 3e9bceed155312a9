#pragma once
// Pieces shared by the save, fast-save and delete entry points: owned
// allocations, a zero-terminated copy of a caller's key name, and opening a
// payload file for streaming with each caller's own messages.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>

#include "container/layout.hpp"
#include "support/copy.hpp"
#include "yax_support.h"

namespace yax::api {

struct QFree {
    void operator()(void *p) const { _qfree(p); }
};
using QBytes = std::unique_ptr<unsigned char, QFree>;
using QChars = std::unique_ptr<char, QFree>;

// Names arrive with an explicit length and need not be terminated; lookups
// compare terminated strings, so they get a copy of exactly those bytes.
inline QChars copyName(const char *name, uint32_t name_length) {
    if (name == nullptr) return QChars();
    uint64_t size = uint64_t{name_length} + 1;
    if (size > SIZE_MAX) return QChars();
    auto *copy = static_cast<char *>(_qmalloc(static_cast<size_t>(size)));
    if (copy == nullptr) return QChars();
    _qmemcpy(copy, name, name_length);
    copy[name_length] = '\0';
    return QChars(copy);
}

// Messages of one payload-file reader. A null text is a silent failure; the
// size refusal is always logged, under `too_big_tag`.
struct PayloadMsgs {
    const char *tag;
    const char *open_fail;    // the payload file cannot be opened
    const char *too_big_tag;  // "Too big YAX data to add in the file"
    const char *empty;        // size 0 (printf-style, takes the size)
    const char *rewind_fail;  // the seek back to the start failed
    const char *alloc_fail;   // no memory for the payload
};

// A payload file opened for streaming: its size checked, the stream's
// buffer allocated, the file held open until the save is done. The order of
// the checks and their messages are those of reading the whole file into
// memory, which the saves did before they streamed; the allocation that
// could fail then (the whole payload) is now the stream's buffer, and its
// failure still gives the flavour's `alloc_fail` line, before anything is
// written.
class PayloadFile {
public:
    PayloadFile() = default;
    ~PayloadFile() {
        if (fp_ != nullptr) _qfclose(fp_);
    }
    PayloadFile(const PayloadFile &) = delete;
    PayloadFile &operator=(const PayloadFile &) = delete;

    bool open(const char *path, const PayloadMsgs &m) {
        fp_ = _qfopen(path, "rb");
        if (fp_ == nullptr) {
            if (m.open_fail) YAXLogE(m.tag, m.open_fail);
            return false;
        }
        const int64_t size = _qlseek64(fp_, 0, SEEK_END);
        if (size >= static_cast<int64_t>(layout::kSizeLimit)) {
            YAXLogE(m.too_big_tag, "Too big YAX data to add in the file");
            return false;
        }
        if (size <= 0) {
            if (m.empty) YAXLogE(m.tag, m.empty, static_cast<int>(size));
            return false;
        }
        if (_qlseek64(fp_, 0, SEEK_SET) < 0) {
            if (m.rewind_fail) YAXLogE(m.tag, m.rewind_fail);
            return false;
        }
        buffer_.reset(static_cast<unsigned char *>(_qmalloc(kCopyChunk)));
        if (!buffer_) {
            if (m.alloc_fail) YAXLogE(m.tag, m.alloc_fail);
            return false;
        }
        source_.fd = fileno(fp_);
        source_.length = static_cast<uint32_t>(size);
        source_.buffer = buffer_.get();
        return true;
    }
    // A payload file that is the target itself cannot be streamed into it
    // (the add writes over what it still has to read): it is read whole into
    // memory first, as every payload used to be. False (after the
    // flavour's `alloc_fail` line) when there is no memory for it.
    bool holdIfTarget(int target_fd, const PayloadMsgs &m) {
        struct stat a {}, b {};
        if (target_fd < 0 || fstat(target_fd, &a) != 0 || fstat(source_.fd, &b) != 0 ||
            a.st_dev != b.st_dev || a.st_ino != b.st_ino)
            return true;
        return hold(m);
    }
    // Reads the whole payload into memory, for the saves that do not stream.
    bool hold(const PayloadMsgs &m) {
        held_.reset(static_cast<unsigned char *>(_qmalloc(source_.length)));
        if (!held_) {
            if (m.alloc_fail) YAXLogE(m.tag, m.alloc_fail);
            return false;
        }
        const int got = _qfread(held_.get(), source_.length, fp_);
        return got > 0 && static_cast<uint32_t>(got) == source_.length;
    }
    bool holdIfTarget(const char *target_path, const PayloadMsgs &m) {
        const int fd = target_path != nullptr ? ::open(target_path, O_RDONLY | O_CLOEXEC) : -1;
        const bool ok = holdIfTarget(fd, m);
        if (fd >= 0) ::close(fd);
        return ok;
    }
    // Either the payload in memory (held) or its stream, never both.
    const void *data() const { return held_.get(); }
    const PayloadSource *source() const { return held_ ? nullptr : &source_; }
    uint32_t length() const { return source_.length; }

private:
    FILE *fp_ = nullptr;
    QBytes buffer_;
    QBytes held_;
    PayloadSource source_;
};

}  // namespace yax::api

namespace yax {
// saveFastYAXDataToFP with its checks and lines, for a payload in memory
// (`data`) or streamed from a file (`source`); the MP4 save and the fast
// savers of a payload file share it.
int fastSaveChecked(FILE *fp, const char *name, uint32_t name_length, const void *sub_info,
                    uint32_t sub_info_length, const void *data, uint32_t data_length,
                    uint32_t data_type, int option, const PayloadSource *source);
}  // namespace yax
