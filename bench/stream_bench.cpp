// One cost at a time, each beside what the plain tool pays for the same
// bytes in the same run:
//   - the same 64 KiB payload added to hosts of 1 MiB, 256 MiB and 4 GiB
//     (sparse): the add must not cost more on a larger host;
//   - payloads of 1 MiB and 200 MiB added from a file (saveYAXFileDataToFile,
//     and whole `yax put` processes) beside `cat payload >> file`, and
//     extracted to a file (yaxStreamYAXData, and `yax get -o`) beside
//     `cat payload > out`;
//   - each kind of delete (rewriting, fast, in-place) of the first, middle
//     and last of 3 and of 1,000 entries;
//   - parse and list of a 1,000-entry trailer (processor time);
//   - the copy routine's candidates on a 200 MiB copy: read/write in 64 KiB,
//     256 KiB and 1 MiB chunks, and the kernel's copy_file_range.
// Every figure is printed with the default mode and the safe-edit mode; each
// measurement runs in a child process (its peak memory is the growth of its
// maximum resident size across the call), median of the runs.
//
// Throughput is compared with fsync turned into a no-op (interposed here,
// and preloaded into the yax and cat processes); what the durability costs is
// printed as its own figure: the same edit with fsync on, minus without.
//
// Usage: yax_stream_bench [directory] [runs] [copy|hosts|payloads|deletes|parse]
//        (default: $TMPDIR or /tmp, 5 runs, every part)
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
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

#include "yax_api.h"
#include "yax_container.h"
#include "yax_support.h"

namespace {

bool gNoSync = false;
int gSyncs = 0;
std::string gDir, gTool, gNoSyncLib;
int gRuns = 5;

struct Figures {
    double ms = 0, cpuMs = 0;
    int64_t written = 0;
    int syncs = 0;
    long peakKiB = 0;  // growth of the maximum resident size across the call
};

int64_t wchar() {
    FILE *f = std::fopen("/proc/self/io", "r");
    if (f == nullptr) return 0;
    char line[128];
    int64_t w = 0;
    while (std::fgets(line, sizeof line, f) != nullptr)
        if (std::strncmp(line, "wchar:", 6) == 0) w = std::strtoll(line + 6, nullptr, 10);
    std::fclose(f);
    return w;
}

double cpuMs(const rusage &r) {
    return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1e3 + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e3;
}

// Runs `op` after `setup` in a child process and reports it. The dirty pages
// of earlier runs are flushed before the clock starts.
Figures once(const std::function<void()> &setup, const std::function<int()> &op, bool nosync) {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);  // the library's console lines
        dup2(null, STDERR_FILENO);
        setup();
        ::sync();
        gNoSync = nosync;
        Figures f;
        rusage r0{}, r1{}, c0{}, c1{};
        getrusage(RUSAGE_SELF, &r0);
        getrusage(RUSAGE_CHILDREN, &c0);
        const int64_t w0 = wchar();
        gSyncs = 0;
        const auto t0 = std::chrono::steady_clock::now();
        const int ok = op();
        const auto t1 = std::chrono::steady_clock::now();
        f.written = wchar() - w0;
        f.syncs = gSyncs;
        getrusage(RUSAGE_SELF, &r1);
        getrusage(RUSAGE_CHILDREN, &c1);
        f.ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
        f.cpuMs = cpuMs(r1) - cpuMs(r0) + cpuMs(c1) - cpuMs(c0);
        // a tool process run by `op` reports its own peak, whole
        f.peakKiB = c1.ru_maxrss > 0 ? c1.ru_maxrss : r1.ru_maxrss - r0.ru_maxrss;
        if (ok != 1) f.ms = -1;
        if (write(fds[1], &f, sizeof f) != sizeof f) _exit(1);
        _exit(0);
    }
    close(fds[1]);
    Figures f;
    if (read(fds[0], &f, sizeof f) != sizeof f) f.ms = -1;
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return f;
}

struct Op {
    std::function<int()> run;
    bool nosync = true;
};

// Several operations measured side by side: each run takes every one in
// turn, so that the load of a shared machine falls on all alike. The median
// run (by time) of each.
std::vector<Figures> measureAll(const std::function<void()> &setup, const std::vector<Op> &ops) {
    std::vector<std::vector<Figures>> all(ops.size());
    for (int r = 0; r < gRuns; ++r)
        for (size_t i = 0; i < ops.size(); ++i) all[i].push_back(once(setup, ops[i].run, ops[i].nosync));
    std::vector<Figures> out;
    for (auto &v : all) {
        std::sort(v.begin(), v.end(), [](const Figures &a, const Figures &b) { return a.ms < b.ms; });
        out.push_back(v[v.size() / 2]);
    }
    return out;
}

