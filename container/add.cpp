// Adding one entry. Every add appends: a first add writes the block and a
// one-row header at the end of the file; a later add writes the new block
// where the old header began, then a header one row longer and the tail.
// Nothing is truncated and no temporary file is used; the file only grows
// (the fast add may instead reuse the space of the filler entry, row 0).
//
// The path, FILE* and buffer flavours share one body per algorithm; what a
// flavour changes (log tags and messages, how a failed seek or write is
// recognised) is spelled out in the flavour tables below.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <unistd.h>

#include "container/add.hpp"
#include "container/layout.hpp"
#include "container/validate.hpp"
#include "support/gather.hpp"
#include "support/io.hpp"
#include "support/safe_file.hpp"
#include "yax_container.h"
#include "yax_support.h"
#include "yax_vono.h"

namespace yax {
namespace {

using namespace layout;

constexpr const char *kUserDataMsg = "if Data type is UserData then must use DataSubInfo";
constexpr const char *kTooBigMsg = "YAX data is too big for one block";

// ---- the field writers of each backend ----

int tagInfo(const FileIO &io, uint32_t type, uint32_t has_sub, const char *name, uint32_t name_len,
            const void *sub, uint32_t sub_len) {
    return _writeDataTagInfo(io.fp, type, has_sub, name, name_len, sub, sub_len);
}
int tagInfo(const BufIO &io, uint32_t type, uint32_t has_sub, const char *name, uint32_t name_len,
            const void *sub, uint32_t sub_len) {
    return _writeDataTagInfoBuffer(io.h, type, has_sub, name, name_len, sub, sub_len);
}
int qtss(const FileIO &io) { return _writeYAX_QTSS(io.fp); }
int qtss(const BufIO &io) { return _writeYAX_QTSS_Buffer(io.h); }
int qver(const FileIO &io) { return _writeYAX_QVER(io.fp); }
int qver(const BufIO &io) { return _writeYAX_QVER_Buffer(io.h); }
int qcnt(const FileIO &io, uint32_t n) { return _writeYAX_QCnt(io.fp, n); }
int qcnt(const BufIO &io, uint32_t n) { return _writeYAX_QCnt_Buffer(io.h, n); }
int qdr(const FileIO &io, YaxEntry *row) { return _writeYAX_QDR(io.fp, row); }
int qdr(const BufIO &io, YaxEntry *row) { return _writeYAX_QDR_Buffer(io.h, row); }
int qtho(const FileIO &io, uint32_t n) { return _writeYAX_QTHO(io.fp, n); }
int qtho(const BufIO &io, uint32_t n) { return _writeYAX_QTHO_Buffer(io.h, n); }
int qts(const FileIO &io) { return _writeYAX_QTS(io.fp); }
int qts(const BufIO &io) { return _writeYAX_QTS_Buffer(io.h); }
int vonoHeader(const FileIO &io, uint32_t start, uint32_t end) {
    return _writeVonoHeader(io.fp, start, end);
}
int vonoHeader(const BufIO &io, uint32_t start, uint32_t end) {
    return _writeVonoHeaderBuffer(io.h, start, end);
}

// ---- how a flavour recognises a failed step, and what it says ----

enum class FailTest {
    kNone,     // results are not looked at
    kZero,     // a result of 0 fails (the buffer writers' failure value)
    kBackend,  // the backend's own failure value (-1 for files, 0 for buffers)
};

template <typename IO>
class Checker {
public:
    Checker(const IO &io, const char *tag, FailTest test) : io_(io), tag_(tag), test_(test) {}
    // A write result: logs `msg` and answers false when it counts as failed.
    bool wrote(int result, const char *msg) const {
        bool failed = test_ == FailTest::kZero      ? result == 0
                      : test_ == FailTest::kBackend ? io_.writeFailed(result)
                                                    : false;
        return report(failed, msg);
    }
    // A step that reports 1 or 0 itself (the block's leading fields).
    bool succeeded(int result, const char *msg) const {
        return report(test_ != FailTest::kNone && result == 0, msg);
    }

private:
    bool report(bool failed, const char *msg) const {
        if (failed) YAXLogE(tag_, msg);
        return !failed;
    }
    IO io_;
    const char *tag_;
    FailTest test_;
};

// Messages of the header writes, in emission order.
struct HeaderMessages {
    const char *qtss, *qver, *qcnt;
};
constexpr HeaderMessages kFieldMessages{"file _writeYAX_QTSS error\n", "file _writeYAX_QVER error\n",
                                        "file _writeYAX_QCnt error\n"};
constexpr const char *kQdrMsg = "file _writeYAX_QDR error\n";
constexpr const char *kQthoMsg = "file _writeYAX_QTHO error\n";
constexpr const char *kQtsMsg = "file _writeYAX_QTS error\n";

// Header and tail: "YAXH", 105, count, the old rows (none for a first add),
// the new row, header size, "YAXT".
template <typename IO>
bool putHeader(const IO &io, const Checker<IO> &check, const HeaderMessages &msgs,
               const YaxInfo *info, uint32_t new_meta, uint32_t new_length) {
    const uint32_t old_rows = info != nullptr ? info->meta_count : 0;
    if (!check.wrote(qtss(io), msgs.qtss) || !check.wrote(qver(io), msgs.qver) ||
        !check.wrote(qcnt(io, old_rows + 1), msgs.qcnt))
        return false;
    for (uint32_t i = 0; i < old_rows; ++i) {
        if (!check.wrote(qdr(io, info->meta_data[i]), kQdrMsg)) return false;
    }
    YaxEntry row{};
    row.meta_type = new_meta;
    row.offset = new_length;
    row.length = new_length;
    return check.wrote(qdr(io, &row), kQdrMsg) && check.wrote(qtho(io, old_rows + 1), kQthoMsg) &&
           check.wrote(qts(io), kQtsMsg);
}

// The payload, from memory or streamed from its file. A payload file that
// cannot be read whole is not a failed write: the caller looks at
// e.sourceFailed() right after.
int putPayload(const FileIO &io, const NewEntry &e) {
    return e.source != nullptr ? e.source->writeTo(fileno(io.fp)) : io.write(e.data, e.data_length);
}
int putPayload(const BufIO &io, const NewEntry &e) { return io.write(e.data, e.data_length); }

// The block: leading fields, then the payload.
template <typename IO>
bool putBlock(const IO &io, const Checker<IO> &check, const NewEntry &e, const char *tag_info_msg,
              const char *payload_msg) {
    return check.succeeded(tagInfo(io, e.data_type, e.has_sub_info, e.name, e.name_length,
                                   e.sub_info, e.sub_info_length),
                           tag_info_msg) &&
           check.wrote(putPayload(io, e), payload_msg) && !e.sourceFailed();
}

// True when every row of the table exists.
bool tableUsable(const YaxInfo *info) {
    if (info->meta_count == 0) return true;
    if (info->meta_data == nullptr) return false;
    for (uint32_t i = 0; i < info->meta_count; ++i) {
        if (info->meta_data[i] == nullptr) return false;
    }
    return true;
}

// Offsets count back from the header; the header moves back by the new block.
void shiftRows(YaxInfo *info, uint32_t by) {
    for (uint32_t i = 0; i < info->meta_count; ++i) info->meta_data[i]->offset += by;
}

// The old header's first byte: header_offset before the end.
template <typename IO>
int64_t headerPosition(const IO &io, const YaxInfo *info) {
    return io.seek(-static_cast<int64_t>(info->header_offset), SEEK_END);
}

// ---- first add: no trailer yet ----

enum class EndSeekRule {
    kLow32Zero,    // the path flavour: fails when the low word of the end is 0
    kNotPositive,  // FILE*: an empty file is refused
    kNegative,     // buffer: only a failed seek
};

struct FirstTimeFlavour {
    const char *arg_tag;
    const char *io_tag;
    const char *name_msg;
    const char *data_msg;
    const char *stream_msg;
    EndSeekRule end_rule;
    const char *seek_tag;
    const char *seek_msg;  // the path flavour formats a 0 into it
    const char *tag_info_msg;
    const char *payload_msg;
    HeaderMessages fields;
};

constexpr FirstTimeFlavour kFirstPath{
    "YAX::AddYAXDataInFirstTime",
    "YAXEncoder::AddYAXDataInFirstTime",
    "name null",
    "data null",
    "file open error",
    EndSeekRule::kLow32Zero,
    "YAX::AddYAXDataInFirstTime",
    "file search error = %d\n",
    "file write error\n",
    "file write error\n",
    {"file write error\n", "file write error\n", "file write error\n"}};

constexpr FirstTimeFlavour kFirstFP{
    "YAX::AddYAXDataInFirstTimeFP",
    "YAXEncoder::AddYAXDataInFirstTimeFP",
    "name_size <= 0 || name == NULL",
    "data == 0 || data_size <= 0",
    "fp == NULL",
    EndSeekRule::kNotPositive,
    "YAXEncoder::AddYAXDataInFirstTimeFP",
    "file Search error\n",
    "File _writeDataTagInfo Error",
    "file write error\n",
    kFieldMessages};

// The buffer flavour speaks with its FILE* twin's tags.
constexpr FirstTimeFlavour kFirstBuffer{
    "YAX::AddYAXDataInFirstTimeFP",
    "YAXEncoder::AddYAXDataInFirstTimeFP",
    "name_size <= 0 || name == NULL",
    "data == 0 || data_size <= 0",
    "handle == NULL",
    EndSeekRule::kNegative,
    "YAXEncoder::AddYAXDataInFirstTimeFP",
    "file Search error\n",
    "File _writeDataTagInfo Error",
    "file write error\n",
    kFieldMessages};

bool checkFirstTimeArgs(const NewEntry &e, const FirstTimeFlavour &f, uint32_t *block_length) {
    if (e.userDataWithoutSubInfo()) {
        YAXLogE(f.arg_tag, kUserDataMsg);
        return false;
    }
    if (e.name == nullptr || e.name_length == 0) {
        YAXLogE(f.arg_tag, f.name_msg);
        return false;
    }
    if (!e.hasData()) {
        YAXLogE(f.arg_tag, f.data_msg);
        return false;
    }
    if (!e.blockLength(block_length)) {
        YAXLogE(f.arg_tag, kTooBigMsg);
        return false;
    }
    return true;
}

bool endSeekFailed(EndSeekRule rule, int64_t end) {
    switch (rule) {
        case EndSeekRule::kLow32Zero: return static_cast<uint32_t>(end) == 0;
        case EndSeekRule::kNotPositive: return end <= 0;
        case EndSeekRule::kNegative: return end < 0;
    }
    return true;
}

// After the block's leading fields, the payload and every header field are
// tested for 0, the failure value of the buffer writers. On a file a failed
// write reports -1 and so goes unnoticed there: only a failure of the leading
// fields stops a first add on a file. Long-standing behaviour, kept.
template <typename IO>
int addFirst(const IO &io, const NewEntry &e, uint32_t block_length, const FirstTimeFlavour &f) {
    const int64_t end = io.seek(0, SEEK_END);
    if (endSeekFailed(f.end_rule, end)) {
        YAXLogE(f.seek_tag, f.seek_msg, 0);
        return 0;
    }
    auto undo = undoScope(io, end, e.abandoned());
    if (!undo.ready()) return 0;
    const Checker<IO> check(io, f.io_tag, FailTest::kZero);
    if (!check.succeeded(tagInfo(io, e.data_type, e.has_sub_info, e.name, e.name_length,
                                 e.sub_info, e.sub_info_length),
                         f.tag_info_msg))
        return 0;
    if (!check.wrote(putPayload(io, e), f.payload_msg) || e.sourceFailed()) return 0;
    if (!putHeader(io, check, f.fields, nullptr, e.metaType(), block_length)) return 0;
    return undo.commit() ? 1 : 0;
}

// ---- later adds: a trailer is present ----

struct AppendFlavour {
    const char *arg_tag;
    const char *io_tag;
    const char *info_msg;
    const char *stream_msg;
    const char *seek_msg;
    const char *tag_info_msg;
};

constexpr const char *kAddNameMsg = "name_size <= 0 || name == NULL";
constexpr const char *kAddDataMsg = "data == NULL || data_size <= 0";
constexpr const char *kAddPayloadMsg = "file write error\n";

constexpr AppendFlavour kAppendPath{"YAX::AddYAXData",        "YAXEncoder::AddYAXData",
                                    "YAX_info == NULL",       "file open error",
                                    "file search error = %d\n", "file _writeDataTagInfo error\n"};
// "NUL" is how these two have always been spelt.
constexpr AppendFlavour kAppendFP{"YAXEncoder::AddYAXDataFP", "YAXEncoder::AddYAXDataFP",
                                  "YAX_info == NUL",          "fp == NUL",
                                  "File Search Error ",       "File _writeDataTagInfo Error"};

// An add writes over the header: no block of the table may lie in it.
// A header before the file's start is left to the seek that follows, which
// reports it.
bool rowsClearOfHeader(const YaxInfo *info, const char *tag) {
    return info->meta_count == 0 || info->file_size < int64_t{info->header_offset} ||
           trailerEditable(info, info->file_size, kNeedRowsInside, 0, tag);
}

// The new block, header and tail (and the legacy end record written behind
// them, `after_tail` bytes) must reach at least as far as the old header,
// tail and end record did: nothing is truncated, so a shorter write would
// leave old bytes at the end and the file would no longer end in a trailer.
// That takes a header said to be longer than its rows by more than a block
// and a row, or an old legacy record of several sounds where the add writes
// back one of 30 bytes. This library never writes either (a fast replace
// leaves the header one row longer at most).
bool newTrailerCoversOld(const YaxInfo *info, uint32_t block_length, uint32_t after_tail, const char *tag) {
    // (a header before the file's start is left to the seek that reports it)
    if (info->meta_count == 0 || info->file_size < int64_t{info->header_offset}) return true;
    const uint64_t grown = uint64_t{block_length} + kHeaderFixed + kRowSize * (uint64_t{info->meta_count} + 1) +
                           kTailSize + after_tail;
    if (grown >= info->header_offset) return true;
    YAXLogE(tag, "the header is longer than its rows: the new trailer would end before the old one");
    return false;
}

bool checkAppendArgs(const NewEntry &e, const YaxInfo *info, const AppendFlavour &f,
                     uint32_t *block_length, uint32_t after_tail) {
    const char *msg = nullptr;
    if (e.userDataWithoutSubInfo())
        msg = kUserDataMsg;
    else if (e.name == nullptr || e.name_length == 0)
        msg = kAddNameMsg;
    else if (!e.hasData())
        msg = kAddDataMsg;
    else if (info == nullptr || !tableUsable(info))
        msg = f.info_msg;
    else if (!e.blockLength(block_length))
        msg = kTooBigMsg;
    if (msg != nullptr) YAXLogE(f.arg_tag, msg);
    return msg == nullptr && rowsClearOfHeader(info, f.io_tag) &&
           newTrailerCoversOld(info, *block_length, after_tail, f.io_tag);
}

// The new block over the old header, then the longer header and the tail.
// The record keeps the shifted offsets but does not receive the new row.
// `trailer_last`: nothing follows the tail (no legacy end record).
bool appendAtHeader(const BufIO &io, const Checker<BufIO> &check, YaxInfo *info, const NewEntry &e,
                    uint32_t block_length, const char *tag_info_msg, bool) {
    shiftRows(info, block_length);
    return putBlock(io, check, e, tag_info_msg, kAddPayloadMsg) &&
           putHeader(io, check, kFieldMessages, info, e.metaType(), block_length);
}

// A file gets the same bytes in an order that an interruption cannot turn
// into a file without a trailer. When the new block is at least as long as
// the old header and tail, the new header and tail go out first, in one
// write beyond the old end: from then on the file ends in a complete trailer
// whose old rows still point at their blocks, and the block is written over
// the old header last (a failed block write puts the old header and length
// back). A shorter block goes out with the header and tail in one write.
// When that one write fails, the file is put back and the writes run in the
// usual order, field by field, meeting the failure with their own messages.
bool appendAtHeader(const FileIO &io, const Checker<FileIO> &check, YaxInfo *info, const NewEntry &e,
                    uint32_t block_length, const char *tag_info_msg, bool trailer_last) {
    shiftRows(info, block_length);
    const int64_t at = trailer_last ? io.seek(0, SEEK_CUR) : -1;
    const int64_t end = at >= 0 ? ::lseek64(fileno(io.fp), 0, SEEK_END) : -1;
    if (at >= 0 && io.seek(at, SEEK_SET) == at && end >= at) {
        const bool beyond = at + int64_t{block_length} >= end;
        std::vector<unsigned char> old(beyond ? static_cast<size_t>(end - at) : 0);
        const Checker<FileIO> quiet(io, nullptr, FailTest::kNone);
        bool sent = !beyond || ::pread64(fileno(io.fp), old.data(), old.size(), at) ==
                                   static_cast<ssize_t>(old.size());
        if (sent) {
            WriteGather gather(io.fp);
            if (beyond) {
                io.seek(at + block_length, SEEK_SET);
            } else {
                putBlock(io, quiet, e, nullptr, nullptr);
            }
            putHeader(io, quiet, kFieldMessages, info, e.metaType(), block_length);
            sent = gather.send();
        }
        if (sent && !beyond) return true;
        if (sent) {
            const int fd = fileno(io.fp);
            fdatasync(fd);  // the new trailer reaches the disk before the old one is overwritten
            const int64_t new_end = io.seek(0, SEEK_END);
            io.seek(at, SEEK_SET);
            if (putBlock(io, check, e, tag_info_msg, kAddPayloadMsg)) {
                io.seek(new_end, SEEK_SET);
                return true;
            }
            if (::pwrite64(fd, old.data(), old.size(), at) != static_cast<ssize_t>(old.size()) ||
                ::ftruncate64(fd, end) != 0)
                noteIoFailure();
            return false;
        }
        io.seek(at, SEEK_SET);
    }
    return putBlock(io, check, e, tag_info_msg, kAddPayloadMsg) &&
           putHeader(io, check, kFieldMessages, info, e.metaType(), block_length);
}

// The legacy record's count and first sound, or zeros when it has no table.
void vonoWords(const VonoInfo *vono, uint32_t *start, uint32_t *end) {
    *start = 0;
    *end = 0;
    if (vono->offsets != nullptr && vono->count != 0) {
        *start = vono->offsets[0];
        *end = vono->offsets[1];
    }
}

template <typename IO>
int addToTrailer(const IO &io, YaxInfo *info, const NewEntry &e, VonoInfo *vono) {
    const AppendFlavour &f = kAppendFP;
    uint32_t block_length = 0;
    if (!checkAppendArgs(e, info, f, &block_length, vono != nullptr ? kVonoOneSoundBlock : 0)) return 0;
    if (!io.ok()) {
        YAXLogE(f.arg_tag, f.stream_msg);
        return 0;
    }
    const int64_t header_pos = headerPosition(io, info);
    if (header_pos < 0) {
        YAXLogE(f.io_tag, f.seek_msg);
        return 0;
    }
    auto undo = undoScope(io, header_pos, e.abandoned());
    if (!undo.ready()) return 0;
    const Checker<IO> check(io, f.io_tag, FailTest::kBackend);
    if (!appendAtHeader(io, check, info, e, block_length, f.tag_info_msg, vono == nullptr)) return 0;
    if (vono != nullptr) {
        uint32_t start, end;
        vonoWords(vono, &start, &end);
        if (vonoHeader(io, start, end) == 0) {
            YAXLogE(f.io_tag, "file _writeVonoHeader error\n");
            return 0;
        }
    }
    return undo.commit() ? 1 : 0;
}

// The path flavour writes the legacy header itself from the record: "VONO",
// 105, the record's count and first sound, 20, "VONOBS".
bool putVonoFromRecord(const FileIO &io, const VonoInfo *vono) {
    uint32_t start, end;
    vonoWords(vono, &start, &end);
    const Checker<FileIO> check(io, kAppendPath.io_tag, FailTest::kBackend);
    const char *msg = "file _qfwriteInt32 error\n";
    if (!check.wrote(io.write(kVonoHead, sizeof kVonoHead), msg)) return false;
    for (uint32_t w : {kVersion, vono->count, start, end, kVonoOneSoundHeaderSize}) {
        if (!check.wrote(io.write32(w), msg)) return false;
    }
    return check.wrote(io.write(kVonoTail, sizeof kVonoTail), msg);
}

int addToTrailerByPath(const char *path, YaxInfo *info, const NewEntry &e, VonoInfo *vono) {
    const AppendFlavour &f = kAppendPath;
    uint32_t block_length = 0;
    if (!checkAppendArgs(e, info, f, &block_length, vono != nullptr ? kVonoOneSoundBlock : 0)) return 0;

    // The header's place, found on the record's stream; that stream is then
    // closed and the file reopened for writing.
    int64_t header_pos = -1;
    if (info->fp != nullptr) {
        header_pos = headerPosition(FileIO{info->fp}, info);
        if (header_pos < 0) {
            YAXLogE(f.io_tag, f.seek_msg, static_cast<int>(header_pos));
            return 0;
        }
        _qfclose(info->fp);
        info->fp = nullptr;
    }
    FILE *fp = path != nullptr ? _qfopen(path, "r+b") : nullptr;
    if (fp == nullptr) {
        YAXLogE(f.io_tag, f.stream_msg);
        return 0;
    }
    const FileIO io{fp};
    int64_t pos = header_pos >= 0 ? io.seek(header_pos, SEEK_SET) : headerPosition(io, info);
    if (pos < 0) {
        YAXLogE(f.io_tag, "file Search error\n");
        _qfclose(fp);
        return 0;
    }
    const Checker<FileIO> check(io, f.io_tag, FailTest::kBackend);
    bool ok;
    {
        UndoScope undo(fp, pos, e.abandoned());
        ok = undo.ready() && appendAtHeader(io, check, info, e, block_length, f.tag_info_msg, vono == nullptr);
        if (ok && vono != nullptr) ok = putVonoFromRecord(io, vono);
        ok = ok && undo.commit();
    }
    if (vono != nullptr && vono->fp != nullptr) {
        // the record's stream still shows the file as it was
        _qfclose(vono->fp);
        vono->fp = nullptr;
    }
    _qfclose(fp);
    return ok ? 1 : 0;
}

// ---- fast add ----

int fastAdd(YaxInfo *info, const NewEntry &e, int reuse_first) {
    if (e.userDataWithoutSubInfo()) {
        // logged under the first add's tag, as it always has been
        YAXLogE("YAX::AddYAXDataInFirstTime", kUserDataMsg);
        return 0;
    }
    uint32_t block_length = 0;
    if (e.name == nullptr || e.name_length == 0 || info == nullptr || info->fp == nullptr ||
        !e.hasData() || !tableUsable(info) ||
        !e.blockLength(&block_length))
        return 0;

    const FileIO io{info->fp};
    // Entry 0's room, or the header, is written over: no block may lie in
    // the header, and entry 0's must lie inside the file.
    if (info->meta_count != 0 &&
        !trailerEditable(io, info, kNeedRowsInside, "YAXEncoder::FastAddYAXData"))
        return 0;
    const int64_t header_pos = headerPosition(io, info);
    if (header_pos < 0) return 0;

    const bool has_first = info->meta_count != 0;
    const uint32_t first_length = reuse_first && has_first ? info->meta_data[0]->length : 0;
    const uint32_t spare = first_length - block_length;  // D; wraps when the block is bigger
    const Checker<FileIO> unchecked(io, nullptr, FailTest::kNone);

    if (has_first && (spare == 0 || uint64_t{block_length} + kFillerBlockHead < first_length)) {
        const YaxEntry &first = *info->meta_data[0];
        const int64_t first_pos =
            info->file_size - (int64_t{info->header_offset} + int64_t{first.offset});
        if (first_pos < 0 || io.seek(first_pos, SEEK_SET) < 0) return 0;
        UndoScope undo(info->fp, first_pos, e.abandoned());
        if (!undo.ready()) return 0;
        // The block and the header each go out in one write (see WriteGather;
        // a payload streamed from a file larger than a copy chunk goes
        // straight to the file instead).
        const uint32_t first_offset = first.offset;
        writeAtOnce(info->fp, [&] {
            io.seek(first_pos, SEEK_SET);
            if (spare == 0) {
                // exactly entry 0's size: its place, and its row retyped
                putBlock(io, unchecked, e, nullptr, nullptr);
                if (e.sourceFailed()) return 0;
                io.seek(header_pos, SEEK_SET);
                return writeDummyYAXHeader(info, e.data_type, e.has_sub_info);
            }
            // a smaller filler first, the new block ending where entry 0 ended
            writeDummyYAXData(info->fp, spare);
            putBlock(io, unchecked, e, nullptr, nullptr);
            if (e.sourceFailed()) return 0;
            io.seek(header_pos, SEEK_SET);
            return writeYAXHeader(info, info->meta_count + 1, 1, first_offset, spare,
                                  first_offset - spare, block_length, e.data_type, e.has_sub_info);
        });
        return undo.commit() ? 1 : 0;
    }
    UndoScope undo(info->fp, header_pos, e.abandoned());
    if (!undo.ready()) return 0;
    appendAtHeader(io, unchecked, info, e, block_length, nullptr, true);
    return undo.commit() ? 1 : 0;
}

// ---- direct adds: the caller formatted the block ----

constexpr const char *kDirectDataMsg = "data == VELTA_YAX_NULL || data_size <= 0";

bool directArgsOk(const char *tag, uint32_t data_type, uint32_t has_sub_info, const void *block,
                  uint32_t block_length) {
    const char *msg = nullptr;
    if (data_type == YAX_USER_DEFINED_DATA && has_sub_info == 0)
        msg = kUserDataMsg;
    else if (block == nullptr || block_length == 0)
        msg = kDirectDataMsg;
    if (msg != nullptr) YAXLogE(tag, msg);
    return msg == nullptr;
}

void putOneRowHeader(const FileIO &io, uint32_t meta_type, uint32_t block_length) {
    const Checker<FileIO> unchecked(io, nullptr, FailTest::kNone);
    putHeader(io, unchecked, kFieldMessages, nullptr, meta_type, block_length);
}

// The stream and buffer flavours: arguments first, then the caller's stream.
template <typename IO>
int addFirstOnStream(const IO &io, const NewEntry &e, const FirstTimeFlavour &f) {
    uint32_t block_length = 0;
    if (!checkFirstTimeArgs(e, f, &block_length)) return 0;
    if (!io.ok()) {
        YAXLogE(f.arg_tag, f.stream_msg);
        return 0;
    }
    return addFirst(io, e, block_length, f);
}

}  // namespace

int addFirstByPath(const char *path, const NewEntry &e) {
    const FirstTimeFlavour &f = kFirstPath;
    uint32_t block_length = 0;
    if (!checkFirstTimeArgs(e, f, &block_length)) return 0;
    FILE *fp = path != nullptr ? _qfopen(path, "r+b") : nullptr;
    if (fp == nullptr) {
        YAXLogE(f.io_tag, f.stream_msg);
        return 0;
    }
    int r = addFirst(FileIO{fp}, e, block_length, f);
    _qfclose(fp);
    return r;
}

int addFirstToStream(FILE *fp, const NewEntry &e) {
    return addFirstOnStream(FileIO{fp}, e, kFirstFP);
}

int addByPath(const char *path, YaxInfo *info, const NewEntry &e, VonoInfo *vono) {
    return addToTrailerByPath(path, info, e, vono);
}

int addToStream(FILE *fp, YaxInfo *info, const NewEntry &e, VonoInfo *vono) {
    return addToTrailer(FileIO{fp}, info, e, vono);
}

int fastAddEntry(YaxInfo *info, const NewEntry &e, int reuse_first) {
    return fastAdd(info, e, reuse_first);
}

}  // namespace yax

