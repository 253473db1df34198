// A full scan by the manager over 1000 instance directories, against the
// floor of listing them and probing each; and "quendralctl list" over 100
// instances as a whole process, against starting a process that does nothing.
#include "BenchReport.h"
#include "QuendralManager.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

std::string workDir;

// root/instNNNN with a quendral.ini each, no server running.
std::string makeInstallation(const std::string &name, int count) {
    const std::string root = workDir + "/" + name;
    std::filesystem::create_directories(root);
    for (int i = 0; i < count; i++) {
        char dir[32];
        std::snprintf(dir, sizeof dir, "/inst%04d", i);
        std::filesystem::create_directories(root + dir);
        FILE *f = std::fopen((root + dir + "/quendral.ini").c_str(), "w");
        std::fputs("[database]\nlockfile = quendral.lck\n", f);
        std::fclose(f);
    }
    return root;
}

std::string large, small;

void BM_AllInstances1000(benchmark::State &state) {
    QuendralManager manager;
    manager.addSearchPath(large);
    if (manager.allInstances().size() != 1000) std::abort();
    for (auto _ : state) benchmark::DoNotOptimize(manager.allInstances());
}

// What any scan must do: list the directory, and for each entry see that it
// is a directory, that its configuration is there, and whether a lock file is.
void BM_ScanFloor1000(benchmark::State &state) {
    for (auto _ : state) {
        DIR *d = opendir(large.c_str());
        while (const dirent *e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            const std::string dir = large + "/" + e->d_name;
            struct stat st;
            benchmark::DoNotOptimize(stat(dir.c_str(), &st));
            benchmark::DoNotOptimize(lstat((dir + "/quendral.ini").c_str(), &st));
            const int fd = open((dir + "/quendral.lck").c_str(), O_RDONLY | O_NONBLOCK);
            if (fd >= 0) close(fd);
        }
        closedir(d);
    }
}

int spawnAndWait(const char *path, char *const argv[]) {
    pid_t pid;
    if (posix_spawn(&pid, path, nullptr, nullptr, argv, environ) != 0) std::abort();
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// "quendralctl list" over the 100 instances, output to /dev/null.
void listWith(benchmark::State &state, const char *ctl) {
    setenv("QUENDRAL_HOME", small.c_str(), 1);
    const int devnull = open("/dev/null", O_WRONLY);
    const int saved = dup(1);
    dup2(devnull, 1);
    char *argv[] = {const_cast<char *>("quendralctl"), const_cast<char *>("list"), nullptr};
    for (auto _ : state)
        if (spawnAndWait(ctl, argv) != 0) state.SkipWithError("quendralctl failed");
    dup2(saved, 1);
    close(saved);
    close(devnull);
}

void BM_QuendralctlList100(benchmark::State &state) {
    listWith(state, QUENDRALCTL_PATH);
}

// Another build of the tool (QM_CTL_BASELINE), say that of an earlier
// version, measured in the same run to compare against.
void BM_QuendralctlList100Baseline(benchmark::State &state) {
    const char *baseline = std::getenv("QM_CTL_BASELINE");
    if (!baseline) {
        state.SkipWithError("QM_CTL_BASELINE not set");
        return;
    }
    listWith(state, baseline);
}

void BM_ProcessFloor(benchmark::State &state) {
    char *argv[] = {const_cast<char *>("true"), nullptr};
    for (auto _ : state) spawnAndWait("/bin/true", argv);
}

BENCHMARK(BM_AllInstances1000)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ScanFloor1000)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_QuendralctlList100)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_QuendralctlList100Baseline)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ProcessFloor)->Repetitions(5)->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char **argv) {
    char tmpl[] = "/tmp/managerbench.XXXXXX";
    if (!mkdtemp(tmpl)) return 2;
    workDir = tmpl;
    large = makeInstallation("large", 1000);
    small = makeInstallation("small", 100);

    bench::CollectingReporter reporter;
    const bool ran = bench::runBenchmarks(argc, argv, reporter);
    std::filesystem::remove_all(workDir);
    if (!ran) return 2;

    const double scan = reporter.secondsPerIteration("BM_AllInstances1000");
    const double floor = reporter.secondsPerIteration("BM_ScanFloor1000");
    const double ctl = reporter.secondsPerIteration("BM_QuendralctlList100");
    const double proc = reporter.secondsPerIteration("BM_ProcessFloor");
    std::printf("\nInstance discovery, ratios measured in this run (medians of 5):\n");
    std::printf("  allInstances over 1000: %.2f ms, floor %.2f ms\n", scan * 1e3, floor * 1e3);
    std::printf("  quendralctl list over 100: %.2f ms, empty process %.2f ms\n", ctl * 1e3,
                proc * 1e3);
    bool ok = true;
    if (scan > 0 && floor > 0)
        ok = bench::printRatio("allInstances (1000 dirs) vs listing and probing each", scan / floor,
                               2.0, false);
    if (ctl > 0 && proc > 0)
        bench::printRatio("quendralctl list (100 instances) vs an empty process", ctl / proc, 0,
                          false);
    const double base = reporter.secondsPerIteration("BM_QuendralctlList100Baseline");
    if (base > 0 && proc > 0) {
        std::printf("  baseline quendralctl (%s) list over 100: %.2f ms\n",
                    std::getenv("QM_CTL_BASELINE"), base * 1e3);
        bench::printRatio("baseline quendralctl list (100 instances) vs an empty process",
                          base / proc, 0, false);
        bench::printRatio("quendralctl list vs the baseline's", ctl / base, 0, false);
    }
    return ok ? 0 : 1;
}
