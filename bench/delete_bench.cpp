// What each kind of edit costs on a large host file: time and bytes written
// for an append (AddYAXDataFP), an in-place delete (DeleteAYAXDataFP), a fast
// delete (FastDeleteAYAXData) and a rewriting delete (DeleteAYAXData), and the
// rewriting delete's throughput beside a plain copy of a file of the same size
// made in the same run.
//
// Usage: yax_delete_bench [directory] [sizes in MiB ...]   (default: $TMPDIR or /tmp, 1 256)
//
// Each host file is half image and half trailer (three entries of a sixth of
// the size each); every delete removes the middle entry. Each measurement
// starts from a fresh copy of the host file; bytes written are the change of
// wchar in /proc/self/io across the call.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "yax_container.h"
#include "yax_support.h"

namespace {

constexpr size_t kChunk = 1 << 16;

int64_t bytesWritten() {
    FILE *f = std::fopen("/proc/self/io", "r");
    if (f == nullptr) return -1;
    char line[128];
    int64_t wchar = -1;
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::strncmp(line, "wchar:", 6) == 0) wchar = std::strtoll(line + 6, nullptr, 10);
    std::fclose(f);
    return wchar;
}

bool plainCopy(const std::string &from, const std::string &to) {
    int in = ::open(from.c_str(), O_RDONLY);
    int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    bool ok = in >= 0 && out >= 0;
    std::vector<char> buf(kChunk);
    while (ok) {
        ssize_t n = ::read(in, buf.data(), buf.size());
        if (n <= 0) break;
        ok = ::write(out, buf.data(), static_cast<size_t>(n)) == n;
    }
    if (in >= 0) ::close(in);
    if (out >= 0) ::close(out);
    return ok;
}

YaxInfo *parse(const std::string &path) {
    int sig = getSignature(path.c_str());
    YaxInfo *info = ParseYAX(path.c_str(), sig);
    if (info != nullptr && getYAXList(info) != 1) {
        DestroyYAX(info);
        return nullptr;
    }
    return info;
}

struct Sample {
    double ms;
    int64_t written;
};

struct Result {
    std::string name;
    Sample s;
};

// The median run of `reps`, each on a fresh copy of `master` at `work`.
Sample measure(const std::string &master, const std::string &work, int reps,
               const std::function<bool(const std::string &, YaxInfo *)> &op) {
    std::vector<Sample> runs;
    for (int r = 0; r < reps; ++r) {
        if (!plainCopy(master, work)) {
            std::fprintf(stderr, "bench: cannot copy %s\n", master.c_str());
            std::exit(1);
        }
        YaxInfo *info = parse(work);
        if (info == nullptr) {
            std::fprintf(stderr, "bench: %s holds no trailer\n", work.c_str());
            std::exit(1);
        }
        const int64_t w0 = bytesWritten();
        const auto t0 = std::chrono::steady_clock::now();
        const bool ok = op(work, info);
        const auto t1 = std::chrono::steady_clock::now();
        const int64_t w1 = bytesWritten();
        DestroyYAX(info);
        if (!ok) {
            std::fprintf(stderr, "bench: operation failed\n");
            std::exit(1);
        }
        runs.push_back({std::chrono::duration<double, std::milli>(t1 - t0).count(), w1 - w0});
    }
    std::sort(runs.begin(), runs.end(), [](const Sample &a, const Sample &b) { return a.ms < b.ms; });
    return runs[runs.size() / 2];
}

void makeHost(const std::string &path, uint64_t size, std::vector<unsigned char> &payload) {
    const uint64_t image = size / 2;
    FILE *f = std::fopen(path.c_str(), "w+b");
    std::vector<unsigned char> buf(kChunk, 0x55);
    buf[0] = 0xFF;
    buf[1] = 0xD8;
    for (uint64_t done = 0; done < image; done += kChunk) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(kChunk, image - done));
        _qfwrite(buf.data(), static_cast<uint32_t>(n), f);
        buf[0] = buf[1] = 0x55;
    }
    const uint32_t each = static_cast<uint32_t>(size / 6);
    payload.assign(each, 0xA5);
    const char *names[] = {"first", "second", "third"};
    AddYAXDataInFirstTimeFP(f, names[0], 5, 1, nullptr, 0, payload.data(), each);
    for (int i = 1; i < 3; ++i) {
        getSignatureFP(f);
        YaxInfo *info = ParseYAX_FP(f, SIGNATURE_YAX);
        getYAXList(info);
        AddYAXDataFP(f, info, names[i], static_cast<uint32_t>(std::strlen(names[i])), 1, nullptr,
                     0, payload.data(), each, nullptr);
        DestroyYAX_FP(info);
    }
    std::fclose(f);
}

