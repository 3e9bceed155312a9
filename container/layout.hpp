#pragma once
// The byte layout of the trailer and of the legacy audio block, in one place.
// Every reader and writer takes its magics, sizes and offsets from here.
//
//   host | [box size BE, "yaxd"] | block 0 .. block n-1 | "YAXH" ver n rows | hsize "YAXT" | [Vono]
//   block: meta_type, name_length, [sub_info_length], name, [sub-info], payload
//   row:   meta_type, offset (back from "YAXH" to the block), length
#include <cstdint>
#include <string_view>

namespace yax::layout {

constexpr char kHeaderMagic[4] = {'Y', 'A', 'X', 'H'};  // QTSS
constexpr char kTailMagic[4] = {'Y', 'A', 'X', 'T'};    // QTS
constexpr char kMp4Token[4] = {'y', 'a', 'x', 'd'};     // MP4S
constexpr char kVonoHead[4] = {'V', 'O', 'N', 'O'};
constexpr char kVonoTail[6] = {'V', 'O', 'N', 'O', 'B', 'S'};

constexpr uint32_t kVersion = 105;             // written, and reported
constexpr uint32_t kMaxReadableVersion = 205;  // readers refuse anything newer
constexpr uint32_t kWord = 4;
constexpr uint32_t kHeaderFixed = 12;  // magic, version, count
constexpr uint32_t kRowSize = 12;      // meta_type, offset, length
constexpr uint32_t kTailSize = 8;      // header size, "YAXT"
constexpr uint32_t kBoxHead = 8;       // size, "yaxd"
constexpr uint32_t kBlockFixed = 8;    // meta_type, name_length
constexpr uint32_t kSubInfoField = 4;  // sub_info_length, when bit 15 is set
constexpr uint32_t kMaxNameLength = 1024;
constexpr uint32_t kSubInfoFlag = 0x8000;
constexpr uint32_t kTypeShift = 16;

constexpr uint32_t kFillerType = 0x7FFE;  // the "Invalid_Data" filler
constexpr std::string_view kFillerName = "Invalid_Data";
constexpr uint32_t kFillerBlockHead = kBlockFixed + 12;  // 20
constexpr uint32_t kOneRowTrailer = kHeaderFixed + kRowSize + kTailSize;  // 32

constexpr std::string_view kToneMetaName = "TonePhoto_Meta_Info";
constexpr std::string_view kToneFirstName = "TonePhoto_000";
constexpr uint32_t kToneSoundType = 256;
constexpr uint32_t kToneMetaType = 2048;

// Legacy block: "VONO", version, count, count x (start, end), header size, "VONOBS".
constexpr uint32_t kVonoFixed = 22;             // head, version, count, size, tail marker
constexpr uint32_t kVonoOneSoundBlock = 30;     // the block this library writes
constexpr uint32_t kVonoOneSoundHeaderSize = 20;
constexpr uint32_t kVonoTailProbe = 10;         // header size word + "VONOBS"
constexpr uint32_t kVonoYaxTailDistance = 34;   // where "YAXT" sits before a 30-byte block

// Payloads and trailers stay below 4 GiB less 1 MiB.
constexpr uint64_t kSizeLimit = 0xFFF00001ULL;

constexpr uint32_t headerSize(uint32_t rows) { return kHeaderFixed + kRowSize * rows; }
constexpr uint32_t metaType(uint32_t type, uint32_t has_sub_info) {
    return (type << kTypeShift) + (has_sub_info ? kSubInfoFlag : 0u);
}

}  // namespace yax::layout
