// Configuration library benchmarks, each against a peer or a floor measured
// in the same run:
//   - loading two large files (one of every kind of line, one of many plain
//     sections each after a comment line), against the MD5 of its bytes alone
//     (the floor: a load must digest every byte) and against inih's
//     ini_parse, and the fresh pages each load takes (minor faults: where a
//     fault costs microseconds, as on many virtual machines, fresh memory
//     costs more than the parse);
//   - loading a small "quendral.ini", against a bare open/read/close of it;
//   - MD5 of 256 MiB, against OpenSSL;
//   - allocations of a load, against the number of entries.
#include "AllocCounter.h"
#include "BenchReport.h"
#include "ncfg.h"

#include <benchmark/benchmark.h>
#include <ini.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

std::string workDir;
std::string smallFile;
// The large files, by the benchmarks' argument.
struct LargeFile {
    const char *what;
    std::string path;
    int64_t size = 0;
};
LargeFile large[2] = {{"every kind of line", {}, 0}, {"plain sections after comments", {}, 0}};

// sections x keys key lines, with comment lines, header comments, quoted
// values holding ';', inline comments and continuation lines.
std::string generate(int sections, int keys) {
    std::string out;
    out.reserve(static_cast<size_t>(sections) * keys * 44);
    char line[256];
    for (int s = 0; s < sections; s++) {
        std::snprintf(line, sizeof line, "; settings of group %d\n[section_%d] ; header\n", s, s);
        out += line;
        for (int k = 0; k < keys; k++) {
            switch (k % 4) {
            case 0:
                std::snprintf(line, sizeof line,
                              "key_%02d = value_of_group_%d_number_%d ; note on %d\n", k, s, k, k);
                break;
            case 1:
                std::snprintf(line, sizeof line, "key_%02d = \"a quoted value ; %d\" ; comment\n",
                              k, s);
                break;
            case 2:
                std::snprintf(line, sizeof line, "key_%02d = first part %d\n    second part %d\n",
                              k, s, k);
                break;
            default:
                std::snprintf(line, sizeof line, "key_%02d=%d\n", k, s * k + 1000000);
                break;
            }
            out += line;
        }
        out += "\n";
    }
    return out;
}

// sections of `keys` plain key lines each, every section after a comment
// line: the shape of a large generated settings file.
std::string generatePlain(int sections, int keys) {
    std::string out;
    out.reserve(static_cast<size_t>(sections) * (keys + 2) * 38);
    char line[256];
    for (int s = 0; s < sections; s++) {
        std::snprintf(line, sizeof line, "; group %d of the generated settings\n[group_%05d]\n", s,
                      s);
        out += line;
        for (int k = 0; k < keys; k++) {
            std::snprintf(line, sizeof line, "setting_%02d = value %d of group %05d\n", k, k, s);
            out += line;
        }
    }
    return out;
}

void writeOut(const std::string &path, const std::string &text) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(text.data(), 1, text.size(), f) != text.size()) std::abort();
    std::fclose(f);
}

void setUp() {
    char tmpl[] = "/tmp/cfgbench.XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    workDir = tmpl;
    const std::string texts[2] = {generate(20000, 20), generatePlain(20000, 22)};
    for (int i = 0; i < 2; i++) {
        large[i].path = workDir + "/large" + std::to_string(i) + ".ini";
        large[i].size = static_cast<int64_t>(texts[i].size());
        writeOut(large[i].path, texts[i]);
    }
    smallFile = workDir + "/quendral.ini";
    writeOut(smallFile, "; Quendral server configuration\n"
                        "[database]\n"
                        "lockfile     = quendral.lck\n"
                        "errorlogfile = quendral.log ; diagnostic log\n"
                        "port         = 1112\n"
                        "\n"
                        "[parameters]\n"
                        "threads      = 10\n"
                        "buffers      = 2000\n"
                        "checkpoint   = 60 ; minutes\n"
                        "\n"
                        "[http]\n"
                        "port         = 8890\n"
                        "root         = ../dravinter ; web interface\n");
}

void loadOrDie(const std::string &path) {
    TWK_CfgHandle *h = nullptr;
    if (TWK_Cfg_init(&h, path.c_str()) != 0) std::abort();
    benchmark::DoNotOptimize(h->numEntries);
    TWK_Cfg_done(h);
}

void BM_LoadLarge(benchmark::State &state) {
    const LargeFile &f = large[state.range(0)];
    for (auto _ : state) loadOrDie(f.path);
    state.SetBytesProcessed(state.iterations() * f.size);
}