Figures measure(const std::function<void()> &setup, const std::function<int()> &op, bool nosync) {
    return measureAll(setup, {Op{op, nosync}})[0];
}

void row(const std::string &what, const Figures &f, const char *extra = "") {
    if (f.ms < 0) {
        std::printf("%-52s FAILED\n", what.c_str());
        return;
    }
    std::printf("%-52s %10.2f ms %9.2f cpu-ms %12lld B %4d fsync %8ld KiB %s\n", what.c_str(), f.ms,
                f.cpuMs, static_cast<long long>(f.written), f.syncs, f.peakKiB, extra);
    std::fflush(stdout);
}

std::string ratio(double a, double b) {
    char s[64];
    std::snprintf(s, sizeof s, "ratio %.2fx", b > 0 ? a / b : 0);
    return s;
}

// ---- files ----

void fill(const std::string &path, int64_t size, bool sparse) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) std::abort();
    if (sparse) {
        if (ftruncate64(fd, size) != 0) std::abort();
    } else {
        std::vector<unsigned char> b(1 << 20);
        for (int64_t at = 0; at < size;) {
            for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<unsigned char>((at + int64_t(i)) * 7 >> 3);
            const size_t n = static_cast<size_t>(std::min<int64_t>(size - at, int64_t(b.size())));
            if (write(fd, b.data(), n) != ssize_t(n)) std::abort();
            at += int64_t(n);
        }
    }
    const unsigned char jpeg[4] = {0xFF, 0xD8, 0xFF, 0xD9};
    if (pwrite64(fd, jpeg, 2, 0) != 2 || pwrite64(fd, jpeg + 2, 2, size - 2) != 2) std::abort();
    close(fd);
}

int addMem(const std::string &path, const std::string &name, const std::string &payload, bool fast = false) {
    const auto n = uint32_t(name.size()), len = uint32_t(payload.size());
    return fast ? saveFastYAXDataToFile(path.c_str(), name.c_str(), n, nullptr, 0, payload.data(), len, 1, 0)
                : saveYAXDataToFile(path.c_str(), name.c_str(), n, nullptr, 0, payload.data(), len, 1, 0);
}

// A host with `count` entries of 1 KiB, made once, copied for every run.
std::string withEntries(int count) {
    const std::string path = gDir + "/stream_bench_entries_" + std::to_string(count) + ".jpg";
    fill(path, 1 << 20, false);
    const std::string kib(1024, 'e');
    for (int i = 0; i < count; ++i)
        if (addMem(path, "entry" + std::to_string(i), kib) != 1) std::abort();
    return path;
}

void copyFile(const std::string &from, const std::string &to) {
    const int in = open(from.c_str(), O_RDONLY), out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0) std::abort();
    while (copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0) > 0) {
    }
    close(in);
    close(out);
}

// Runs a program, its standard output to `out` (appended when `append`).
int run(const std::vector<std::string> &argv, const std::string &out = "", bool append = false) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (!out.empty()) {
            const int fd = open(out.c_str(), O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0644);
            dup2(fd, STDOUT_FILENO);
        }
        if (!gNoSyncLib.empty()) setenv("LD_PRELOAD", gNoSyncLib.c_str(), 1);
        std::vector<char *> a;
        for (const std::string &s : argv) a.push_back(const_cast<char *>(s.c_str()));
        a.push_back(nullptr);
        execv(a[0], a.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 1 : 0;
}

const char *modeName(int safe) { return safe ? "safe" : "default"; }

// ---- the costs ----

void hostSizes() {
    std::printf("\n== the same 64 KiB payload added to hosts of 1 MiB, 256 MiB and 4 GiB (sparse)\n");
    const std::string path = gDir + "/stream_bench_host.jpg", payload(64 << 10, 'p');
    for (int safe : {0, 1}) {
        yaxSetSafeEdit(safe);
        double first = 0;
        // 4 GiB and a page: a first add by path refuses a file whose size has zero low 32 bits
        for (int64_t host : {int64_t{1} << 20, int64_t{256} << 20, (int64_t{4} << 30) + 4096}) {
            const Figures f = measure([&] { fill(path, host, true); }, [&] { return addMem(path, "new", payload); }, true);
            if (first == 0) first = f.ms;
            row(std::string("add, host ") + (host >> 20 >= 1024 ? "4 GiB" : std::to_string(host >> 20) + " MiB") +
                    ", " + modeName(safe),
                f, ratio(f.ms, first).c_str());
        }
    }
    yaxSetSafeEdit(0);
    unlink(path.c_str());
}

