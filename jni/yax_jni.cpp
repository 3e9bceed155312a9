// Native side of com.kalvora.android.media.YAXJNI and VonoJNI: thin wrappers
// that turn Java arguments into C strings and byte pointers, call one library
// operation and give everything back. Exported under the JNI names; no
// registration table.
#include <jni.h>

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "include/yax_api.h"
#include "include/yax_container.h"
#include "include/yax_export.h"
#include "include/yax_support.h"
#include "include/yax_vono.h"
#include "jni/yax_jni_common.hpp"

namespace {

constexpr jint kVersion = 105;

jintArray makeIntPair(JNIEnv *env, jint a, jint b) {
    jintArray out = env->NewIntArray(2);
    if (out == nullptr) return nullptr;
    const jint v[2] = {a, b};
    env->SetIntArrayRegion(out, 0, 2, v);
    return out;
}

jlongArray makeLongPair(JNIEnv *env, jlong a, jlong b) {
    jlongArray out = env->NewLongArray(2);
    if (out == nullptr) return nullptr;
    const jlong v[2] = {a, b};
    env->SetLongArrayRegion(out, 0, 2, v);
    return out;
}

// String array: the empty string as initial element, one NewStringUTF each.
jobjectArray makeStringArray(JNIEnv *env, char *const *names, uint32_t count) {
    jclass cls = env->FindClass("java/lang/String");
    if (cls == nullptr) return nullptr;
    jstring empty = env->NewStringUTF("");
    jobjectArray out = env->NewObjectArray(static_cast<jsize>(count), cls, empty);
    env->DeleteLocalRef(empty);
    env->DeleteLocalRef(cls);
    if (out == nullptr) return nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        jstring s = env->NewStringUTF(names[i] != nullptr ? names[i] : "");
        if (s == nullptr) return nullptr;
        env->SetObjectArrayElement(out, static_cast<jsize>(i), s);
        env->DeleteLocalRef(s);
    }
    return out;
}

// The entry-adding wrappers share their argument handling: strings tested for
// null (a null one is passed on as a null pointer), byte arrays copied back
// with mode 0, lengths checked against their arrays first.
template <typename Call>
jint withEntryArgs(JNIEnv *env, jstring jpath, jstring jname, jint nameLength,
                   jbyteArray jsub, jint subLength, jbyteArray jdata, jint dataLength,
                   Call call) {
    if (!yaxjni::lengthFits(env, jsub, subLength) || !yaxjni::lengthFits(env, jdata, dataLength))
        return 0;
    yaxjni::Utf path(env, jpath, true), name(env, jname, true);
    if (!name.fits(nameLength)) return 0;
    yaxjni::Bytes sub(env, jsub), data(env, jdata);
    return call(path.c, name.c, static_cast<uint32_t>(nameLength), sub.p,
                static_cast<uint32_t>(subLength), data.p, static_cast<uint32_t>(dataLength));
}

// Reads the whole payload file for the fast file add.
unsigned char *readWholeFile(const char *path, uint32_t *length) {
    static const char kTag[] = "JNI addYAXDataFile";
    FILE *fp = path != nullptr ? fopen(path, "rb") : nullptr;
    if (fp == nullptr) {
        YAXLogE(kTag, "data_fp NULL\n");
        return nullptr;
    }
    long size = -1;
    if (fseek(fp, 0, SEEK_END) == 0) size = ftell(fp);
    if (size <= 0 || size > INT32_MAX || fseek(fp, 0, SEEK_SET) != 0) {
        YAXLogE(kTag, "data_len<= 0\n");
        fclose(fp);
        return nullptr;
    }
    auto *bytes = static_cast<unsigned char *>(malloc(static_cast<size_t>(size)));
    if (bytes == nullptr || fread(bytes, 1, static_cast<size_t>(size), fp) !=
                                static_cast<size_t>(size)) {
        YAXLogE(kTag, "fread fail\n");
        free(bytes);
        fclose(fp);
        return nullptr;
    }
    fclose(fp);
    *length = static_cast<uint32_t>(size);
    return bytes;
}

