// Fast saves: one named entry into a file without a trailer or with a plain
// one, never moving the bytes before the trailer, never using a temporary
// file and never reopening the stream. A same-name entry becomes the
// "Invalid_Data" filler, and the new block takes the filler's room when it
// fits. Files ending in a legacy audio block are refused.
#include <cstdio>

#include "api/edit_group.hpp"
#include "api/save_common.hpp"
#include "container/add.hpp"
#include "container/layout.hpp"
#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace yax {
namespace {

constexpr const char *kPathTag = "YAXAPI";
constexpr const char *kTooBig = "Too big YAX data to add in the file";

// The fast savers that read their payload from a file report only the size
// refusal; every other failure is a plain 0.
constexpr api::PayloadMsgs kPayloadMsgs{kPathTag, nullptr, kPathTag, nullptr, nullptr, nullptr};

struct StreamRelease {
    void operator()(YAXDATA *d) const { destroyYAXDATA_FP(d); }
};
using StreamRecord = std::unique_ptr<YAXDATA, StreamRelease>;

// Row 0 named "Invalid_Data" and of the filler's data type.
bool firstRowIsFiller(YAXDATA *yd) {
    return _getIndexOfName(yd, layout::kFillerName.data()) == 0 &&
           _getDataType(yd->yax_info->meta_data[0]->meta_type) == layout::kFillerType;
}

// The steps of the fast save, after its checks.
int fastSave(FILE *fp, const NewEntry &e, uint32_t sub_info_length, int option) {
    const char *name = e.name;
    const uint32_t name_length = e.name_length;
    unsigned int signature = getSignatureFP(fp);
    if (signature == SIGNATURE_NONE) return addFirstToStream(fp, e);
    if (signature != SIGNATURE_YAX) return 0;

    StreamRecord yd(checkYAXInFP(fp));
    if (!yd) return 0;
    if (checkYAXInfoForSaving(yd->yax_info, e.data_length, sub_info_length, name_length) == 0)
        return 0;
    api::QChars key = api::copyName(name, name_length);
    if (!key) return 0;

    // The filler left by an earlier fast delete is row 0; its room may take
    // the new block. Row 0 is taken for it only when it is one.
    int reuse_first = firstRowIsFiller(yd.get()) ? 1 : 0;

    uint32_t index = _getIndexOfName(yd.get(), key.get());
    if (index < yd->count) {
        if ((option & 1) == 0) return 0;
        // The end of the file is rewritten by the add that follows, so the
        // delete does not pad the filler for a dropped row.
        // A delete that did not happen must not lead to a second entry of
        // the name. A block under 20 bytes is cut out rather than turned into
        // filler, so row 0 is looked at again.
        if (FastDeleteAYAXData(yd->yax_info, index, nullptr, 1) != 1) return 0;
        yd.reset(checkYAXInFP(fp));
        // Only a single entry under 20 bytes leaves no trailer: start anew.
        if (!yd && getSignatureFP(fp) == SIGNATURE_NONE) return addFirstToStream(fp, e);
        if (!yd) return 0;
        reuse_first = yd->count != 0 && yax::layout::kFillerType ==
                                            _getDataType(yd->yax_info->meta_data[0]->meta_type)
                          ? 1
                          : 0;
    }
    return fastAddEntry(yd->yax_info, e, reuse_first);
}

}  // namespace

// The reference fast save: its checks, then the steps as one edit (see
// edit_group.hpp). `source`, when given, streams the payload from its file.
int fastSaveChecked(FILE *fp, const char *name, uint32_t name_length, const void *sub_info,
                    uint32_t sub_info_length, const void *data, uint32_t data_length,
                    uint32_t data_type, int option, const PayloadSource *source) {
    constexpr const char *tag = "YAXAPIs::saveFastYAXDataToFP";
    if (fp == nullptr) {
        YAXLogE(tag, "fp null\n");
        return 0;
    }
    if (name == nullptr || name_length == 0) {
        YAXLogE(tag, "YAXName null\n");
        return 0;
    }
    // A missing payload and an empty one read the same to the caller.
    if ((data == nullptr && source == nullptr) || data_length == 0) {
        YAXLogE(tag, "data is null\n");
        return 0;
    }
    if (data_type == YAX_USER_DEFINED_DATA && (sub_info == nullptr || sub_info_length == 0)) {
        YAXLogE(tag, "data_type null\n");
        return 0;
    }
    const NewEntry e(data_type, name, name_length, sub_info, sub_info_length, data, data_length,
                     source);
    api::EditGroup group(fp);
    if (!group.ready()) return 0;
    return group.finish(fastSave(fp, e, sub_info_length, option));
}

}  // namespace yax

extern "C" {

YAX_EXPORT int saveFastYAXDataToFP(FILE *fp, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const void *data, uint32_t data_length, uint32_t data_type,
                                   int option) {
    return yax::fastSaveChecked(fp, name, name_length, sub_info, sub_info_length, data,
                                data_length, data_type, option, nullptr);
}

// The stream opened here is not closed: every write has already gone to the
// descriptor, so the file is complete when this returns.
YAX_EXPORT int saveFastYAXDataToFile(const char *path, const char *name, uint32_t name_length,
                                     const void *sub_info, uint32_t sub_info_length,
                                     const void *data, uint32_t data_length, uint32_t data_type,
                                     int option) {
    using namespace yax;
    FILE *fp = path != nullptr ? _qfopen(path, "r+b") : nullptr;
    if (fp == nullptr) return 0;
    if (data_length >= layout::kSizeLimit) {
        YAXLogE(kPathTag, kTooBig);
        return 0;
    }
    return saveFastYAXDataToFP(fp, name, name_length, sub_info, sub_info_length, data,
                               data_length, data_type, option);
}

YAX_EXPORT int saveFastYAXNameToFP(FILE *fp, const char *name, uint32_t name_length,
                                   const void *sub_info, uint32_t sub_info_length,
                                   const char *payload_path, uint32_t data_type, int option) {
    using namespace yax;
    api::PayloadFile payload;
    if (payload_path == nullptr || !payload.open(payload_path, kPayloadMsgs) ||
        !payload.holdIfTarget(fp != nullptr ? fileno(fp) : -1, kPayloadMsgs))
        return 0;
    return fastSaveChecked(fp, name, name_length, sub_info, sub_info_length, payload.data(),
                           payload.length(), data_type, option, payload.source());
}

YAX_EXPORT int saveFastYAXDataFileToFile(const char *path, const char *name, uint32_t name_length,
                                         const void *sub_info, uint32_t sub_info_length,
                                         const char *payload_path, uint32_t data_type,
                                         int option) {
    using namespace yax;
    api::PayloadFile payload;
    if (payload_path == nullptr || !payload.open(payload_path, kPayloadMsgs)) return 0;
    // A target that cannot be opened reaches the save as a null stream and
    // is reported there.
    FILE *fp = path != nullptr ? _qfopen(path, "r+b") : nullptr;
    int result = 0;
    if (payload.holdIfTarget(fp != nullptr ? fileno(fp) : -1, kPayloadMsgs))
        result = fastSaveChecked(fp, name, name_length, sub_info, sub_info_length, payload.data(),
                                 payload.length(), data_type, option, payload.source());
    if (fp != nullptr) _qfclose(fp);
    return result;
}

}  // extern "C"
