// Classifying a file's ending (none, legacy audio, trailer, both) and the
// arithmetic of the meta type word and the block length.
#include <cstring>

#include "container/layout.hpp"
#include "support/io.hpp"
#include "yax_container.h"

namespace yax {
namespace {

using namespace layout;

// The buffer flavour reports its first failure under its own tag and the
// later ones under the file flavour's tag; callers have always seen these.
struct DetectTags {
    const char *first_tag;
    const char *first_msg;
};
constexpr DetectTags kFileTags{"YAX::getSignatureFP", "File Search Error"};
constexpr DetectTags kBufferTags{"YAX::getSignature Buffer", "Buffer Search Error"};
constexpr const char *kLaterTag = "YAX::getSignatureFP";

template <typename IO>
unsigned int detect(IO io, const DetectTags &tags) {
    if (io.seek(-6, SEEK_END) <= 0) {
        YAXLogE(tags.first_tag, tags.first_msg);
        return 0;
    }
    unsigned char last6[6] = {};
    if (io.read(last6, sizeof last6) == 0) {
        YAXLogE(kLaterTag, "File Read Error");
        return 0;
    }
    if (std::memcmp(last6, kVonoTail, sizeof kVonoTail) == 0) {
        // A trailer is looked for at one place only: just before a one-sound
        // legacy block of 30 bytes.
        if (io.seek(-static_cast<int64_t>(kVonoYaxTailDistance), SEEK_END) < 1) {
            YAXLogE(kLaterTag, "File Search Error");
            return 0;
        }
        unsigned char magic[4] = {};
        io.read(magic, sizeof magic);
        return std::memcmp(magic, kTailMagic, 4) == 0 ? SIGNATURE_VONO_YAX : SIGNATURE_VONO;
    }
    return std::memcmp(last6 + 2, kTailMagic, 4) == 0 ? SIGNATURE_YAX : SIGNATURE_NONE;
}

}  // namespace
}  // namespace yax

extern "C" {

YAX_EXPORT int getSignature(const char *path) {
    FILE *fp = _qfopen(path, "rb");
    if (fp == nullptr) {
        YAXLogE("YAX::getSignature", "File Open Error : %s", path);
        return 0;
    }
    int code = static_cast<int>(getSignatureFP(fp));
    _qfclose(fp);
    return code;
}

YAX_EXPORT unsigned int getSignatureFP(FILE *fp) {
    if (fp == nullptr) return 0;
    return yax::detect(yax::FileIO{fp}, yax::kFileTags);
}

YAX_EXPORT unsigned int getSignatureBuffer(YAXBUFFER *handle) {
    if (handle == nullptr) return 0;
    return yax::detect(yax::BufIO{handle}, yax::kBufferTags);
}

YAX_EXPORT uint32_t _setMetaType(uint32_t type, uint32_t has_sub_info) {
    return yax::layout::metaType(type, has_sub_info);
}

YAX_EXPORT uint32_t _getDataType(uint32_t meta_type) {
    return meta_type >> yax::layout::kTypeShift;
}

YAX_EXPORT uint32_t _getDataLength(uint32_t has_sub_info, uint32_t name_length,
                                   uint32_t sub_info_length, uint32_t payload_length) {
    using namespace yax::layout;
    uint32_t fixed = kBlockFixed + name_length + payload_length;
    return has_sub_info ? fixed + kSubInfoField + sub_info_length : fixed;
}

}  // extern "C"
