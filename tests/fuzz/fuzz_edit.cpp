// One libFuzzer target per edit kind (YAX_FUZZ_EDIT picks it at build time).
// The input is two selector bytes followed by the file: the selectors pick
// the entry, the option and the payload. Each run writes the file, edits it
// through the public interface and holds the result to the edit invariant
// (edit_invariant.hpp); a broken invariant aborts, which the fuzzer and the
// replay runner report.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/edit_invariant.hpp"
#include "fuzz/fuzz_common.hpp"
#include "yax_vono.h"

namespace {

enum Kind { kDeleteName, kDeleteMulti, kDeleteAll, kFastDelete, kSave, kFastSave, kSound, kMp4Save, kBufferSave, kCover };

#ifndef YAX_FUZZ_EDIT
#error "YAX_FUZZ_EDIT names the edit kind"
#endif
constexpr Kind kKind = YAX_FUZZ_EDIT;

const char *kindName() {
    static const char *names[] = {"delete_name", "delete_multi", "delete_all",
                                  "fast_delete", "save", "fast_save", "sound", "mp4_save", "buffer_save", "cover"};
    return names[kKind];
}

// The entry at `sel` of the listing, or a name no file holds.
std::string pick(const inv::Listing &l, uint8_t sel) {
    if (l.names.empty() || sel == 0xFF) return "nope";
    return l.names[sel % l.names.size()];
}

// The row a name resolves to: the first with that name.
std::vector<uint32_t> rowOf(const inv::Listing &l, const std::string &name) {
    for (uint32_t i = 0; i < l.names.size(); ++i)
        if (l.names[i] == name) return {i};
    return {};
}

const char kToneList[] = "TonePhoto_Meta_Info";

// The sound edits: save a sound, delete one or all, copy the set out. The
// name list may be rewritten by any of them, so its row counts as targeted;
// a save is several steps (a failed later step may keep an earlier one).
int soundEdit(const std::string &path, const inv::Listing &listed, uint8_t a, uint8_t b,
              std::vector<uint32_t> &targets, inv::Item &added, uint64_t &grow, bool &partial,
              const inv::Bytes &before) {
    const std::string name = (a & 0x40) ? pick(listed, a) : std::string(1 + (a & 3), 's');
    targets = rowOf(listed, name);
    for (uint32_t t : rowOf(listed, kToneList)) targets.push_back(t);
    partial = true;
    switch (a % 4 == 3 ? 3 : (a >> 4) % 3) {
    case 0: {
        const int sig = getSignature(path.c_str());
        added = {name, 256, "", std::string(1 + (b >> 3), 'p')};
        grow = 2 * before.size() + 4096;  // a legacy sound becomes entries first
        const int r = saveVonoToImageFile(path.c_str(), added.payload.data(), uint32_t(added.payload.size()),
                                          name.data(), uint32_t(name.size()));
        // an unknown ending reports 1 with nothing done; a filler's name is not compared
        if (r != 1 || sig < SIGNATURE_NONE || sig > SIGNATURE_VONO_YAX || name == "Invalid_Data")
            added.name.clear();
        return r;
    }
    case 1:
        return deleteVonoFromImageFile(path.c_str(), name.c_str());
    case 2:
        for (uint32_t i = 0; i < listed.names.size(); ++i) targets.push_back(i);
        return deleteAllVonoFromImageFile(path.c_str());
    default: {
        // the source stays as it is; the copy lands behind a bare image
        targets.clear();
        partial = false;
        const std::string dst = path + ".dst";
        const inv::Bytes image(64 + (b & 15), 0x55);
        inv::spill(dst, image.data(), image.size());
        const int r = copyTonePhotoData(path.c_str(), dst.c_str());
        const inv::Bytes out = inv::slurp(dst);
        if (r == 1 ? !inv::libraryListing(dst).listed : out != image)
            fz::fail("sound", r == 1 ? "the copy does not parse" : "a refused copy changed its destination", before);
        std::remove(dst.c_str());
        return 1;
    }
    }
}

// The cover change: a new image of the old one's length, shorter, longer
// (the overhang ending before, on or after a block's end) or longer than the
// whole file. Only a cover of the same length is sure to keep every entry:
// the other moves keep the documented bytes, lossy ones included, so they
// are held to the rest of the invariant (no crash, a refusal changes
// nothing, nothing grows past the cover) and to the new image being in front.
int coverEdit(const std::string &path, const inv::Listing &listed, uint8_t a, uint8_t b,
              std::vector<uint32_t> &targets, uint64_t &grow, const inv::Bytes &before) {
    int64_t old_cover = -1;
    if (YAXDATA *h = checkYAXInFile(path.c_str())) {
        YaxInfo *info = h->yax_info;
        if (info != nullptr && info->meta_count != 0 && info->meta_data != nullptr && info->meta_data[0] != nullptr)
            old_cover = info->file_size - (int64_t(info->header_offset) + info->meta_data[0]->offset);
        destroyYAXDATA(h);
    }
    const int64_t base = old_cover > 0 ? old_cover : 64;
    int64_t len = base;
    switch (a % 5) {
    case 1: len = base - 1 - (b % 64); break;                 // shorter
    case 2: len = base + 1 + b; break;                        // a short overhang
    case 3: len = base + int64_t(b) * 4; break;               // a longer one, maybe to a block's end
    case 4: len = int64_t(before.size()) + 1 + (b & 15); break;  // longer than the file
    default: break;
    }
    if (len < 4) len = 4;
    inv::Bytes cover(size_t(len), uint8_t(0x20 + (b & 0x3F)));
    cover[0] = 0xFF, cover[1] = 0xD8, cover[cover.size() - 2] = 0xFF, cover[cover.size() - 1] = 0xD9;
    if (len != old_cover)
        for (uint32_t i = 0; i < listed.names.size(); ++i) targets.push_back(i);
    grow = uint64_t(len) + 64;
    const int r = FastChangeCoverData(path.c_str(), cover.data(), uint32_t(cover.size()));
    if (r != 0) {
        const inv::Bytes after = inv::slurp(path);
        if (after.size() < cover.size() || !std::equal(cover.begin(), cover.end(), after.begin()))
            fz::fail("cover", "the new image is not in front", before);
    }
    return r != 0 ? 1 : 0;
}

bool fastKind(int variant) {
    // the MP4 save of a file with a trailer is a fast save
    return kKind == kFastDelete || kKind == kFastSave || kKind == kMp4Save ||
           (kKind == kDeleteAll && variant == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const uint8_t a = data[0], b = data[1];
    const std::string &path = fz::workFile();
    inv::spill(path, data + 2, size - 2);
    const inv::Bytes before(data + 2, data + size);
    const inv::Listing listed = inv::libraryListing(path);

    int result = 0, variant = 0;
    bool partial = false;
    std::vector<uint32_t> targets;
    inv::Item added;
    uint64_t grow = 64;  // a delete may write a legacy end record anew (30 bytes)
    switch (kKind) {
    case kDeleteName: {
        const std::string name = pick(listed, a);
        targets = rowOf(listed, name);
        YAXDATA *h = checkYAXInFile(path.c_str());
        if (h == nullptr) break;
        result = deleteYAXDataFromFilebyName(&h, name.c_str(), int(name.size()));
        destroyYAXDATA(h);
        break;
    }
    case kDeleteMulti: {
        const std::string n1 = pick(listed, a), n2 = pick(listed, b);
        targets = rowOf(listed, n1);
        for (uint32_t t : rowOf(listed, n2)) targets.push_back(t);
        YAXDATA *h = checkYAXInFile(path.c_str());
        if (h == nullptr) break;
        const char *names[] = {n1.c_str(), n2.c_str()};
        result = deleteYAXMultiDataFromFilebyName(&h, names, (b & 1) ? 2 : 1);
        if ((b & 1) == 0) targets.resize(std::min<size_t>(targets.size(), 1));
        destroyYAXDATA(h);
        break;
    }
    case kDeleteAll: {
        variant = a % 3;
        for (uint32_t i = 0; i < listed.names.size(); ++i) targets.push_back(i);
        if (variant == 0) {
            result = deleteAllDataFromFile(path.c_str());
        } else if (variant == 1) {
            // the fast delete-all takes a file known to hold a trailer
            if (listed.listed) result = deleteFastAllYAXData(path.c_str());
        } else {
            YAXDATA *h = checkYAXInFile(path.c_str());
            if (h == nullptr) break;
            result = deleteYAXDataFromFile(&h);
            destroyYAXDATA(h);
        }
        break;
    }
    case kFastDelete: {
        const std::string name = pick(listed, a);
        targets = rowOf(listed, name);
        if (!listed.listed) break;
        result = deleteFastAYAXData(path.c_str(), name.c_str());
        break;
    }
    case kSave:
    case kFastSave:
    case kMp4Save:
    case kBufferSave: {
        // an existing name or a new one, replacing or not, with or without
        // sub-information, a payload of 1 to 32 bytes
        const std::string name = (a & 0x40) ? pick(listed, a) : std::string(1 + (a & 3), 'n');
        const int option = (a >> 7) & 1;
        added.name = name;
        added.type = 1 + (b & 7);
        added.sub = (b & 8) ? "s" : "";
        added.payload.assign(1 + (b >> 3), 'p');
        if (name == "Invalid_Data") added.name.clear();  // a filler is not compared
        const std::vector<uint32_t> existing = rowOf(listed, name);
        if (!existing.empty()) {
            if (option == 0) added.name.clear();  // refused: nothing new expected
            else targets = existing;
            // the delete of a buffer or MP4 replace stays done when the add after it fails
            partial = (kKind == kBufferSave || kKind == kMp4Save) && option == 1;
        }
        grow = 2 * before.size() + 4096;  // a legacy sound becomes entries first
        const void *sub = added.sub.empty() ? nullptr : added.sub.data();
        if (kKind == kSave) {
            result = saveYAXDataToFile(path.c_str(), name.data(), uint32_t(name.size()), sub,
                                       uint32_t(added.sub.size()), added.payload.data(),
                                       uint32_t(added.payload.size()), added.type, option);
        } else if (kKind == kBufferSave) {
            // the whole file in a buffer with room to grow, edited there and
            // written back over the file whatever the result (a replace's
            // delete stays done when its add fails, as on a file)
            YAXBUFFER *h = initYAXBuffer(uint32_t(before.size()) + 4096);
            if (h == nullptr) break;
            if (!before.empty()) _qbwrite(before.data(), uint32_t(before.size()), h);
            result = saveYAXDataToBuffer(h, name.data(), uint32_t(name.size()), sub,
                                         uint32_t(added.sub.size()), added.payload.data(),
                                         uint32_t(added.payload.size()), added.type, option);
            WriteHandle_FilePath(path.c_str(), h);
            destroyYAXBuffer(h);
        } else {
            FILE *fp = std::fopen(path.c_str(), "r+b");
            if (fp == nullptr) break;
            const uint32_t n = uint32_t(name.size()), sl = uint32_t(added.sub.size()),
                           pl = uint32_t(added.payload.size());
            result = kKind == kMp4Save
                         ? saveYAXDataToFPToMP4(fp, name.data(), n, sub, sl, added.payload.data(), pl, added.type, option)
                         : saveFastYAXDataToFP(fp, name.data(), n, sub, sl, added.payload.data(), pl, added.type, option);
            std::fclose(fp);
        }
        if (result != 1) added.name.clear();
        break;
    }
    case kSound:
        result = soundEdit(path, listed, a, b, targets, added, grow, partial, before);
        break;
    case kCover:
        result = coverEdit(path, listed, a, b, targets, grow, before);
        break;
    }
    const inv::Bytes after = inv::slurp(path);
    // the MP4 save answers 1 without a change for an ending it does not classify
    if (kKind == kMp4Save && result == 1 && after == before && !listed.listed) result = 0;
    if (std::getenv("YAX_FUZZ_VERBOSE") != nullptr)
        std::fprintf(stderr, "%s: result %d, %zu -> %zu bytes, %zu entries listed before\n",
                     kindName(), result, before.size(), after.size(), listed.items.size());
    // The one kept exception: bytes between the last row and the tail make
    // the documented fast edits misplace the end of the trailer.
    if (fastKind(variant) && inv::frame(before).stale()) return 0;
    // A replace whose add fails after its delete keeps the delete (documented).
    partial = partial || ((kKind == kSave || kKind == kFastSave) && !targets.empty());
    const inv::Verdict v = inv::check(before, after, listed, inv::listingAfter(path, after), result,
                                      targets, added, grow, partial);
    if (!v) fz::fail(kindName(), v.fault.c_str(), before);
    return 0;
}
