// Allocation wrappers that log exhausted memory, and null-tolerant string helpers.
#include <cstdlib>
#include <cstring>

#include "yax_support.h"

extern "C" {

YAX_EXPORT void *_qmalloc(size_t size) {
    void *p = std::malloc(size);
    if (p == nullptr) {
        YAXLogE("_qmalloc error", "pointer allocated is null");
        return nullptr;
    }
    std::memset(p, 0, size);
    return p;
}

YAX_EXPORT void *_qcalloc(size_t count, size_t size) {
    void *p = std::calloc(count, size);
    if (p == nullptr) {
        // the same tag as _qmalloc, on purpose
        YAXLogE("_qmalloc error", "pointer allocated is null");
        return nullptr;
    }
    return p;
}

YAX_EXPORT void _qfree(void *pointer) { std::free(pointer); }

YAX_EXPORT void *_qmemcpy(void *destination, const void *source, size_t size) {
    if (destination == nullptr || source == nullptr || size == 0) return nullptr;
    return std::memcpy(destination, source, size);
}

YAX_EXPORT unsigned int getStringLen(const char *string) {
    return string == nullptr ? 0u : static_cast<unsigned int>(std::strlen(string));
}

YAX_EXPORT char *_qstrcpy(char *destination, const char *source) {
    if (destination == nullptr || source == nullptr) return nullptr;
    return std::strcpy(destination, source);
}

YAX_EXPORT char *_qstrcat(char *destination, const char *source) {
    if (destination == nullptr || source == nullptr) return nullptr;
    return std::strcat(destination, source);
}

YAX_EXPORT int _qstrcmp(const char *a, const char *b) { return std::strcmp(a, b); }

YAX_EXPORT int getExtIndex(const char *string) {
    if (string == nullptr || string[0] == '\0') return -1;
    const char *dot = std::strrchr(string, '.');
    if (dot != nullptr) return static_cast<int>(dot - string);
    // no dot: the last character's index, which callers take as the
    // start of the extension
    return static_cast<int>(std::strlen(string)) - 1;
}

}  // extern "C"
