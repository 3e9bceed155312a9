// The remove-and-rename step at the end of a rewriting edit, driven through
// deleteVono_NotExistYAX. This executable defines its own remove, rename and
// nanosleep: the library reaches them through its PLT, so they stand in for
// the C library's. While armed they fail on request, count calls, record every
// sleep and never actually sleep; otherwise they forward to the real functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>

#include "testutil.hpp"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;

namespace {

struct Injection {
    bool armed = false;
    int remove_failures = 0, rename_failures = 0;  // calls that fail first; -1: every call
    int removes = 0, renames = 0;
    std::vector<timespec> sleeps;
} g;

// Counts an armed call and says whether it is to fail (with EBUSY).
bool failing(int failures, int &calls) {
    if (!g.armed || (++calls > failures && failures >= 0)) return false;
    return (errno = EBUSY) != 0;
}
template <typename Fn>
Fn real(const char *name) { return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name)); }

}  // namespace

extern "C" {

int remove(const char *path) noexcept {
    static auto next = real<int (*)(const char *)>("remove");
    return failing(g.remove_failures, g.removes) ? -1 : next(path);
}

int rename(const char *from, const char *to) noexcept {
    static auto next = real<int (*)(const char *, const char *)>("rename");
    return failing(g.rename_failures, g.renames) ? -1 : next(from, to);
}

int nanosleep(const struct timespec *wanted, struct timespec *left) {
    static auto next = real<int (*)(const struct timespec *, struct timespec *)>("nanosleep");
    if (g.armed) g.sleeps.push_back(*wanted);
    return g.armed ? 0 : next(wanted, left);
}

}  // extern "C"

TEST(Replace, BusyFilesAreRetriedEveryHalfSecondUntilTheHundredthSleep) {
    auto gaveUp = [](const std::string &what) {
        return tu::errLine("VonoAPIs::addVonoSound",
                           what + " count is over 100 times. exit YAX process");
    };
    const Bytes image = tb::fakeImage(150);
    const Bytes original = image + tb::bytes("some sound") + tb::vonoBlock({{150, 160}});
    struct Case {
        int remove_failures, rename_failures;
        std::vector<int> counts;  // result, removes, renames, sleeps
        std::string log;
        std::vector<std::string> files;  // left in the directory
        Bytes photo;                     // photo.jpg's content (none when it is gone)
    } cases[] = {
        {0, 0, {1, 1, 1, 0}, "", {"photo.jpg"}, image},
        {3, 2, {1, 4, 3, 5}, "", {"photo.jpg"}, image},
        // one first try and 99 retries; the edited file stays, the finished temporary too
        {-1, 0, {0, 100, 0, 100}, gaveUp("remove"), {"photo.jpg", "photo000.tmp"}, original},
        // the old file is gone already; the new content waits under the temporary name
        {0, -1, {0, 1, 100, 100}, gaveUp("rename"), {"photo000.tmp"}, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.remove_failures * 10 + c.rename_failures);
        tu::TempDir dir;
        const std::string path = dir.path("photo.jpg"), temp = dir.path("photo000.tmp");
        tu::writeFile(path, original);
        g = Injection{false, c.remove_failures, c.rename_failures, 0, 0, {}};
        int result = -1;
        EXPECT_EQ(tu::capture([&] {
                      g.armed = true;
                      result = deleteVono_NotExistYAX(path.c_str(), nullptr);
                      g.armed = false;
                  }),
                  c.log);
        EXPECT_EQ((std::vector<int>{result, g.removes, g.renames, int(g.sleeps.size())}),
                  c.counts);
        for (const timespec &t : g.sleeps) EXPECT_TRUE(t.tv_sec == 0 && t.tv_nsec == 500000000L);
        ASSERT_EQ(dir.list(), c.files);
        EXPECT_EQ(tu::readFile(path), c.photo);
        EXPECT_EQ(tu::readFile(temp), c.files.back() == "photo000.tmp" ? image : Bytes{});
    }
    g = Injection{};
}