using yax::BufIO;
using yax::FileIO;
using yax::NewEntry;

extern "C" {

YAX_EXPORT int AddYAXDataInFirstTime(const char *path, const char *name, uint32_t name_length,
                                     uint32_t data_type, const void *sub_info,
                                     uint32_t sub_info_length, const void *data,
                                     uint32_t data_length) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::addFirstByPath(path, e);
}

YAX_EXPORT int AddYAXDataInFirstTimeFP(FILE *fp, const char *name, uint32_t name_length,
                                       uint32_t data_type, const void *sub_info,
                                       uint32_t sub_info_length, const void *data,
                                       uint32_t data_length) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::addFirstToStream(fp, e);
}

YAX_EXPORT int AddYAXDataInFirstTimeBuffer(YAXBUFFER *handle, const char *name,
                                           uint32_t name_length, uint32_t data_type,
                                           const void *sub_info, uint32_t sub_info_length,
                                           const void *data, uint32_t data_length) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::addFirstOnStream(BufIO{handle}, e, yax::kFirstBuffer);
}

YAX_EXPORT int AddYAXData(const char *path, YaxInfo *info, const char *name, uint32_t name_length,
                          uint32_t data_type, const void *sub_info, uint32_t sub_info_length,
                          const void *data, uint32_t data_length, VonoInfo *vono) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::addByPath(path, info, e, vono);
}

