// Argument holders shared by the JNI wrappers: each gives back what it
// obtained when it goes out of scope.
#ifndef YAX_JNI_COMMON_HPP
#define YAX_JNI_COMMON_HPP

#include <jni.h>

#include <cstring>

#include "include/yax_export.h"
#include "include/yax_support.h"

// Exported under the JNI names; kept visible under the hidden default.
#define YAXJNI_FN(type, name) \
    extern "C" JNIEXPORT YAX_EXPORT type JNICALL Java_com_kalvora_android_media_YAXJNI_##name
#define VONOJNI_FN(type, name) \
    extern "C" JNIEXPORT YAX_EXPORT type JNICALL Java_com_kalvora_android_media_VonoJNI_##name

namespace yaxjni {

// A Java string as modified UTF-8. `nullTested` wrappers pass a null string
// on as a null pointer; the others obtain it without a test, as the methods
// always have (a null string there is the caller's fault).
struct Utf {
    JNIEnv *env;
    jstring s;
    const char *c;
    Utf(JNIEnv *e, jstring str, bool nullTested = false)
        : env(e), s(str), c(nullptr) {
        if (s != nullptr || !nullTested) c = s != nullptr ? env->GetStringUTFChars(s, nullptr) : nullptr;
    }
    ~Utf() {
        if (c != nullptr) env->ReleaseStringUTFChars(s, c);
    }
    // A name length that reaches past the string is refused (the library
    // would read behind it). Negative lengths are refused too.
    bool fits(jint length) const {
        if (c == nullptr) return true;
        if (length < 0 || static_cast<size_t>(length) > strlen(c)) {
            YAXLogE("YAXJNI", "name length %d beyond the name", static_cast<int>(length));
            return false;
        }
        return true;
    }
    Utf(const Utf &) = delete;
    Utf &operator=(const Utf &) = delete;
};

// A byte array, copied back and freed (mode 0) when non-null.
struct Bytes {
    JNIEnv *env;
    jbyteArray a;
    jbyte *p;
    Bytes(JNIEnv *e, jbyteArray arr) : env(e), a(arr), p(nullptr) {
        if (a != nullptr) p = env->GetByteArrayElements(a, nullptr);
    }
    ~Bytes() {
        if (p != nullptr) env->ReleaseByteArrayElements(a, p, 0);
    }
    Bytes(const Bytes &) = delete;
    Bytes &operator=(const Bytes &) = delete;
};

// A length argument must lie inside its array: a larger (or negative) one is
// refused before any library call. A null array is left to the library.
inline bool lengthFits(JNIEnv *env, jarray a, jint length) {
    if (a == nullptr) return true;
    if (length < 0 || length > env->GetArrayLength(a)) {
        YAXLogE("YAXJNI", "length %d beyond its array", static_cast<int>(length));
        return false;
    }
    return true;
}

}  // namespace yaxjni

#endif
