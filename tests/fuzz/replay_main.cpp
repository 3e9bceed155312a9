// Runs a fuzz target's entry point over files and directories given on the
// command line, without libFuzzer: CTest replays the regression inputs and
// the seeds this way in every build, sanitized or not.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void collect(const std::string &path, std::vector<std::string> &out) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        out.push_back(path);
        return;
    }
    DIR *d = opendir(path.c_str());
    if (d == nullptr) return;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.') collect(path + "/" + e->d_name, out);
    closedir(d);
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) collect(argv[i], files);
    std::sort(files.begin(), files.end());
    for (const std::string &f : files) {
        std::ifstream in(f, std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                         std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::fprintf(stderr, "replayed %zu inputs\n", files.size());
    return 0;
}
