#pragma once
// Writes held back and sent together. While a WriteGather is open on a
// stream, every field and byte write of this thread to that stream's
// descriptor lands in memory at the position it would have had (the
// descriptor's offset still moves as if it had been written) and reports
// success. send() then puts each contiguous run on the disk with one write.
//
// An edit that rewrites a header, a table or a run of blocks in place does
// it this way so that an interruption finds the old bytes or the new ones
// and, at worst, one torn write, instead of a header cut anywhere between
// two of its fields. The final bytes are those of the field-by-field
// writes. When sending fails, what went out is put back (the old bytes and
// the old length) and the caller runs the usual field-by-field writes, which
// meet the failure themselves and log it as they always have.
#include <cstdint>
#include <cstdio>
#include <vector>

namespace yax {

class WriteGather {
public:
    explicit WriteGather(FILE *fp);
    ~WriteGather();
    WriteGather(const WriteGather &) = delete;
    WriteGather &operator=(const WriteGather &) = delete;

    // Sends what was gathered and stops gathering. False (with the file as
    // it was, as far as the disk allows) when a write failed or fell short;
    // the stream's offset is then back where it was when the gather began.
    bool send();

    // Used by the file primitives: takes `n` bytes written to `fd`, or
    // answers false when no gather holds that descriptor.
    static bool take(int fd, const void *p, size_t n);
    // Whether a gather of this thread holds `fd`.
    static bool holds(int fd);

private:
    struct Run {
        int64_t at;
        std::vector<unsigned char> bytes;
    };
    int fd_;
    int64_t start_;
    std::vector<Run> runs_;
    WriteGather *outer_;
};

// Runs `put` (writes at positions it seeks itself) gathered; when sending
// fails, runs it again the usual way. Returns what the run that counted
// returned.
template <typename Put>
auto writeAtOnce(FILE *fp, Put put) -> decltype(put()) {
    {
        WriteGather gather(fp);
        auto result = put();
        if (gather.send()) return result;
    }
    return put();
}

}  // namespace yax
