// What the safety costs per edit: time and fsync calls of an add, a fast add,
// a fast delete and a rewriting delete, on a small file and on one with a
// 256 MiB host in front of the same small trailer, in the default mode and
// in the safe-edit mode.
//
// Usage: yax_safety_bench [directory] [runs]   (default: $TMPDIR or /tmp, 5)
//
// The large host is sparse (made with ftruncate), so making a fresh copy for
// every run costs nothing; the rewriting delete still reads and writes all
// 256 MiB. Times are medians; fsync and fdatasync calls are counted by
// interposing both.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "yax_api.h"
#include "yax_support.h"

namespace {

int gSyncs = 0;

struct Edit {
    const char *what;
    std::function<int(const char *)> run;
};

const std::string kPayload(1024, 'p');

int add(const char *path, const char *name, bool fast) {
    const auto n = static_cast<uint32_t>(std::string(name).size());
    const auto len = static_cast<uint32_t>(kPayload.size());
    return fast ? saveFastYAXDataToFile(path, name, n, nullptr, 0, kPayload.data(), len, 1, 0)
                : saveYAXDataToFile(path, name, n, nullptr, 0, kPayload.data(), len, 1, 0);
}

// A host of `host` bytes (sparse) with three 1 KiB entries behind it.
void makeFile(const std::string &path, int64_t host) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate64(fd, host) != 0) std::abort();
    const unsigned char jpeg[4] = {0xFF, 0xD8, 0xFF, 0xD9};
    if (pwrite64(fd, jpeg, 2, 0) != 2 || pwrite64(fd, jpeg + 2, 2, host - 2) != 2) std::abort();
    ::close(fd);
    for (const char *name : {"one", "two", "three"})
        if (add(path.c_str(), name, false) != 1) std::abort();
}

}  // namespace

extern "C" int fsync(int fd) {
    using Real = int (*)(int);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "fsync"));
    ++gSyncs;
    return real(fd);
}

extern "C" int fdatasync(int fd) {
    using Real = int (*)(int);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "fdatasync"));
    ++gSyncs;
    return real(fd);
}

int main(int argc, char **argv) {
    const char *tmp = std::getenv("TMPDIR");
    const std::string dir = argc > 1 ? argv[1] : (tmp && *tmp ? tmp : "/tmp");
    const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
    const std::string path = dir + "/yax_safety_bench.jpg";
    const std::vector<Edit> edits = {
        {"add", [](const char *p) { return add(p, "new", false); }},
        {"fast add", [](const char *p) { return add(p, "new", true); }},
        {"fast delete", [](const char *p) { return deleteFastAYAXData(p, "two"); }},
        {"rewriting delete",
         [](const char *p) {
             YAXDATA *h = checkYAXInFile(p);
             const int r = h ? deleteYAXDataFromFilebyName(&h, "two", 3) : 0;
             destroyYAXDATA(h);
             return r;
         }},
    };
    std::printf("%-18s %-12s %-8s %12s %8s\n", "edit", "host", "mode", "median ms", "syncs");
    std::fflush(stdout);
    const int out = dup(STDOUT_FILENO), null = ::open("/dev/null", O_WRONLY);
    for (const int64_t host : {int64_t{300}, int64_t{256} << 20}) {
        for (const Edit &e : edits) {
            for (int safe : {0, 1}) {
                yaxSetSafeEdit(safe);
                std::vector<double> ms;
                int syncs = 0;
                for (int r = 0; r < runs; ++r) {
                    makeFile(path, host);
                    dup2(null, STDOUT_FILENO);  // the library's console lines
                    gSyncs = 0;
                    const auto t0 = std::chrono::steady_clock::now();
                    const int ok = e.run(path.c_str());
                    const auto t1 = std::chrono::steady_clock::now();
                    syncs = gSyncs;
                    dup2(out, STDOUT_FILENO);
                    if (ok != 1) std::printf("(%s failed)\n", e.what);
                    ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
                }
                std::sort(ms.begin(), ms.end());
                std::printf("%-18s %-12s %-8s %12.3f %8d\n", e.what,
                            host > 1000 ? "256 MiB" : "300 B", safe ? "safe" : "default",
                            ms[ms.size() / 2], syncs);
                std::fflush(stdout);
            }
        }
    }
    ::unlink(path.c_str());
    return 0;
}