void bigPayloads() {
    const std::string host = gDir + "/stream_bench_host.jpg", out = gDir + "/stream_bench_out.bin";
    for (int64_t size : {int64_t{1} << 20, int64_t{200} << 20}) {
        const std::string label = std::to_string(size >> 20) + " MiB";
        std::printf("\n== a %s payload added from a file and extracted to a file, beside cat\n", label.c_str());
        const std::string payload = gDir + "/stream_bench_payload.bin";
        fill(payload, size, false);
        const auto freshHost = [&] { fill(host, 1 << 20, false); };
        const auto save = [&] {
            return saveYAXFileDataToFile(host.c_str(), "p", 1, nullptr, 0, payload.c_str(), 1, 0);
        };
        std::vector<Op> adds = {{[&] { return run({"/bin/cat", payload}, host, true); }},
                                {[&] { yaxSetSafeEdit(0); return save(); }},
                                {[&] { yaxSetSafeEdit(0); return save(); }, false},
                                {[&] { yaxSetSafeEdit(1); return save(); }},
                                {[&] { yaxSetSafeEdit(1); return save(); }, false}};
        if (!gTool.empty()) adds.push_back({[&] { return run({gTool, "put", host, "p", payload}); }});
        const std::vector<Figures> a = measureAll(freshHost, adds);
        row("cat payload >> file", a[0]);
        for (int safe : {0, 1}) {
            const Figures &lib = a[1 + 2 * safe], &synced = a[2 + 2 * safe];
            row(std::string("saveYAXFileDataToFile, ") + modeName(safe), lib, ratio(lib.ms, a[0].ms).c_str());
            char d[64];
            std::snprintf(d, sizeof d, "durability +%.2f ms", synced.ms - lib.ms);
            row(std::string("  the same with fsync, ") + modeName(safe), synced, d);
        }
        if (!gTool.empty()) row("yax put (safe mode, verifies)", a[5], ratio(a[5].ms, a[0].ms).c_str());

        fill(host, 1 << 20, false);
        if (saveYAXFileDataToFile(host.c_str(), "p", 1, nullptr, 0, payload.c_str(), 1, 0) != 1) std::abort();
        const auto noOut = [&] { unlink(out.c_str()); };
        std::vector<Op> gets = {{[&] { return run({"/bin/cat", payload}, out); }},
                                {[&] {
                                    YAXDATA *yd = checkYAXWithReadPM(host.c_str());
                                    FILE *o = std::fopen(out.c_str(), "wb");
                                    const int64_t n = yd && o ? yaxStreamYAXDataByName(yd, "p", YAX_STREAM_PAYLOAD, o) : -1;
                                    if (o) std::fclose(o);
                                    destroyYAXDATA(yd);
                                    return n == size ? 1 : 0;
                                }}};
        if (!gTool.empty()) gets.push_back({[&] { return run({gTool, "get", host, "p", "-o", out}); }});
        const std::vector<Figures> g = measureAll(noOut, gets);
        row("cat payload > out", g[0]);
        row("yaxStreamYAXData to a file", g[1], ratio(g[1].ms, g[0].ms).c_str());
        if (!gTool.empty()) row("yax get -o out", g[2], ratio(g[2].ms, g[0].ms).c_str());
        unlink(payload.c_str());
    }
    unlink(host.c_str());
    unlink(out.c_str());
}

