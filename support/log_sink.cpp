#include "support/log_sink.hpp"

#ifdef __ANDROID__
#include <android/log.h>
#else
#include <cstdio>
#endif

namespace yax {

#ifdef __ANDROID__
void logSink(int priority, const char *tag, const char *text) {
    // The formatted text goes where the format belongs, so a '%' in it is
    // interpreted once more by the Android logger. Callers have always seen
    // this; it is left as it is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    __android_log_print(priority, tag, text);
#pragma GCC diagnostic pop
}
#else
void logSink(int priority, const char *tag, const char *text) {
    static const char kLetters[] = "??VDIWEF";
    char letter = (priority >= 0 && priority < 8) ? kLetters[priority] : '?';
    std::fprintf(stderr, "%c/%s: %s\n", letter, tag ? tag : "", text);
}
#endif

}  // namespace yax