double mibPerSecond(uint64_t bytes, double ms) { return bytes / (1024.0 * 1024.0) / (ms / 1000.0); }

void runSize(const std::string &dir, uint64_t mib) {
    const uint64_t size = mib << 20;
    const std::string master = dir + "/bench_host.jpg";
    const std::string work = dir + "/bench_work.jpg";
    const std::string copy = dir + "/bench_copy.jpg";
    std::vector<unsigned char> payload;
    makeHost(master, size, payload);
    const int reps = mib <= 16 ? 7 : 3;

    std::vector<Result> results;
    results.push_back({"add         AddYAXDataFP", measure(master, work, reps, [&](const std::string &, YaxInfo *info) {
        return AddYAXDataFP(info->fp, info, "fourth", 6, 1, nullptr, 0, payload.data(),
                            static_cast<uint32_t>(payload.size()), nullptr) == 1;
    })});
    results.push_back({"in-place    DeleteAYAXDataFP", measure(master, work, reps, [](const std::string &, YaxInfo *info) {
        return DeleteAYAXDataFP(info->fp, info, 1, nullptr) == 1;
    })});
    results.push_back({"fast        FastDeleteAYAXData", measure(master, work, reps, [](const std::string &, YaxInfo *info) {
        return FastDeleteAYAXData(info, 1, nullptr, 0) == 1;
    })});
    results.push_back({"rewriting   DeleteAYAXData", measure(master, work, reps, [](const std::string &p, YaxInfo *info) {
        return DeleteAYAXData(p.c_str(), info, 1, nullptr) == 1;
    })});
    // The plain copy of the host file, for scale.
    std::vector<Sample> copies;
    for (int r = 0; r < reps; ++r) {
        const int64_t w0 = bytesWritten();
        const auto t0 = std::chrono::steady_clock::now();
        plainCopy(master, copy);
        const auto t1 = std::chrono::steady_clock::now();
        copies.push_back({std::chrono::duration<double, std::milli>(t1 - t0).count(), bytesWritten() - w0});
    }
    std::sort(copies.begin(), copies.end(), [](const Sample &a, const Sample &b) { return a.ms < b.ms; });
    const Sample plain = copies[copies.size() / 2];

    FILE *m = std::fopen(master.c_str(), "rb");
    std::fseek(m, 0, SEEK_END);
    const long file_size = std::ftell(m);
    std::fclose(m);

    std::printf("host file %llu MiB (%ld bytes: image %llu, entries 3 x %zu), median of %d runs\n",
                static_cast<unsigned long long>(mib), file_size,
                static_cast<unsigned long long>(size / 2), payload.size(), reps);
    std::printf("  %-32s %12s %16s\n", "operation", "time ms", "bytes written");
    for (const Result &r : results)
        std::printf("  %-32s %12.2f %16lld\n", r.name.c_str(), r.s.ms, static_cast<long long>(r.s.written));
    std::printf("  %-32s %12.2f %16lld\n", "plain copy of the host file", plain.ms,
                static_cast<long long>(plain.written));
    const Sample &rw = results[3].s;
    std::printf("  rewriting delete: %.0f MiB/s of file written; plain copy: %.0f MiB/s\n\n",
                mibPerSecond(static_cast<uint64_t>(rw.written), rw.ms),
                mibPerSecond(static_cast<uint64_t>(plain.written), plain.ms));

    std::remove(master.c_str());
    std::remove(work.c_str());
    std::remove(copy.c_str());
}

}  // namespace

int main(int argc, char **argv) {
    const char *tmp = std::getenv("TMPDIR");
    std::string dir = argc > 1 ? argv[1] : (tmp != nullptr && *tmp ? tmp : "/tmp");
    std::vector<uint64_t> sizes;
    for (int i = 2; i < argc; ++i) sizes.push_back(std::strtoull(argv[i], nullptr, 10));
    if (sizes.empty()) sizes = {1, 256};
    for (uint64_t mib : sizes) runSize(dir, mib);
    return 0;
}