void deletes() {
    std::printf("\n== each kind of delete of the first, middle and last of 3 and of 1,000 entries (1 MiB host)\n");
    const std::string path = gDir + "/stream_bench_delete.jpg";
    for (int count : {3, 1000}) {
        const std::string source = withEntries(count);
        for (int safe : {0, 1}) {
            yaxSetSafeEdit(safe);
            for (int which : {0, count / 2, count - 1}) {
                const std::string name = "entry" + std::to_string(which);
                const std::string where = std::to_string(which + 1) + " of " + std::to_string(count) + ", " + modeName(safe);
                const auto fresh = [&] { copyFile(source, path); };
                row("rewriting delete, " + where, measure(fresh, [&] {
                        YAXDATA *h = checkYAXInFile(path.c_str());
                        const int r = h ? deleteYAXDataFromFilebyName(&h, name.c_str(), int(name.size())) : 0;
                        destroyYAXDATA(h);
                        return r;
                    }, true));
                row("fast delete, " + where, measure(fresh, [&] { return deleteFastAYAXData(path.c_str(), name.c_str()); }, true));
                row("in-place delete, " + where, measure(fresh, [&] {
                        FILE *fp = std::fopen(path.c_str(), "r+b");
                        YAXDATA *yd = fp ? checkYAXInFP(fp) : nullptr;
                        const int r = yd ? DeleteAYAXDataFP(fp, yd->yax_info, uint32_t(which), nullptr) : 0;
                        destroyYAXDATA_FP(yd);
                        if (fp) std::fclose(fp);
                        return r;
                    }, true));
            }
        }
        yaxSetSafeEdit(0);
        unlink(source.c_str());
    }
    unlink(path.c_str());
}

void parseList() {
    std::printf("\n== parse and list of a 1,000-entry trailer\n");
    const std::string source = withEntries(1000);
    row("checkYAXWithReadPM + names + destroy", measure([] {}, [&] {
            YAXDATA *yd = checkYAXWithReadPM(source.c_str());
            const int ok = yd != nullptr && yd->count == 1000;
            destroyYAXDATA(yd);
            return ok ? 1 : 0;
        }, true));
    unlink(source.c_str());
}

void copyCandidates() {
    std::printf("\n== the copy routine's candidates, 200 MiB in the page cache\n");
    const std::string from = gDir + "/stream_bench_payload.bin", to = gDir + "/stream_bench_out.bin";
    fill(from, int64_t{200} << 20, false);
    const auto copyWith = [&](size_t chunk) {
        const int in = open(from.c_str(), O_RDONLY), out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<unsigned char> b(chunk ? chunk : 1);
        ssize_t n;
        bool ok = true;
        if (chunk == 0)
            while ((n = copy_file_range(in, nullptr, out, nullptr, 64 << 20, 0)) > 0) {
            }
        else
            while (ok && (n = read(in, b.data(), chunk)) > 0) ok = write(out, b.data(), size_t(n)) == n;
        close(in);
        close(out);
        return ok ? 1 : 0;
    };
    const auto noOut = [&] { unlink(to.c_str()); };
    const std::vector<Figures> f = measureAll(noOut, {{[&] { return copyWith(64 << 10); }},
                                                      {[&] { return copyWith(256 << 10); }},
                                                      {[&] { return copyWith(1 << 20); }},
                                                      {[&] { return copyWith(0); }}});
    row("read/write, 64 KiB chunks", f[0]);
    row("read/write, 256 KiB chunks", f[1], ratio(f[1].ms, f[0].ms).c_str());
    row("read/write, 1 MiB chunks", f[2], ratio(f[2].ms, f[0].ms).c_str());
    row("copy_file_range, 64 MiB calls", f[3], ratio(f[3].ms, f[0].ms).c_str());
    unlink(from.c_str());
    unlink(to.c_str());
}

}  // namespace

extern "C" int fsync(int fd) {
    using Real = int (*)(int);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "fsync"));
    ++gSyncs;
    return gNoSync ? 0 : real(fd);
}

int main(int argc, char **argv) {
    const char *tmp = std::getenv("TMPDIR");
    gDir = argc > 1 ? argv[1] : (tmp && *tmp ? tmp : "/tmp");
    gRuns = argc > 2 ? std::atoi(argv[2]) : 5;
    gNoSync = true;  // making the files to measure on
    yaxSetSafeEdit(0);
#ifdef YAX_TOOL
    gTool = YAX_TOOL;
#endif
#ifdef YAX_NOSYNC_LIB
    gNoSyncLib = YAX_NOSYNC_LIB;
#endif
    std::printf("%-52s %13s %16s %14s %10s %12s\n", "cost", "time", "cpu", "written", "fsync", "peak");
    const std::string only = argc > 3 ? argv[3] : "";
    const auto want = [&](const char *part) { return only.empty() || only == part; };
    if (want("copy")) copyCandidates();
    if (want("hosts")) hostSizes();
    if (want("payloads")) bigPayloads();
    if (want("deletes")) deletes();
    if (want("parse")) parseList();
    return 0;
}
