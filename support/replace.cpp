#include "support/replace.hpp"

#include <cerrno>
#include <ctime>

#include "yax_support.h"

namespace yax {

namespace {

constexpr int kMaxSleeps = 100;
constexpr long kRetryNanos = 500000000L;

// One first try, then a retry after each sleep; the 100th sleep ends it.
template <typename Op>
bool retried(Op op, const char *tag, const char *message) {
    int sleeps = 0;
    while (op() != 0) {
        errno = 0;
        timespec wait{0, kRetryNanos};
        nanosleep(&wait, nullptr);
        if (++sleeps >= kMaxSleeps) {
            YAXLogE(tag, message);
            return false;
        }
    }
    return true;
}

}  // namespace

bool replaceWithTemp(const char *path, const char *temp, const char *tag, bool remove_first) {
    if (remove_first && !retried([&] { return _qremove(path); }, tag,
                 "remove count is over 100 times. exit YAX process"))
        return false;
    return retried([&] { return _qrename(temp, path); }, tag,
                   "rename count is over 100 times. exit YAX process");
}

}  // namespace yax