// Copies the first sound of src into dst through the legacy routines; a
// destination that already holds a sound is left unchanged (its record has
// neither stream nor table, so addVonoSound writes nothing). Always 1.
jint copyFirstSound(const char *src, const char *dst) {
    VonoInfo *from = ParseVono(src);
    if (from == nullptr) return 1;
    if (ParseVonoSound(from) < 1 || from->count < 1 || from->offsets == nullptr) {
        DestroyVono(from);
        return 1;
    }
    VonoInfo *to = ParseVono(dst);
    if (to != nullptr && to->fp != nullptr) {
        fclose(to->fp);
        to->fp = nullptr;
    }
    const int32_t length = static_cast<int32_t>(from->offsets[1] - from->offsets[0]);
    if (length >= 0) {
        void *bytes = malloc(length > 0 ? static_cast<size_t>(length) : 1);
        if (bytes != nullptr) {
            ReadSoundData(from->fp, from->offsets[0], static_cast<uint32_t>(length), bytes);
            if (to == nullptr)
                AddVonoSoundInFirstTime(dst, bytes, static_cast<uint32_t>(length));
            else
                addVonoSound(dst, to, bytes, static_cast<uint32_t>(length));
            free(bytes);
        }
    }
    DestroyVono(from);
    DestroyVono(to);
    return 1;
}

}  // namespace

// ------------------------------------------------------------------ YAXJNI

YAXJNI_FN(jint, getNativeVersion)(JNIEnv *, jclass) { return kVersion; }

YAXJNI_FN(jint, isYAXFile)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    const int sig = getSignature(path.c);
    return (sig == SIGNATURE_YAX || sig == SIGNATURE_VONO_YAX) ? 1 : 0;
}

YAXJNI_FN(jint, copyAdioData)(JNIEnv *env, jclass, jstring jsrc, jstring jdst) {
    yaxjni::Utf src(env, jsrc), dst(env, jdst);
    return copyFirstSound(src.c, dst.c);
}

// The library saves the add methods call, in the by-path form; the MP4
// saves take a stream, opened "r+b" around them here (0 when it cannot be).
using MemorySave = int (*)(const char *, const char *, uint32_t, const void *, uint32_t,
                           const void *, uint32_t, uint32_t, int);
using FileSave = int (*)(const char *, const char *, uint32_t, const void *, uint32_t,
                         const char *, uint32_t, int);

int saveToMp4ByPath(const char *p, const char *n, uint32_t nl, const void *s, uint32_t sl,
                    const void *d, uint32_t dl, uint32_t type, int option) {
    FILE *fp = p != nullptr ? fopen(p, "r+b") : nullptr;
    if (fp == nullptr) return 0;
    const int r = saveYAXDataToFPToMP4(fp, n, nl, s, sl, d, dl, type, option);
    fclose(fp);
    return r;
}

int saveFileToMp4ByPath(const char *p, const char *n, uint32_t nl, const void *s, uint32_t sl,
                        const char *dp, uint32_t type, int option) {
    FILE *fp = p != nullptr ? fopen(p, "r+b") : nullptr;
    if (fp == nullptr) return 0;
    const int r = saveYAXDataFileToFPToMP4(fp, n, nl, s, sl, dp, type, option);
    fclose(fp);
    return r;
}

// addFastYAXDataFile reads the whole payload file itself, then fast-saves it.
int saveFastWholeFile(const char *p, const char *n, uint32_t nl, const void *s, uint32_t sl,
                      const char *dp, uint32_t type, int option) {
    uint32_t length = 0;
    unsigned char *bytes = readWholeFile(dp, &length);
    if (bytes == nullptr) return 0;
    const int r = saveFastYAXDataToFile(p, n, nl, s, sl, bytes, length, type, option);
    free(bytes);
    return r;
}

jint addFromMemory(MemorySave save, JNIEnv *env, jstring jpath, jstring jname, jint nameLength,
                   jbyteArray jsub, jint subLength, jbyteArray jdata, jint dataLength,
                   jint dataType, jint option) {
    return withEntryArgs(env, jpath, jname, nameLength, jsub, subLength, jdata, dataLength,
                         [&](const char *p, const char *n, uint32_t nl, const void *s,
                             uint32_t sl, const void *d, uint32_t dl) {
                             return save(p, n, nl, s, sl, d, dl, static_cast<uint32_t>(dataType),
                                         option);
                         });
}

