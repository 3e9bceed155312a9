// The remove-and-rename step at the end of a rewriting edit, driven through
// deleteVono_NotExistYAX. This executable defines its own remove, rename and
// nanosleep: the library reaches them through its PLT, so they stand in for
// the C library's. They fail on request, count calls, record every sleep and
// never actually sleep; otherwise they forward to the real functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <vector>

#include "testutil.hpp"
#include "yax_vono.h"

using tb::Bytes;
using tb::operator+;

namespace {

struct Injection {
    bool armed = false;
    int remove_failures = 0;  // calls that fail first; -1: every call
    int rename_failures = 0;
    int removes = 0;
    int renames = 0;
    std::vector<timespec> sleeps;
};
Injection g;

bool failNow(int failures, int calls) { return failures < 0 || calls <= failures; }

template <typename Fn>
Fn realFunction(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int remove(const char *path) noexcept {
    if (g.armed && failNow(g.remove_failures, ++g.removes)) {
        errno = EBUSY;
        return -1;
    }
    static auto real = realFunction<int (*)(const char *)>("remove");
    return real(path);
}

int rename(const char *from, const char *to) noexcept {
    if (g.armed && failNow(g.rename_failures, ++g.renames)) {
        errno = EBUSY;
        return -1;
    }
    static auto real = realFunction<int (*)(const char *, const char *)>("rename");
    return real(from, to);
}

int nanosleep(const struct timespec *wanted, struct timespec *left) {
    if (g.armed) {
        g.sleeps.push_back(*wanted);
        return 0;
    }
    static auto real =
        realFunction<int (*)(const struct timespec *, struct timespec *)>("nanosleep");
    return real(wanted, left);
}

}  // extern "C"

namespace {

const std::string kTag = "VonoAPIs::addVonoSound";

class Replace : public ::testing::Test {
protected:
    tu::TempDir dir;
    std::string path = dir.path("photo.jpg");
    std::string temp = dir.path("photo000.tmp");
    Bytes image = tb::fakeImage(150);
    Bytes original = image + tb::bytes("some sound") + tb::vonoBlock({{150, 160}});

    void SetUp() override {
        g = Injection{};
        tu::writeFile(path, original);
    }
    void TearDown() override { g = Injection{}; }

    // Runs the delete with the given failure counts; returns its result and
    // what it printed.
    std::pair<int, std::string> run(int remove_failures, int rename_failures) {
        g.remove_failures = remove_failures;
        g.rename_failures = rename_failures;
        int result = -1;
        std::string out = tu::capture([&] {
            g.armed = true;
            result = deleteVono_NotExistYAX(path.c_str(), nullptr);
            g.armed = false;
        });
        return {result, out};
    }

    void expectHalfSecondSleeps(size_t n) const {
        ASSERT_EQ(g.sleeps.size(), n);
        for (const timespec &t : g.sleeps) {
            EXPECT_EQ(t.tv_sec, 0);
            EXPECT_EQ(t.tv_nsec, 500000000L);
        }
    }
};

}  // namespace

TEST_F(Replace, NothingInTheWayMeansNoSleep) {
    auto [result, out] = run(0, 0);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(g.removes, 1);
    EXPECT_EQ(g.renames, 1);
    expectHalfSecondSleeps(0);
    EXPECT_EQ(tu::readFile(path), image);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"});
}

TEST_F(Replace, BusyFileIsRetriedEveryHalfSecond) {
    auto [result, out] = run(3, 2);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(g.removes, 4);
    EXPECT_EQ(g.renames, 3);
    expectHalfSecondSleeps(5);
    EXPECT_EQ(tu::readFile(path), image);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"photo.jpg"});
}

TEST_F(Replace, RemoveGivesUpAfterTheHundredthSleep) {
    auto [result, out] = run(-1, 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out, tu::errLine(kTag, "remove count is over 100 times. exit YAX process"));
    EXPECT_EQ(g.removes, 100);  // one first try and 99 retries
    EXPECT_EQ(g.renames, 0);
    expectHalfSecondSleeps(100);
    // the edited file is untouched and the finished temporary file stays
    EXPECT_EQ(tu::readFile(path), original);
    EXPECT_EQ(tu::readFile(temp), image);
}

TEST_F(Replace, RenameGivesUpAfterTheHundredthSleep) {
    auto [result, out] = run(0, -1);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out, tu::errLine(kTag, "rename count is over 100 times. exit YAX process"));
    EXPECT_EQ(g.removes, 1);
    EXPECT_EQ(g.renames, 100);
    expectHalfSecondSleeps(100);
    // the old file is gone already; the new content waits under the temporary name
    EXPECT_FALSE(tu::exists(path));
    EXPECT_EQ(tu::readFile(temp), image);
}
