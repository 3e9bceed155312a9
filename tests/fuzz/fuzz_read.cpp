// libFuzzer target for the read side: detection, parse and list of a file
// and of a buffer, every query, name list, type list and extraction, the
// legacy audio parser and readers, the TonePhoto list readers, and the
// streamed extraction (which must give the extraction's bytes). Reading
// must never crash, leak or touch memory it does not own.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz/edit_invariant.hpp"
#include "fuzz/fuzz_common.hpp"
#include "yax_vono.h"

namespace {

// The streamed payload and sub-information of row i must be the bytes the
// extraction copies out, whenever both give them.
void streamRow(YAXDATA *d, uint32_t i, const YAXDATA_UNIT *u) {
    static FILE *out = std::tmpfile();
    if (out == nullptr) return;
    for (int part : {YAX_STREAM_PAYLOAD, YAX_STREAM_SUB_INFO}) {
        if (ftruncate(fileno(out), 0) != 0) return;
        std::rewind(out);
        const int64_t n = yaxStreamYAXData(d, i, part, out);
        if (n < 0 || u == nullptr) continue;
        const void *want = part == YAX_STREAM_PAYLOAD ? u->data : u->sub_info;
        const uint32_t want_len = part == YAX_STREAM_PAYLOAD ? u->data_length : u->sub_info_length;
        if (want == nullptr) continue;
        inv::Bytes got(static_cast<size_t>(n));
        std::rewind(out);
        if (n != int64_t(want_len) || (n != 0 && std::fread(got.data(), 1, got.size(), out) != got.size()) ||
            (n != 0 && std::memcmp(got.data(), want, got.size()) != 0))
            fz::fail("read", "streamed bytes differ from the extracted ones", {});
    }
}

void drainRecord(YAXDATA *d) {
    if (d == nullptr) return;
    for (uint32_t i = 0; i <= d->count; ++i) {  // one past the last row too
        destroyYAXOFFSET(getYAXInFileByIndex(d, i));
        destroyYAXOFFSET64(getYAXInFileByIndex64(d, i));
        destroyYAXOFFSET(getYAXSubInfoInFileByIndex(d, i));
        destroyYAXOFFSET64(getYAXSubInfoInFileByIndex64(d, i));
        YAXDATA_UNIT *u = extractYAXDataFromFilebyIndex(d, i);
        streamRow(d, i, u);
        const char *name = i < d->count && d->YAX_name_list != nullptr ? d->YAX_name_list[i] : nullptr;
        if (name != nullptr) {
            destroyYAXOFFSET(getYAXInFileByName(d, name));
            destroyYAXOFFSET64(getYAXInFileByName64(d, name));
            destroyYAXOFFSET(getYAXSubInfoInFileByName(d, name));
            destroyYAXOFFSET64(getYAXSubInfoInFileByName64(d, name));
            destroyYAXDATA_UNIT(extractYAXDataFromFilebyName(d, name, uint32_t(std::strlen(name))));
            static FILE *sink = std::fopen("/dev/null", "wb");
            if (sink != nullptr) yaxStreamYAXDataByName(d, name, YAX_STREAM_SUB_INFO, sink);
            const uint32_t type = getYAXDataType(d, name);
            uint32_t n = 0;
            char **list = getNameListByDataType(d, type, &n);
            for (uint32_t k = 0; list != nullptr && k < n; ++k) _qfree(list[k]);
            _qfree(list);
            destroyYAXOFFSET(getVonoInFile(d, name));
            if (u != nullptr) {
                char *tone = nullptr;
                getTonePhotoNameByIndex(u, &tone, 0);
                _qfree(tone);
                isIdenticalNameInMetaInfo(u, name);
            }
        }
        destroyYAXDATA_UNIT(u);
    }
    char **names = nullptr;
    uint32_t n = 0;
    if (getTonePhotoNameList(d, &names, &n) == 1) {
        for (uint32_t k = 0; names != nullptr && k < n; ++k) _qfree(names[k]);
        _qfree(names);
    }
    getVonoCntInFile(d);
    isVonoMetaInfo(d);
}

void legacy(const char *path) {
    VonoInfo *v = _checkAudioInImageFile(path);
    if (v == nullptr) return;
    _getAudioCountInImageFile(v);
    _destroyVONOOFFSET(_getAudioInImageFile(v));
    _qfree(_getAudioStreamBuffer(v));
    DestroyVono(v);
}

void buffer(const uint8_t *data, size_t size) {
    YAXBUFFER *h = _qbopen(uint32_t(size) + 16);
    if (h == nullptr) return;
    if (size != 0) _qbwrite(data, uint32_t(size), h);
    const unsigned sig = getSignatureBuffer(h);
    if (YaxInfo *info = ParseYAX_Buffer(h, int(sig))) {
        getYAXListBuffer(info);
        DestroyYAX_Buffer(info);
    }
    if (VonoInfo *v = ParseVonoBuffer(h)) {
        ParseVonoSoundBufferApi(v);
        DestroyVonoBuffer(v);
    }
    _qbclose(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &path = fz::workFile();
    inv::spill(path, data, size);
    const int sig = getSignature(path.c_str());
    if (sig == SIGNATURE_YAX || sig == SIGNATURE_VONO_YAX) {
        YAXDATA *d = checkYAXWithReadPM(path.c_str());
        drainRecord(d);
        destroyYAXDATA(d);
    }
    legacy(path.c_str());
    yaxCheckFile(path.c_str(), nullptr, nullptr);
    buffer(data, size);
    return 0;
}