// The file-payload adds: the payload path is a string, tested for null.
template <typename Call>
jint withFileArgs(JNIEnv *env, jstring jpath, jstring jname, jint nameLength, jbyteArray jsub,
                  jint subLength, jstring jdataPath, Call call) {
    if (!yaxjni::lengthFits(env, jsub, subLength)) return 0;
    yaxjni::Utf path(env, jpath, true), name(env, jname, true), dataPath(env, jdataPath, true);
    if (!name.fits(nameLength)) return 0;
    yaxjni::Bytes sub(env, jsub);
    return call(path.c, name.c, static_cast<uint32_t>(nameLength), sub.p,
                static_cast<uint32_t>(subLength), dataPath.c);
}

jint addFromFile(FileSave save, JNIEnv *env, jstring jpath, jstring jname, jint nameLength,
                 jbyteArray jsub, jint subLength, jstring jdataPath, jint dataType, jint option) {
    return withFileArgs(env, jpath, jname, nameLength, jsub, subLength, jdataPath,
                        [&](const char *p, const char *n, uint32_t nl, const void *s,
                            uint32_t sl, const char *dp) {
                            return save(p, n, nl, s, sl, dp, static_cast<uint32_t>(dataType),
                                        option);
                        });
}

#define YAXJNI_ADD_MEMORY(method, save)                                                       \
    YAXJNI_FN(jint, method)(JNIEnv * env, jclass, jstring jpath, jstring jname,              \
                            jint nameLength, jbyteArray jsub, jint subLength,                \
                            jbyteArray jdata, jint dataLength, jint dataType, jint option) { \
        return addFromMemory(save, env, jpath, jname, nameLength, jsub, subLength, jdata,    \
                             dataLength, dataType, option);                                  \
    }
#define YAXJNI_ADD_FILE(method, save)                                                          \
    YAXJNI_FN(jint, method)(JNIEnv * env, jclass, jstring jpath, jstring jname,               \
                            jint nameLength, jbyteArray jsub, jint subLength,                 \
                            jstring jdataPath, jint dataType, jint option) {                  \
        return addFromFile(save, env, jpath, jname, nameLength, jsub, subLength, jdataPath,   \
                           dataType, option);                                                 \
    }

YAXJNI_ADD_MEMORY(addYAXData, saveYAXDataToFile)
YAXJNI_ADD_MEMORY(addFastYAXData, saveFastYAXDataToFile)
YAXJNI_ADD_MEMORY(addYAXDataToMP4, saveToMp4ByPath)
YAXJNI_ADD_FILE(addYAXDataFile, saveYAXFileDataToFile)
YAXJNI_ADD_FILE(addFastYAXDataFile, saveFastWholeFile)
YAXJNI_ADD_FILE(addYAXDataFileToMP4, saveFileToMp4ByPath)

