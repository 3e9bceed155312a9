// YAXJNI's copy and cover methods: entries copied between files, and the
// image before the trailer replaced.
#include <jni.h>

#include <cstdint>

#include "include/yax_api.h"
#include "include/yax_support.h"
#include "jni/yax_jni_common.hpp"

YAXJNI_FN(jint, copyAllYAXData)(JNIEnv *env, jclass, jstring jsrc, jstring jdst) {
    yaxjni::Utf src(env, jsrc), dst(env, jdst);
    return copyYAXData(src.c, dst.c);
}

YAXJNI_FN(jint, copyAllYAXDataType)(JNIEnv *env, jclass, jstring jsrc, jstring jdst, jint type) {
    yaxjni::Utf src(env, jsrc), dst(env, jdst);
    return copyYAXDataType(src.c, dst.c, static_cast<uint32_t>(type));
}

YAXJNI_FN(jint, copyAllYAXDataKeyName)(JNIEnv *env, jclass, jstring jsrc, jstring jdst,
                                       jstring jname) {
    yaxjni::Utf src(env, jsrc), dst(env, jdst), name(env, jname);
    return copyYAXDataKeyName(src.c, dst.c, name.c);
}

YAXJNI_FN(jint, FastChangeCoverTest)(JNIEnv *env, jclass, jstring jpath, jbyteArray jcover,
                                     jint coverLength) {
    if (jpath == nullptr || jcover == nullptr) {
        YAXLogE("FastChangeCoverTest", "filename NULL or data NULL \n");
        return 0;
    }
    if (!yaxjni::lengthFits(env, jcover, coverLength)) return 0;
    yaxjni::Utf path(env, jpath);
    yaxjni::Bytes cover(env, jcover);
    return FastChangeCoverData(path.c, cover.p, static_cast<uint32_t>(coverLength));
}
