// One refresh of an instance that reads its lock file and probes the pid,
// against the floor of the bare system calls it cannot avoid:
// stat + open/read/close + kill(pid, 0).
#include "BenchReport.h"
#include "QuendralInstance.h"
#include "StartRecord.h"

#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string workDir, instDir, lockPath, stoppedDir;
pid_t server = -1;

void setUp() {
    char tmpl[] = "/tmp/refreshbench.XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    workDir = tmpl;
    instDir = workDir + "/database";
    std::filesystem::create_directories(instDir);
    FILE *f = std::fopen((instDir + "/quendral.ini").c_str(), "w");
    std::fputs("[database]\nlockfile = quendral.lck\n", f);
    std::fclose(f);
    server = fork();
    if (server == 0) {
        execlp("sleep", "sleep", "1000", static_cast<char *>(nullptr));
        _exit(127);
    }
    stoppedDir = workDir + "/stopped";
    std::filesystem::create_directories(stoppedDir);
    f = std::fopen((stoppedDir + "/quendral.ini").c_str(), "w");
    std::fputs("[database]\n", f);
    std::fclose(f);
    lockPath = instDir + "/quendral.lck";
    f = std::fopen(lockPath.c_str(), "w");
    std::fprintf(f, "%ld\n", static_cast<long>(server));
    std::fclose(f);
}

// Each iteration goes the way of a launched server being confirmed: the
// known pid is probed, then the lock file read and its pid compared.
void BM_RefreshReadingLockFile(benchmark::State &state) {
    QuendralInstance inst(instDir);
    if (!inst.isValid()) std::abort();
    inst.refresh();
    if (inst.serverStatus() != ServerStatusRunning) std::abort();
    for (auto _ : state) {
        inst.setStatus(ServerStatusStarting);
        inst.refresh();
    }
    if (inst.serverStatus() != ServerStatusRunning) std::abort();
}

// A stopped instance: no lock file, so the start record is looked up (a
// start by another front end may be on its way) and the configuration's
// date checked.
void BM_RefreshStopped(benchmark::State &state) {
    QuendralInstance inst(stoppedDir);
    inst.refresh();
    if (inst.serverStatus() != ServerStatusStopped) std::abort();
    for (auto _ : state) inst.refresh();
    if (inst.serverStatus() != ServerStatusStopped) std::abort();
}

// The start record's part of it: a stat of the directory and an open that
// finds nothing.
void BM_StartRecordLookup(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(quendral::liveStartRecord(stoppedDir));
}

// The floor: the system calls any such refresh needs.
void BM_RefreshFloor(benchmark::State &state) {
    char buf[64];
    for (auto _ : state) {
        struct stat st;
        benchmark::DoNotOptimize(stat(lockPath.c_str(), &st));
        const int fd = open(lockPath.c_str(), O_RDONLY);
        benchmark::DoNotOptimize(read(fd, buf, sizeof buf));
        close(fd);
        benchmark::DoNotOptimize(kill(server, 0));
    }
}

BENCHMARK(BM_RefreshReadingLockFile)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RefreshStopped)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_StartRecordLookup)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RefreshFloor)->Repetitions(5)->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char **argv) {
    setUp();
    bench::CollectingReporter reporter;
    const bool ran = bench::runBenchmarks(argc, argv, reporter);
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    std::filesystem::remove_all(workDir);
    if (!ran) return 2;
    const double refresh = reporter.secondsPerIteration("BM_RefreshReadingLockFile");
    const double stopped = reporter.secondsPerIteration("BM_RefreshStopped");
    const double record = reporter.secondsPerIteration("BM_StartRecordLookup");
    const double floor = reporter.secondsPerIteration("BM_RefreshFloor");
    std::printf("\nInstance refresh, ratios measured in this run (medians of 5):\n");
    std::printf("  refresh %.2f us, stopped %.2f us (start record %.2f us), floor %.2f us\n",
                refresh * 1e6, stopped * 1e6, record * 1e6, floor * 1e6);
    bool ok = true;
    if (refresh > 0 && floor > 0)
        ok = bench::printRatio("refresh (lock file read + probe) vs bare system calls",
                               refresh / floor, 1.5, false);
    if (stopped > 0 && floor > 0)
        ok = bench::printRatio("refresh of a stopped instance (start record included) vs bare "
                               "system calls",
                               stopped / floor, 1.5, false) &&
             ok;
    return ok ? 0 : 1;
}