YAXJNI_FN(jint, addYAXDataFiles)(JNIEnv *env, jclass, jstring jpath, jobjectArray jnames,
                           jintArray jnameLengths, jobjectArray jdataPaths, jintArray jtypes,
                           jint option, jint count) {
    if (count > 0 && (!yaxjni::lengthFits(env, jnames, count) ||
                      !yaxjni::lengthFits(env, jnameLengths, count) ||
                      !yaxjni::lengthFits(env, jdataPaths, count) ||
                      !yaxjni::lengthFits(env, jtypes, count) || jnames == nullptr ||
                      jnameLengths == nullptr || jdataPaths == nullptr || jtypes == nullptr))
        return 0;
    yaxjni::Utf path(env, jpath, true);
    jint *lengths = jnameLengths != nullptr ? env->GetIntArrayElements(jnameLengths, nullptr)
                                            : nullptr;
    jint *types = jtypes != nullptr ? env->GetIntArrayElements(jtypes, nullptr) : nullptr;
    jint result = 0;
    for (jint i = 0; i < count; ++i) {
        jstring jname = static_cast<jstring>(env->GetObjectArrayElement(jnames, i));
        jstring jdp = static_cast<jstring>(env->GetObjectArrayElement(jdataPaths, i));
        int r = 0;
        if (jname != nullptr && jdp != nullptr) {
            yaxjni::Utf name(env, jname), dp(env, jdp);
            if (name.c != nullptr && dp.c != nullptr && name.fits(lengths[i]))
                r = saveYAXFileDataToFile(path.c, name.c, static_cast<uint32_t>(lengths[i]),
                                          nullptr, 0, dp.c, static_cast<uint32_t>(types[i]),
                                          option);
        }
        if (jname != nullptr) env->DeleteLocalRef(jname);
        if (jdp != nullptr) env->DeleteLocalRef(jdp);
        if (r < 1) {
            result = 0;
            break;
        }
        result = r;
    }
    if (lengths != nullptr) env->ReleaseIntArrayElements(jnameLengths, lengths, 0);
    if (types != nullptr) env->ReleaseIntArrayElements(jtypes, types, 0);
    return result;
}

YAXJNI_FN(jint, deleteYAXData)(JNIEnv *env, jclass, jstring jpath, jstring jname, jint nameLength) {
    yaxjni::Utf path(env, jpath), name(env, jname);
    if (!name.fits(nameLength)) return 0;
    YAXDATA *handle = checkYAXInFile(path.c);
    if (handle == nullptr) return 0;
    const int r = deleteYAXDataFromFilebyName(&handle, name.c, nameLength);
    destroyYAXDATA(handle);
    return r;
}

YAXJNI_FN(jint, fastDeleteYAXData)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    yaxjni::Utf path(env, jpath), name(env, jname);
    return deleteFastAYAXData(path.c, name.c);
}

YAXJNI_FN(jint, clearYAXData)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return deleteAllDataFromFile(path.c);
}

YAXJNI_FN(jint, fastClearYAXData)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return deleteFastAllYAXData(path.c);
}

// The read-only queries: the file's record, parsed read-only, goes to `use`
// and is released after it; `none` when the file holds no trailer.
template <typename Result, typename Use>
Result withRecord(const char *path, Result none, Use use) {
    YAXDATA *handle = checkYAXWithReadPM(path);
    if (handle == nullptr) return none;
    const Result out = use(handle);
    destroyYAXDATA(handle);
    return out;
}

// The position queries: look the name up, {offset, length}.
template <typename Rec, typename Lookup, typename Destroy, typename Make>
auto position(JNIEnv *env, jstring jpath, jstring jname, Lookup lookup, Destroy destroy,
              Make make) -> decltype(make(env, 0, 0)) {
    using Out = decltype(make(env, 0, 0));
    yaxjni::Utf path(env, jpath), name(env, jname);
    return withRecord(path.c, Out{nullptr}, [&](YAXDATA *handle) {
        Rec *rec = lookup(handle, name.c);
        Out out = nullptr;
        if (rec != nullptr) out = make(env, rec->offset, rec->length);
        destroy(rec);
        return out;
    });
}

YAXJNI_FN(jintArray, getYAXDataPosition)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    return position<YAXOFFSET>(env, jpath, jname, getYAXInFileByName, destroyYAXOFFSET,
                               [](JNIEnv *e, int64_t o, int64_t l) {
                                   return makeIntPair(e, static_cast<jint>(o), static_cast<jint>(l));
                               });
}

YAXJNI_FN(jlongArray, getYAXDataPosition64)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    return position<YAXOFFSET64>(env, jpath, jname, getYAXInFileByName64, destroyYAXOFFSET64,
                                 [](JNIEnv *e, int64_t o, int64_t l) {
                                     return makeLongPair(e, o, l);
                                 });
}

YAXJNI_FN(jintArray, getYAXSubDataPosition)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    return position<YAXOFFSET>(env, jpath, jname, getYAXSubInfoInFileByName, destroyYAXOFFSET,
                               [](JNIEnv *e, int64_t o, int64_t l) {
                                   return makeIntPair(e, static_cast<jint>(o), static_cast<jint>(l));
                               });
}

