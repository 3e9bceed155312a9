#pragma once
// Temporary directories, whole-file reads and writes, and stdout capture for
// comparing the library's console lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "builder.hpp"

namespace tu {

// A fresh directory, removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir() {
        const char *base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/yaxtest.XXXXXX";
        char *made = mkdtemp(tmpl.data());
        if (made == nullptr) std::abort();
        dir_ = made;
    }
    ~TempDir() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    const std::string &dir() const { return dir_; }

    // Names of the files now in the directory, sorted.
    std::vector<std::string> list() const {
        std::vector<std::string> out;
        std::string cmd = "ls -1 '" + dir_ + "'";
        FILE *p = popen(cmd.c_str(), "r");
        char line[4096];
        while (p && fgets(line, sizeof line, p)) {
            std::string s(line);
            if (!s.empty() && s.back() == '\n') s.pop_back();
            out.push_back(s);
        }
        if (p) pclose(p);
        return out;
    }

private:
    std::string dir_;
};

inline void writeFile(const std::string &path, const tb::Bytes &data) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char *>(data.data()), static_cast<std::streamsize>(data.size()));
}

inline tb::Bytes readFile(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return tb::Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Runs `fn` and returns what it printed to standard output.
template <typename Fn>
std::string capture(Fn fn) {
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// The console line of an error log.
inline std::string errLine(const std::string &tag, const std::string &msg) {
    return "YAXLog\tE\t" + tag + "\t" + msg + "\n";
}
inline std::string infoLine(const std::string &tag, const std::string &msg) {
    return "YAXLog\tI\t" + tag + "\t" + msg + "\n";
}

}  // namespace tu