YAX_EXPORT int AddYAXDataFP(FILE *fp, YaxInfo *info, const char *name, uint32_t name_length,
                            uint32_t data_type, const void *sub_info, uint32_t sub_info_length,
                            const void *data, uint32_t data_length, VonoInfo *vono) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::addToStream(fp, info, e, vono);
}

YAX_EXPORT int AddYAXDataBuffer(YAXBUFFER *handle, YaxInfo *info, const char *name,
                                uint32_t name_length, uint32_t data_type, const void *sub_info,
                                uint32_t sub_info_length, const void *data, uint32_t data_length,
                                VonoInfo *vono) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::addToTrailer(BufIO{handle}, info, e, vono);
}

YAX_EXPORT int AddDirectYAXDataInFirstTimeFP(FILE *fp, uint32_t data_type, uint32_t has_sub_info,
                                             const void *block, uint32_t block_length) {
    constexpr const char *tag = "YAXEncoder::AddDirectYAXDataInFirstTimeFP";
    if (!yax::directArgsOk(tag, data_type, has_sub_info, block, block_length)) return 0;
    if (fp == nullptr) {
        YAXLogE(tag, "fp == VELTA_YAX_NULL");
        return 0;
    }
    const FileIO io{fp};
    const int64_t end = io.seek(0, SEEK_END);
    if (end < 0) {
        YAXLogE(tag, "File Search Error");
        return 0;
    }
    yax::UndoScope undo(fp, end);
    if (!undo.ready()) return 0;
    io.write(block, block_length);
    yax::putOneRowHeader(io, yax::layout::metaType(data_type, has_sub_info), block_length);
    return undo.commit() ? 1 : 0;
}