YAXJNI_FN(jlongArray, getYAXSubDataPosition64)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    return position<YAXOFFSET64>(env, jpath, jname, getYAXSubInfoInFileByName64,
                                 destroyYAXOFFSET64, [](JNIEnv *e, int64_t o, int64_t l) {
                                     return makeLongPair(e, o, l);
                                 });
}

YAXJNI_FN(jint, getYAXDataCount)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return withRecord(path.c, jint{0}, [](YAXDATA *handle) { return static_cast<jint>(handle->count); });
}

// Guard beyond the plain wrapper: an index outside the table gives null.
YAXJNI_FN(jstring, getYAXName)(JNIEnv *env, jclass, jstring jpath, jint index) {
    yaxjni::Utf path(env, jpath);
    return withRecord(path.c, jstring{nullptr}, [&](YAXDATA *handle) -> jstring {
        if (index >= 0 && static_cast<uint32_t>(index) < handle->count &&
            handle->YAX_name_list != nullptr && handle->YAX_name_list[index] != nullptr)
            return env->NewStringUTF(handle->YAX_name_list[index]);
        return nullptr;
    });
}

YAXJNI_FN(jint, getYAXDataType)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    yaxjni::Utf path(env, jpath), name(env, jname);
    return withRecord(path.c, jint{0},
                      [&](YAXDATA *handle) { return static_cast<jint>(getYAXDataType(handle, name.c)); });
}

YAXJNI_FN(jobjectArray, listKeyNames)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return withRecord(path.c, jobjectArray{nullptr}, [&](YAXDATA *handle) -> jobjectArray {
        if (handle->YAX_name_list == nullptr && handle->count != 0) return nullptr;
        return makeStringArray(env, handle->YAX_name_list, handle->count);
    });
}

YAXJNI_FN(jintArray, listYAXDataTypes)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return withRecord(path.c, jintArray{nullptr}, [&](YAXDATA *handle) -> jintArray {
        const YaxInfo *info = handle->yax_info;
        if (handle->count < 1 || info == nullptr || info->meta_data == nullptr) return nullptr;
        const uint32_t n = handle->count;
        jintArray out = env->NewIntArray(static_cast<jsize>(n));
        for (uint32_t i = 0; out != nullptr && i < n; ++i) {
            const jint t = static_cast<jint>(info->meta_data[i]->meta_type >> 16);
            env->SetIntArrayRegion(out, static_cast<jsize>(i), 1, &t);
        }
        return out;
    });
}

YAXJNI_FN(jobjectArray, listKeyNamesByDataType)(JNIEnv *env, jclass, jstring jpath, jint dataType) {
    yaxjni::Utf path(env, jpath);
    return withRecord(path.c, jobjectArray{nullptr}, [&](YAXDATA *handle) -> jobjectArray {
        uint32_t count = 0;
        char **names = getNameListByDataType(handle, static_cast<uint32_t>(dataType), &count);
        if (names == nullptr) return nullptr;
        jobjectArray out = makeStringArray(env, names, count);
        for (uint32_t i = 0; i < count; ++i) _qfree(names[i]);
        _qfree(names);
        return out;
    });
}

namespace {
bool writeWhole(const std::string &path, const void *bytes, uint32_t length) {
    FILE *fp = fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    const bool ok = length == 0 || fwrite(bytes, length, 1, fp) == 1;
    fclose(fp);
    return ok;
}
}  // namespace

