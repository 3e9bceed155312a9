#pragma once
// What every fuzz target shares: a private working directory, the library's
// console lines kept off the fuzzer's output, and the failure report.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fz {

// The file each run edits, in a directory of its own (rewriting edits put
// their temporary files beside it). Made once per process; the library's
// log lines, printed to standard output, go to /dev/null.
inline const std::string &workFile() {
    static const std::string path = [] {
        const char *base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/yaxfuzz.XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) std::abort();
        static const std::string dir = tmpl;
        std::atexit([] { std::system(("rm -rf '" + dir + "'").c_str()); });
        if (std::getenv("YAX_FUZZ_VERBOSE") == nullptr) {
            std::fflush(stdout);
            const int devnull = open("/dev/null", O_WRONLY);
            if (devnull >= 0) dup2(devnull, 1), close(devnull);
        }
        return tmpl + "/f.jpg";
    }();
    return path;
}

[[noreturn]] inline void fail(const char *target, const char *fault, const std::vector<uint8_t> &file) {
    std::fprintf(stderr, "edit invariant broken (%s): %s (file of %zu bytes)\n", target, fault,
                 file.size());
    std::abort();
}

}  // namespace fz