YAX_EXPORT int AddDirectYAXDataFP(FILE *fp, YaxInfo *info, uint32_t data_type,
                                  uint32_t has_sub_info, const void *block, uint32_t block_length,
                                  VonoInfo *vono) {
    constexpr const char *tag = "YAX::AddDirectYAXDataFP";
    if (!yax::directArgsOk(tag, data_type, has_sub_info, block, block_length)) return 0;
    if (info == nullptr || !yax::tableUsable(info)) {
        YAXLogE(tag, "YAX_info == VELTA_YAX_NULL");
        return 0;
    }
    if (!yax::rowsClearOfHeader(info, tag)) return 0;
    if (fp == nullptr) {
        YAXLogE(tag, "fp == VELTA_YAX_NULL");
        return 0;
    }
    const FileIO io{fp};
    const int64_t header_pos = yax::headerPosition(io, info);
    if (header_pos < 0) {
        YAXLogE(tag, "File Search Error");
        return 0;
    }
    yax::UndoScope undo(fp, header_pos);
    if (!undo.ready()) return 0;
    const yax::Checker<FileIO> unchecked(io, nullptr, yax::FailTest::kNone);
    yax::shiftRows(info, block_length);
    io.write(block, block_length);
    yax::putHeader(io, unchecked, yax::kFieldMessages, info,
                   yax::layout::metaType(data_type, has_sub_info), block_length);
    if (vono != nullptr) {
        uint32_t start, end;
        yax::vonoWords(vono, &start, &end);
        _writeVonoHeader(fp, start, end);
    }
    return undo.commit() ? 1 : 0;
}