YAXJNI_FN(jint, getAllParsedDataForTest)(JNIEnv *env, jclass, jstring jpath, jstring jout) {
    yaxjni::Utf path(env, jpath), out(env, jout);
    const std::string dir = std::string(out.c != nullptr ? out.c : "") + "/parsed/";
    mkdir(dir.c_str(), 0777);
    return withRecord(path.c, jint{0}, [&](YAXDATA *handle) -> jint {
        if (handle->count == 0) return 0;
        for (uint32_t i = 0; i < handle->count; ++i) {
            YAXDATA_UNIT *unit = extractYAXDataFromFilebyIndex(handle, i);
            const char *name = handle->YAX_name_list != nullptr ? handle->YAX_name_list[i] : nullptr;
            if (unit != nullptr && name != nullptr) {
                writeWhole(dir + name, unit->data, unit->data_length);
                if (unit->sub_info != nullptr && unit->sub_info_length > 0)
                    writeWhole(dir + "subdata_" + name, unit->sub_info, unit->sub_info_length);
            }
            destroyYAXDATA_UNIT(unit);
        }
        return 1;
    });
}

// ------------------------------------------------------------------ VonoJNI

VONOJNI_FN(jint, getNativeVersion)(JNIEnv *, jobject) { return kVersion; }

VONOJNI_FN(jint, isVonoFile)(JNIEnv *env, jobject, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    VonoInfo *info = ParseVono(path.c);
    if (info == nullptr) return 0;
    const jint valid = static_cast<jint>(info->valid);
    DestroyVono(info);
    return valid;
}

VONOJNI_FN(jint, copyAdioData)(JNIEnv *env, jobject, jstring jsrc, jstring jdst) {
    yaxjni::Utf src(env, jsrc), dst(env, jdst);
    return copyFirstSound(src.c, dst.c);
}

VONOJNI_FN(jintArray, ParseVonoFile)(JNIEnv *env, jobject, jstring jpath) {
    if (jpath == nullptr) {
        YAXLogE("VELTA", "input filename is NULL");
        return static_cast<jintArray>(nullptr);
    }
    yaxjni::Utf path(env, jpath);
    VonoInfo *info = _checkAudioInImageFile(path.c);
    if (info == nullptr) return static_cast<jintArray>(nullptr);
    const jsize n = static_cast<jsize>(2 * info->count);
    jintArray out = env->NewIntArray(n);
    if (out != nullptr && n > 0 && info->offsets != nullptr)
        env->SetIntArrayRegion(out, 0, n, reinterpret_cast<const jint *>(info->offsets));
    _destroyVONODATA(info);
    return out;
}

// Pair i packed as end << 32 | start (the table read as 64-bit little-endian
// words); the second half of the array is left zero.
VONOJNI_FN(jlongArray, ParseVonoFile64)(JNIEnv *env, jobject, jstring jpath) {
    if (jpath == nullptr) {
        YAXLogE("VELTA", "input filename is NULL");
        return static_cast<jlongArray>(nullptr);
    }
    yaxjni::Utf path(env, jpath);
    VonoInfo *info = _checkAudioInImageFile(path.c);
    if (info == nullptr) return static_cast<jlongArray>(nullptr);
    const jsize n = static_cast<jsize>(2 * info->count);
    jlongArray out = env->NewLongArray(n);
    for (uint32_t i = 0; out != nullptr && info->offsets != nullptr && i < info->count; ++i) {
        const jlong v = static_cast<jlong>((static_cast<uint64_t>(info->offsets[2 * i + 1]) << 32) |
                                           info->offsets[2 * i]);
        env->SetLongArrayRegion(out, static_cast<jsize>(i), 1, &v);
    }
    _destroyVONODATA(info);
    return out;
}

VONOJNI_FN(jint, AddSoundInVonoFile)(JNIEnv *env, jobject, jstring jpath, jbyteArray jdata,
                               jint length) {
    if (!yaxjni::lengthFits(env, jdata, length)) return 0;
    yaxjni::Utf path(env, jpath);
    yaxjni::Bytes data(env, jdata);
    VonoInfo *info = ParseVono(path.c);
    if (info == nullptr)
        return static_cast<jint>(
            AddVonoSoundInFirstTime(path.c, data.p, static_cast<uint32_t>(length)));
    jint r = 0;
    if (ParseVonoSound(info) >= 1) r = addVonoSound(path.c, info, data.p, static_cast<uint32_t>(length));
    DestroyVono(info);
    return r;
}

VONOJNI_FN(jint, DeleteVonoFromFile)(JNIEnv *env, jobject, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return deleteAVono(path.c);
}
