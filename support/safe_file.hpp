#pragma once
// What keeps an edit from losing the file it works on.
//
// Always on (no documented result or log line depends on it): the finished
// file is flushed to the disk with fsync before an edit returns, and a
// rewritten file keeps the original's mode, owner (where permitted) and
// extended attributes; headers, tables and moved blocks go out in one write
// each, an add's new trailer before its block (see gather.hpp and the adds).
//
// Under the safe-edit mode (yaxSetSafeEdit, process-wide, off by default):
//  - a rewriting edit writes its temporary file beside the real target
//    (symlinks resolved) under a mkstemp name made from the target's folder
//    and base name, checks every write and the close, and on any failure
//    removes it and leaves the target alone; the finished file is renamed
//    over the target (no remove first) and the folder is flushed; a target
//    with several hard links is instead written over from the first byte
//    that changes, under an undo scope, so that every name sees the edit;
//  - an appending or in-place edit first saves the bytes it is about to
//    change and the file's length in an undo file beside the target; a
//    failed write puts them back before the edit reports failure, and after
//    an interruption yaxRecoverEdit puts them back.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/io.hpp"

namespace yax {

bool safeEdits();

// Every failed or short write, short copy read and failed copy allocation of
// this thread is counted; an edit compares the count before and after.
uint64_t ioFailures();
void noteIoFailure();

// fsync of the stream's descriptor; false when it fails.
bool syncStream(FILE *fp);
// fsync of the folder that holds `path`.
void syncFolder(const std::string &path);

// The temporary file of one rewriting edit of `path`.
class RewriteTemp {
public:
    // `documented` makes the default mode's temporary name (a heap string,
    // null when none can be made); the safe mode makes its own.
    RewriteTemp(const char *path, char *(*documented)(const char *));
    ~RewriteTemp();
    RewriteTemp(const RewriteTemp &) = delete;
    RewriteTemp &operator=(const RewriteTemp &) = delete;

    bool named() const { return !name_.empty(); }
    // False when the file cannot be made. What an edit reports when it stops
    // with the target untouched after this point is untouchedResult(): 1 in
    // the default mode (documented), 0 in safe mode.
    bool open(const char *mode);
    int untouchedResult() const { return safe_ ? 0 : 1; }
    FILE *fp() const { return fp_; }
    // Flushes, gives the temporary file the original's metadata and closes
    // it. Safe mode: false (and the temporary file removed) when a write since
    // open() or the close failed.
    bool finish();
    // Puts the finished file in place of the target, with `tag` for the
    // retry loop's messages. On failure in safe mode the temporary file is
    // removed; in the default mode it stays, as documented.
    bool replace(const char *path, const char *tag);

private:
    std::string target_;  // the real file: symlinks resolved in safe mode
    std::string name_;
    FILE *fp_ = nullptr;
    uint64_t failures_ = 0;
    bool safe_ = false;
    bool done_ = false;
};

// One appending or in-place edit of an open file. In safe mode the bytes from
// `from` to the end and the length are saved (in memory and in the undo file)
// before the edit writes; commit() checks that no write failed since, and
// restores the old bytes when one did (as does destruction without commit).
// In the default mode it only flushes the file on commit.
//
// Scopes nest: one made while another is open on this thread (the delete and
// the add of a replace, inside the save's own scope) saves nothing and only
// reports failed writes; the outermost one puts everything back.
//
// An edit that streams its payload from another file hands `abandoned`, the
// flag the stream sets when that file cannot be read whole (it shrank, grew
// or failed): then the old bytes are saved in memory in the default mode too
// (no undo file, no fsync), and the scope puts them back when the flag is
// set at commit or destruction. Write failures keep each mode's own rule.
class UndoScope {
public:
    UndoScope(FILE *fp, int64_t from, const bool *abandoned = nullptr);
    // By name: the bytes go back into whatever file has the name by then (a
    // rewriting edit inside the scope may have renamed a new one into place).
    UndoScope(const char *path, int64_t from);
    ~UndoScope();
    UndoScope(const UndoScope &) = delete;
    UndoScope &operator=(const UndoScope &) = delete;

    // False in safe mode when the old bytes could not be saved: the edit must
    // not start.
    bool ready() const { return ready_; }
    // True when the edit stands (always in the default mode).
    bool commit();

private:
    void save(int fd, const std::string &real);
    void restore();
    void release();
    bool abandoned() const { return abandoned_ != nullptr && *abandoned_; }
    int openForWrite() const;
    void closeAfterWrite(int fd) const;
    FILE *fp_ = nullptr;
    std::string path_;  // set when the scope works by name
    bool safe_;
    const bool *abandoned_ = nullptr;
    bool nested_ = false;
    bool ready_ = true;
    bool open_ = false;
    int64_t from_ = 0, length_ = 0;
    std::vector<unsigned char> old_;
    std::string journal_;
    uint64_t failures_ = 0;
};

// An edit of a buffer stream in either mode: the written bytes from `from` on
// and the written size are kept in memory, and put back unless the edit
// commits. Bytes the failed edit wrote beyond the old end are cleared, as a
// truncation clears them. Without this, an add that runs out of capacity
// part way leaves a buffer whose trailer is gone. A handle whose written
// size lies outside its storage is not edited at all.
class BufUndo {
public:
    BufUndo(YAXBUFFER *h, int64_t from) : h_(h) {
        if (h == nullptr || h->buffer == nullptr) return;  // the edit fails on its own
        if (h->write_size < 0 || static_cast<uint32_t>(h->write_size) > h->buffer_size ||
            from < 0 || from > h->write_size) {
            ready_ = false;
            return;
        }
        try {
            old_.assign(h->buffer + from, h->buffer + h->write_size);
        } catch (...) {
            ready_ = false;
            return;
        }
        from_ = from;
        size_ = h->write_size;
        armed_ = true;
    }
    ~BufUndo() {
        if (armed_) restore();
    }
    BufUndo(const BufUndo &) = delete;
    BufUndo &operator=(const BufUndo &) = delete;

    bool ready() const { return ready_; }
    bool commit() {
        armed_ = false;
        return true;
    }

private:
    void restore() {
        const int32_t now = h_->write_size;
        if (now > size_ && static_cast<uint32_t>(now) <= h_->buffer_size)
            std::memset(h_->buffer + size_, 0, static_cast<size_t>(now - size_));
        if (!old_.empty()) std::memcpy(h_->buffer + from_, old_.data(), old_.size());
        h_->write_size = size_;
        if (h_->position > size_) h_->position = size_;
    }
    YAXBUFFER *h_;
    std::vector<unsigned char> old_;
    int64_t from_ = 0;
    int32_t size_ = 0;
    bool ready_ = true;
    bool armed_ = false;
};

inline UndoScope undoScope(const FileIO &io, int64_t from, const bool *abandoned = nullptr) {
    return UndoScope(io.fp, from, abandoned);
}
// a buffer's payload never comes from a file, so nothing abandons its edit part way
inline BufUndo undoScope(const BufIO &io, int64_t from, const bool * = nullptr) { return BufUndo(io.h, from); }

}  // namespace yax