int inihHandler(void *user, const char *section, const char *name, const char *value) {
    auto *count = static_cast<size_t *>(user);
    benchmark::DoNotOptimize(section);
    benchmark::DoNotOptimize(value);
    if (name) ++*count;
    return 1;
}

void BM_InihLarge(benchmark::State &state) {
    const LargeFile &f = large[state.range(0)];
    for (auto _ : state) {
        size_t count = 0;
        if (ini_parse(f.path.c_str(), inihHandler, &count) < 0) std::abort();
        benchmark::DoNotOptimize(count);
    }
    state.SetBytesProcessed(state.iterations() * f.size);
}

// The part of a load no parser can avoid: the digest of every byte.
void BM_Md5OfLargeFile(benchmark::State &state) {
    const LargeFile &f = large[state.range(0)];
    std::string bytes(static_cast<size_t>(f.size), '\0');
    FILE *file = std::fopen(f.path.c_str(), "rb");
    if (!file || std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) std::abort();
    std::fclose(file);
    unsigned char out[16];
    for (auto _ : state) {
        TWK_MD5Context ctx;
        TWK_MD5Init(&ctx);
        TWK_MD5Update(&ctx, bytes.data(), static_cast<uint32_t>(bytes.size()));
        TWK_MD5Final(out, &ctx);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * f.size);
}

long minorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage); // every thread of the process: the digest's too
    return usage.ru_minflt;
}

// Fresh pages (minor faults) of a process's first load of the file, and the
// mean of the loads after it; measured in a child, so that nothing the
// benchmarks did before counts.
struct Faults {
    double first = -1, later = -1;
};
Faults faultsOfLoads(const std::string &path) {
    int fds[2];
    if (pipe(fds) != 0) std::abort();
    const pid_t child = fork();
    if (child < 0) std::abort();
    if (child == 0) {
        close(fds[0]);
        Faults f;
        long before = minorFaults();
        loadOrDie(path);
        f.first = static_cast<double>(minorFaults() - before);
        constexpr int kLoads = 8;
        before = minorFaults();
        for (int i = 0; i < kLoads; i++) loadOrDie(path);
        f.later = static_cast<double>(minorFaults() - before) / kLoads;
        _exit(write(fds[1], &f, sizeof f) == static_cast<ssize_t>(sizeof f) ? 0 : 1);
    }
    close(fds[1]);
    Faults f;
    if (read(fds[0], &f, sizeof f) != static_cast<ssize_t>(sizeof f)) f = Faults{};
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return f;
}

void BM_LoadSmall(benchmark::State &state) {
    for (auto _ : state) loadOrDie(smallFile);
}

// The floor of any load: open, one read, close.
void BM_ReadSmallFloor(benchmark::State &state) {
    char buf[4096];
    for (auto _ : state) {
        int fd = open(smallFile.c_str(), O_RDONLY);
        if (fd < 0) std::abort();
        benchmark::DoNotOptimize(read(fd, buf, sizeof buf));
        close(fd);
    }
}

std::vector<unsigned char> &md5Buffer() {
    static std::vector<unsigned char> buf = [] {
        std::vector<unsigned char> b(size_t{256} << 20);
        std::mt19937_64 gen(42);
        for (size_t i = 0; i + 8 <= b.size(); i += 8) {
            const uint64_t v = gen();
            std::memcpy(&b[i], &v, 8);
        }
        return b;
    }();
    return buf;
}

void BM_Md5(benchmark::State &state) {
    auto &buf = md5Buffer();
    unsigned char out[16];
    for (auto _ : state) {
        TWK_MD5Context ctx;
        TWK_MD5Init(&ctx);
        TWK_MD5Update(&ctx, buf.data(), static_cast<uint32_t>(buf.size()));
        TWK_MD5Final(out, &ctx);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buf.size()));
}

void BM_OpensslMd5(benchmark::State &state) {
    auto &buf = md5Buffer();
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    for (auto _ : state) {
        if (EVP_Digest(buf.data(), buf.size(), out, &n, EVP_md5(), nullptr) != 1) std::abort();
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buf.size()));
}

