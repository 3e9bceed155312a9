// The three loggers. Each prints its console line to standard output and
// hands the formatted text to the platform log (Android's logger, or a
// stderr sink on other systems).
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/log_sink.hpp"
#include "yax_support.h"

namespace {

constexpr int kPrioDebug = 3;
constexpr int kPrioInfo = 4;
constexpr int kPrioError = 6;
constexpr size_t kLogBuffer = 1024;

void emit(char level, int priority, const char *tag, const char *text) {
    std::printf("YAXLog\t%c\t%s\t%s\n", level, tag, text);
    std::fflush(stdout);
    yax::logSink(priority, tag, text);
}

// Debug and info share everything but their level; the buffer is not cleared
// and vsnprintf's result is not looked at.
void logPlain(char level, int priority, const char *tag, const char *format, va_list args) {
    char text[kLogBuffer];
    std::vsnprintf(text, sizeof text, format, args);
    emit(level, priority, tag, text);
}

}  // namespace

extern "C" {

YAX_EXPORT void YAXLogD(const char *tag, const char *format, ...) {
    va_list args;
    va_start(args, format);
    logPlain('D', kPrioDebug, tag, format, args);
    va_end(args);
}

YAX_EXPORT void YAXLogI(const char *tag, const char *format, ...) {
    va_list args;
    va_start(args, format);
    logPlain('I', kPrioInfo, tag, format, args);
    va_end(args);
}

YAX_EXPORT void YAXLogE(const char *tag, const char *format, ...) {
    char text[kLogBuffer];
    std::memset(text, 0, sizeof text);
    if (format == nullptr) {
        YAXLogI("YAXLogE", "log == NULL!!\n");
        return;
    }
    va_list args;
    va_start(args, format);
    // One byte less than the other two loggers: the error text always keeps
    // a terminating zero of the cleared buffer.
    int ret = std::vsnprintf(text, kLogBuffer - 1, format, args);
    va_end(args);
    if (ret < 0) {
        YAXLogI("YAXLog", "vsnprintf fail  ret(%d) !!\n", ret);
        return;
    }
    emit('E', kPrioError, tag, text);
}

}  // extern "C"
