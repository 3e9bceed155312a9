#pragma once
// Link-time wrappers (-Wl,--wrap) around the calls an edit makes to change a
// file: they make the Nth call of one kind fail, and can record every change
// to replay it later. Programs linked with them read YAX_FAULT="kind:N" and
// write "fired" to the file named by YAX_FAULT_REPORT when the fault was hit.
#include <cstdint>
#include <string>
#include <vector>

namespace fault {

enum Kind { kWrite, kClose, kFsync, kTruncate, kRename, kAlloc, kKinds };
extern const char *const kKindNames[kKinds];

void arm(Kind kind, int n);  // the nth call of `kind` from now on fails
void disarm();

// Reads of one file: `hook` runs before the nth read of `path`, and with
// `fail` set that read and every later one fails with EIO.
void onRead(const std::string &path, int n, bool fail, void (*hook)(const std::string &) = nullptr);
int readsOf();  // reads of that path seen since onRead
bool fired();
// The next read of exactly `asked` bytes returns only `keep` (0: end of file).
void shortRead(size_t asked, size_t keep);  // then the descriptor reads as ended

// A change made to a file, in the order made.
struct Op {
    enum What { kWriteAt, kTruncateTo, kRenameTo, kUnlink } what;
    std::string path, to;
    int64_t at = 0;
    std::vector<unsigned char> bytes;
};
void record(bool on);
std::vector<Op> takeOps();

}  // namespace fault