// Allocations of one load of a file with `entries` key lines.
void BM_AllocationsPerLoad(benchmark::State &state) {
    const int keys = static_cast<int>(state.range(0));
    const std::string path = workDir + "/alloc_" + std::to_string(keys) + ".ini";
    writeOut(path, generate(keys / 20, 20));
    size_t allocations = 0, entries = 0;
    for (auto _ : state) {
        bench::startCountingAllocations();
        TWK_CfgHandle *h = nullptr;
        if (TWK_Cfg_init(&h, path.c_str()) != 0) std::abort();
        allocations = bench::stopCountingAllocations();
        entries = h->numEntries;
        TWK_Cfg_done(h);
    }
    state.counters["allocations"] = static_cast<double>(allocations);
    state.counters["entries"] = static_cast<double>(entries);
}

// The budgets of the large file compare medians of several runs: the load
// digests on a second thread, so one busy moment of another process on the
// machine skews a single run far more than it skews the peers.
BENCHMARK(BM_LoadLarge)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_InihLarge)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_Md5OfLargeFile)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_LoadSmall)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ReadSmallFloor)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Md5)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_OpensslMd5)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_AllocationsPerLoad)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(400000)->Iterations(1);

} // namespace

int main(int argc, char **argv) {
    setUp();
    // Before the benchmarks, in children of their own: the first load's
    // figure is that of a process that loaded nothing before.
    Faults faults[2];
    for (int i = 0; i < 2; i++) faults[i] = faultsOfLoads(large[i].path);
    bench::CollectingReporter reporter;
    const bool ran = bench::runBenchmarks(argc, argv, reporter);
    std::filesystem::remove_all(workDir);
    if (!ran) return 2;

    auto t = [&](const std::string &name) { return reporter.secondsPerIteration(name); };
    std::printf("\nConfiguration library, ratios measured in this run:\n");
    bool ok = true;
    const double pageSize = static_cast<double>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < 2; i++) {
        const std::string arg = std::string("/").append(std::to_string(i));
        const double load = t("BM_LoadLarge" + arg), inih = t("BM_InihLarge" + arg),
                     md5 = t("BM_Md5OfLargeFile" + arg);
        const double pages = static_cast<double>(large[i].size) / pageSize;
        std::printf("  large file %d, %s (%.1f MB, %.0f pages):\n", i, large[i].what,
                    static_cast<double>(large[i].size) / 1e6, pages);
        // A load digests every byte, so the MD5 of the file alone is its
        // floor; how far it stays above that floor is what the parser costs.
        if (load > 0 && md5 > 0)
            ok &= bench::printRatio("  load time vs MD5 of the file alone", load / md5, 1.3, false);
        if (load > 0 && inih > 0)
            ok &= bench::printRatio("  load throughput vs inih ini_parse", inih / load, 2.5, true);
        // How far above inih a load could be at best: one that cost nothing
        // beyond its digest.
        if (md5 > 0 && inih > 0)
            bench::printRatio("    ceiling: inih time vs MD5 of the file alone", inih / md5, 0,
                              true);
        if (faults[i].later >= 0) {
            std::printf("  %-58s %7.0f\n", "  fresh pages, first load of the process",
                        faults[i].first);
            ok &= bench::printRatio("  fresh pages per later load, share of the file's pages",
                                    faults[i].later / pages, 0.5, false);
            std::printf("  %-58s %7.0f\n", "    (fresh pages per later load)", faults[i].later);
        }
    }
    if (t("BM_LoadSmall") > 0 && t("BM_ReadSmallFloor") > 0)
        bench::printRatio("small quendral.ini load time vs open/read/close",
                          t("BM_LoadSmall") / t("BM_ReadSmallFloor"), 0, false);
    if (t("BM_Md5") > 0 && t("BM_OpensslMd5") > 0)
        ok &= bench::printRatio("MD5 throughput vs OpenSSL (256 MiB)",
                                t("BM_OpensslMd5") / t("BM_Md5"), 0.9, true);
    std::printf("  allocations per load by entries:");
    double first = -1, last = -1;
    for (int n : {1000, 10000, 100000, 400000}) {
        const std::string name = "BM_AllocationsPerLoad/" + std::to_string(n) + "/iterations:1";
        const double a = reporter.counter(name, "allocations"),
                     e = reporter.counter(name, "entries");
        if (a < 0) continue;
        std::printf("  %.0f entries: %.0f", e, a);
        if (first < 0) first = a;
        last = a;
    }
    std::printf("\n");
    if (first > 0)
        std::printf("  (%.0f -> %.0f over 400x the entries: the entries array grows, and from "
                    "1 MiB on the text and the entries are blocks the library keeps between "
                    "loads)\n",
                    first, last);
    return ok ? 0 : 1;
}
