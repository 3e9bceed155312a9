#pragma once
// Many small reads close together in one file (the name heads of a long
// entry table), served from a small window of the file: one pread fills it,
// seeks only move a position, and when the window closes the descriptor's own
// offset is left where the plain reads would have left it. Reads and seeks
// answer what read(2) and _qlseek64 answer on a file that nobody changes
// meanwhile, short reads at the end and the refused seek's line included.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "support/bytes.hpp"
#include "yax_support.h"

namespace yax {

class ReadWindow {
public:
    static constexpr bool kIsBuffer = false;
    // Small enough that a table of large blocks does not copy much per name,
    // large enough to hold several heads of small blocks.
    static constexpr size_t kSize = 2048;

    explicit ReadWindow(FILE *fp) : fd_(fp != nullptr ? fileno(fp) : -1) {
        if (fd_ < 0) return;
        pos_ = ::lseek64(fd_, 0, SEEK_CUR);
        size_ = pos_ < 0 ? -1 : ::lseek64(fd_, 0, SEEK_END);
        if (size_ < 0 && pos_ >= 0) ::lseek64(fd_, pos_, SEEK_SET);
    }
    ~ReadWindow() {
        if (usable()) ::lseek64(fd_, pos_, SEEK_SET);
    }
    ReadWindow(const ReadWindow &) = delete;
    ReadWindow &operator=(const ReadWindow &) = delete;

    // Not a seekable file (or no file): the caller reads the plain way.
    bool usable() const { return pos_ >= 0 && size_ >= 0; }

    int64_t seek(int64_t offset, int whence) {
        const int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? pos_ : size_;
        const int64_t to = base + offset;
        if (to < 0) {
            errno = EINVAL;
            YAXLogE("_qlseek", "errno : %d", EINVAL);
            return -1;
        }
        return pos_ = to;
    }

    int read(void *dest, uint32_t n) {
        auto *out = static_cast<unsigned char *>(dest);
        uint32_t got = 0;
        while (got < n && pos_ < size_) {
            if (pos_ < start_ || pos_ >= start_ + static_cast<int64_t>(have_)) {
                const ssize_t r = ::pread64(fd_, window_, kSize, pos_);
                if (r < 0) return got == 0 ? -1 : static_cast<int>(got);
                if (r == 0) break;
                start_ = pos_;
                have_ = static_cast<size_t>(r);
            }
            const uint64_t avail = static_cast<uint64_t>(start_ + static_cast<int64_t>(have_) - pos_);
            const uint32_t k = avail < n - got ? static_cast<uint32_t>(avail) : n - got;
            std::memcpy(out + got, window_ + (pos_ - start_), k);
            got += k;
            pos_ += k;
        }
        return static_cast<int>(got);
    }

    int read32(uint32_t *v) {
        unsigned char b[4] = {0, 0, 0, 0};
        const int r = read(b, sizeof b);
        *v = get32(b);  // missing bytes count as 0
        return r;
    }

private:
    int fd_;
    int64_t pos_ = -1, size_ = -1, start_ = 0;
    size_t have_ = 0;
    unsigned char window_[kSize];
};

}  // namespace yax
