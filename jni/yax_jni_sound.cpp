// YAXJNI's sound-entry methods: a sound saved as a named entry of the image,
// and its removal.
#include <jni.h>

#include <cstdint>

#include "include/yax_vono.h"
#include "jni/yax_jni_common.hpp"

YAXJNI_FN(jint, saveAudioJPEG)(JNIEnv *env, jclass, jstring jpath, jbyteArray jdata, jint length,
                               jstring jname, jint nameLength) {
    if (!yaxjni::lengthFits(env, jdata, length)) return 0;
    yaxjni::Utf path(env, jpath, true), name(env, jname, true);
    if (!name.fits(nameLength)) return 0;
    yaxjni::Bytes data(env, jdata);
    return saveVonoToImageFile(path.c, data.p, static_cast<uint32_t>(length), name.c,
                               static_cast<uint32_t>(nameLength));
}

YAXJNI_FN(jint, clearVonoData)(JNIEnv *env, jclass, jstring jpath) {
    yaxjni::Utf path(env, jpath);
    return deleteAllVonoFromImageFile(path.c);
}

YAXJNI_FN(jint, deleteVonoData)(JNIEnv *env, jclass, jstring jpath, jstring jname) {
    yaxjni::Utf path(env, jpath), name(env, jname);
    return deleteVonoFromImageFile(path.c, name.c);
}