YAX_EXPORT int saveFirstYAXTailToFP(FILE *fp, uint32_t block_length, uint32_t data_type,
                                    uint32_t has_sub_info) {
    if (fp == nullptr) return 0;
    const FileIO io{fp};
    io.seek(0, SEEK_END);
    yax::putOneRowHeader(io, yax::layout::metaType(data_type, has_sub_info), block_length);
    return 1;
}

YAX_EXPORT int FastAddYAXData(YaxInfo *info, const char *name, uint32_t name_length,
                              uint32_t data_type, const void *sub_info, uint32_t sub_info_length,
                              const void *data, uint32_t data_length, int reuse_first) {
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length);
    return yax::fastAddEntry(info, e, reuse_first);
}

// The trailer after the add (everything from the first block to the end of
// the file, plus the new block's fields) must stay within 4 GiB less 1 MiB.
YAX_EXPORT int checkYAXInfoForSaving(YaxInfo *info, uint32_t data_length,
                                     uint32_t sub_info_length, uint32_t name_length) {
    constexpr const char *tag = "checkYAXInfoForSaving";
    if (info == nullptr) {
        YAXLogE(tag, "yax info null");
        return 0;
    }
    uint64_t first_offset = 0;
    if (info->meta_count != 0 && info->meta_data != nullptr && info->meta_data[0] != nullptr)
        first_offset = info->meta_data[0]->offset;
    const uint64_t total = uint64_t{name_length} + sub_info_length + data_length +
                           info->header_offset + first_offset + 16;
    if (total < yax::layout::kSizeLimit) return 1;
    YAXLogE(tag, "There is no storage for saving YAX data in the source file, delete a yax data");
    return 0;
}

// "<path without extension>NNN.tmp" for the first NNN from 000 that names no
// file; the search stops at 998, which is returned even when it exists.
YAX_EXPORT char *_getTempFileName(const char *path) {
    constexpr int kLastTry = 998;
    constexpr size_t kSuffix = 8;  // three digits, ".tmp", NUL
    const int index = getExtIndex(path);
    if (index <= 0) return nullptr;
    const size_t stem = static_cast<size_t>(index);
    auto *name = static_cast<char *>(_qmalloc(stem + kSuffix));
    if (name == nullptr) return nullptr;
    std::memcpy(name, path, stem);
    for (int n = 0;; ++n) {
        char *digits = name + stem;
        digits[0] = static_cast<char>('0' + n / 100);
        digits[1] = static_cast<char>('0' + n / 10 % 10);
        digits[2] = static_cast<char>('0' + n % 10);
        std::memcpy(digits + 3, ".tmp", 5);
        if (access(name, F_OK) != 0 || n == kLastTry) break;
    }
    return name;
}

}  // extern "C"
