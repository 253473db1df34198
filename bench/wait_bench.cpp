// What "quendralctl start --wait" and "stop --wait" add to the server's own
// time, what "start --wait --ready" adds beyond the moment the server's
// socket listens, and what "quendralctl status" costs with every detail.
//
// What a wait adds is measured against the same command without a wait,
// whose end the benchmark watches itself with the events the tool would
// use: "start", until inotify reports the server's lock file; "stop", until
// the server's pidfd reports its end. Both runs pay for starting the tool
// and for the launch or the signal, so the difference is what waiting adds
// beyond the server's own time: the wake-up, the last look, the exit. The
// tool is measured once woken by the events and once polling every 50 ms as
// it did before (QUENDRALCTL_TEST_NO_EVENTS=1,
// QUENDRALCTL_TEST_FALLBACK_POLL_MS=50), all in one run. For reference the
// server's own times are also measured with the benchmark launching and
// signalling it directly. Medians of every iteration.
#include "BenchReport.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <thread>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

std::string home, instance;
std::map<std::string, std::vector<double>> samples;

double since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

void record(benchmark::State &state, const char *name, double seconds) {
    samples[name].push_back(seconds);
    state.SetIterationTime(seconds);
}

double median(const char *name) {
    std::vector<double> v = samples[name];
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Runs quendralctl with `args` and the extra environment, its output to
// /dev/null; returns its exit status.
pid_t spawnCtl(const std::vector<const char *> &args, const std::vector<std::string> &extra = {}) {
    // An extra variable replaces the environment's own: getenv would find
    // the first of two.
    std::vector<std::string> env;
    for (char **e = environ; *e; e++) {
        const std::string kv = *e;
        const std::string key = kv.substr(0, kv.find('='));
        if (std::none_of(extra.begin(), extra.end(),
                         [&](const std::string &x) { return x.starts_with(key + "="); }))
            env.push_back(kv);
    }
    env.insert(env.end(), extra.begin(), extra.end());
    std::vector<char *> envp;
    for (auto &e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<char *> argv{const_cast<char *>("quendralctl")};
    for (const char *a : args) argv.push_back(const_cast<char *>(a));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    if (posix_spawn(&pid, QUENDRALCTL_PATH, &actions, nullptr, argv.data(), envp.data()) != 0)
        std::abort();
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int exitStatusOf(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs quendralctl with `args` and the extra environment, its output to
// /dev/null; returns its exit status.
int ctl(const std::vector<const char *> &args, const std::vector<std::string> &extra = {}) {
    return exitStatusOf(spawnCtl(args, extra));
}

// Reads inotify events until one names the lock file.
void awaitLockFile(int in) {
    alignas(inotify_event) char buf[4096];
    for (bool seen = false; !seen;) {
        const ssize_t n = read(in, buf, sizeof buf);
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const inotify_event *>(buf + at);
            if (e->len && std::strcmp(e->name, "quendral.lck") == 0) seen = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
        }
    }
}

pid_t serverPid() {
    FILE *f = std::fopen((instance + "/quendral.lck").c_str(), "r");
    long pid = 0;
    if (f) {
        if (std::fscanf(f, "%ld", &pid) != 1) pid = 0;
        std::fclose(f);
    }
    return static_cast<pid_t>(pid);
}

const std::vector<std::string> kPolling = {"QUENDRALCTL_TEST_NO_EVENTS=1",
                                           "QUENDRALCTL_TEST_FALLBACK_POLL_MS=50"};

// The demo server launched in the instance directory as the tool launches
// it; returns once inotify has reported its lock file, with its pid.
pid_t launchDirectly(double &seconds) {
    const int in = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(in, instance.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
    const auto t = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(instance.c_str()) != 0) _exit(1);
        setsid();
        const int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        execl((home + "/bin/quendral").c_str(), "quendral", "-f", static_cast<char *>(nullptr));
        _exit(1);
    }
    awaitLockFile(in);
    seconds = since(t);
    close(in);
    return pid;
}

double stopDirectly(pid_t pid) {
    const auto t = Clock::now();
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    return since(t);
}

void BM_ServerWritesItsLockFile(benchmark::State &state) {
    for (auto _ : state) {
        double s = 0;
        const pid_t pid = launchDirectly(s);
        record(state, "server start", s);
        stopDirectly(pid);
    }
}

void BM_ServerExits(benchmark::State &state) {
    for (auto _ : state) {
        double s = 0;
        const pid_t pid = launchDirectly(s);
        record(state, "server stop", stopDirectly(pid));
    }
}

void startWait(benchmark::State &state, const char *name, const std::vector<std::string> &env) {
    for (auto _ : state) {
        const auto t = Clock::now();
        if (ctl({"start", "--wait", "10"}, env) != 0) state.SkipWithError("start failed");
        record(state, name, since(t));
        if (ctl({"stop", "--wait", "10"}) != 0) state.SkipWithError("stop failed");
    }
}

void stopWait(benchmark::State &state, const char *name, const std::vector<std::string> &env) {
    for (auto _ : state) {
        if (ctl({"start", "--wait", "10"}) != 0) state.SkipWithError("start failed");
        const auto t = Clock::now();
        if (ctl({"stop", "--wait", "10"}, env) != 0) state.SkipWithError("stop failed");
        record(state, name, since(t));
    }
}

// "start" without a wait, until the lock file is written.
void BM_StartThenLockFile(benchmark::State &state) {
    for (auto _ : state) {
        const int in = inotify_init1(IN_CLOEXEC);
        inotify_add_watch(in, instance.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO);
        const auto t = Clock::now();
        const pid_t tool = spawnCtl({"start"});
        awaitLockFile(in);
        record(state, "start plain", since(t));
        if (exitStatusOf(tool) != 0) state.SkipWithError("start failed");
        close(in);
        if (ctl({"stop", "--wait", "10"}) != 0) state.SkipWithError("stop failed");
    }
}

// "stop" without a wait, until the server has ended.
void BM_StopThenExit(benchmark::State &state) {
    for (auto _ : state) {
        if (ctl({"start", "--wait", "10"}) != 0) state.SkipWithError("start failed");
        const int server = static_cast<int>(syscall(SYS_pidfd_open, serverPid(), 0));
        if (server < 0) state.SkipWithError("no server");
        const auto t = Clock::now();
        const pid_t tool = spawnCtl({"stop"});
        pollfd p{server, POLLIN, 0};
        poll(&p, 1, 10000);
        record(state, "stop plain", since(t));
        if (exitStatusOf(tool) != 0) state.SkipWithError("stop failed");
        close(server);
        ctl({"stop", "--wait", "10"});
    }
}

void BM_StartWaitEvents(benchmark::State &state) {
    startWait(state, "start events", {});
}
void BM_StartWaitPolling(benchmark::State &state) {
    startWait(state, "start polling", kPolling);
}
void BM_StopWaitEvents(benchmark::State &state) {
    stopWait(state, "stop events", {});
}
void BM_StopWaitPolling(benchmark::State &state) {
    stopWait(state, "stop polling", kPolling);
}

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

// Whether a connection to the loopback port is taken.
bool connectsTo(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

// "start --wait --ready" of a server that listens 50 ms after writing its
// lock file: from the moment its socket listens (a thread of the benchmark
// tries to connect every 20 microseconds) to the tool's exit.
void BM_StartReadyBeyondListening(benchmark::State &state) {
    for (auto _ : state) {
        const int port = freePort();
        std::atomic<bool> done{false};
        std::atomic<Clock::rep> listenedAt{0};
        std::thread prober([&] {
            while (!done) {
                if (connectsTo(port)) {
                    listenedAt = Clock::now().time_since_epoch().count();
                    return;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(20));
            }
        });
        const int status = ctl({"start", "--wait", "10", "--ready"},
                               {"QUENDRAL_DEMO_HTTP_PORT=" + std::to_string(port),
                                "QUENDRAL_DEMO_LISTEN_DELAY_MS=50"});
        const auto exited = Clock::now();
        done = true;
        prober.join();
        if (status != 0 || listenedAt == 0) {
            state.SkipWithError("start --ready failed");
        } else {
            const Clock::time_point listened{Clock::duration(listenedAt.load())};
            record(state, "ready beyond listening",
                   std::chrono::duration<double>(exited - listened).count());
        }
        if (ctl({"stop", "--wait", "10"}) != 0) state.SkipWithError("stop failed");
    }
}

// What "start --wait 2 --ready" costs while it waits for a server that runs
// and never listens: the tool's CPU time (user and system, from the rusage
// of the reaped tool) over the wall time it waited.
void BM_ReadyWaitCpuShare(benchmark::State &state) {
    if (ctl({"start", "--wait", "10"}) != 0) state.SkipWithError("start failed");
    for (auto _ : state) {
        rusage before{}, after{};
        getrusage(RUSAGE_CHILDREN, &before);
        const auto t = Clock::now();
        if (ctl({"start", "--wait", "2", "--ready"}) != 1)
            state.SkipWithError("start --ready did not time out");
        const double wall = since(t);
        getrusage(RUSAGE_CHILDREN, &after);
        const auto seconds = [](const timeval &tv) { return tv.tv_sec + tv.tv_usec * 1e-6; };
        const double cpu = seconds(after.ru_utime) - seconds(before.ru_utime) +
                           seconds(after.ru_stime) - seconds(before.ru_stime);
        samples["ready cpu share"].push_back(cpu / wall);
        state.SetIterationTime(wall);
    }
    ctl({"stop", "--wait", "10"});
}

// "quendralctl status" of one running server that listens on a port, every
// detail read, as a whole process.
void BM_StatusOfARunningServer(benchmark::State &state) {
    const std::string port = "QUENDRAL_DEMO_HTTP_PORT=" + std::to_string(freePort());
    if (ctl({"start", "--wait", "10"}, {port}) != 0) state.SkipWithError("start failed");
    for (auto _ : state) {
        const auto t = Clock::now();
        if (ctl({"status"}) != 0) state.SkipWithError("status failed");
        record(state, "status", since(t));
    }
    ctl({"stop", "--wait", "10"});
}

void BM_EmptyProcess(benchmark::State &state) {
    char *argv[] = {const_cast<char *>("true"), nullptr};
    for (auto _ : state) {
        const auto t = Clock::now();
        pid_t pid;
        posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ);
        waitpid(pid, nullptr, 0);
        record(state, "empty process", since(t));
    }
}

constexpr int kIterations = 60;
BENCHMARK(BM_ServerWritesItsLockFile)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StartThenLockFile)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StartWaitEvents)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StartWaitPolling)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_ServerExits)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StopThenExit)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StopWaitEvents)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StopWaitPolling)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_StartReadyBeyondListening)->UseManualTime()->Iterations(kIterations);
BENCHMARK(BM_ReadyWaitCpuShare)->UseManualTime()->Iterations(3);
BENCHMARK(BM_StatusOfARunningServer)->UseManualTime()->Iterations(200);
BENCHMARK(BM_EmptyProcess)->UseManualTime()->Iterations(200);

} // namespace

int main(int argc, char **argv) {
    char tmpl[] = "/tmp/waitbench.XXXXXX";
    if (!mkdtemp(tmpl)) return 2;
    home = tmpl;
    instance = home + "/database";
    std::filesystem::create_directories(home + "/bin");
    std::filesystem::create_directories(instance);
    std::filesystem::copy_file(QUENDRAL_DEMO_PATH, home + "/bin/quendral");
    FILE *f = std::fopen((instance + "/quendral.ini").c_str(), "w");
    std::fputs("[database]\n", f);
    std::fclose(f);
    setenv("QUENDRAL_HOME", home.c_str(), 1);
    setenv("QUENDRAL_DEMO_HTTP_PORT", "0", 1);
    // No service manager to move servers into: the move is not measured here.
    setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
    unsetenv("QUENDRAL_BINARY");

    bench::CollectingReporter reporter;
    const bool ran = bench::runBenchmarks(argc, argv, reporter);
    std::filesystem::remove_all(home);
    if (!ran) return 2;

    const double serverStart = median("server start"), serverStop = median("server stop");
    const double startPlain = median("start plain"), stopPlain = median("stop plain");
    const double startEvents = median("start events") - startPlain;
    const double startPolling = median("start polling") - startPlain;
    const double stopEvents = median("stop events") - stopPlain;
    const double stopPolling = median("stop polling") - stopPlain;
    const double empty = median("empty process"), status = median("status");
    std::printf("\nWaiting, medians of %d runs each, in this run:\n", kIterations);
    std::printf("  start without a wait until the lock file is written: %.2f ms "
                "(the server launched directly: %.2f ms)\n",
                startPlain * 1e3, serverStart * 1e3);
    std::printf("  stop without a wait until the server has ended: %.2f ms "
                "(the server signalled directly: %.2f ms)\n",
                stopPlain * 1e3, serverStop * 1e3);
    std::printf("  start --wait: %.2f ms as a whole, adds %.2f ms (events), %.2f ms (polling "
                "every 50 ms)\n",
                median("start events") * 1e3, startEvents * 1e3, startPolling * 1e3);
    std::printf("  stop --wait:  %.2f ms as a whole, adds %.2f ms (events), %.2f ms (polling "
                "every 50 ms)\n",
                median("stop events") * 1e3, stopEvents * 1e3, stopPolling * 1e3);
    const double ready = median("ready beyond listening");
    std::printf("  start --wait --ready: returns %.2f ms after the server's socket listens\n",
                ready * 1e3);
    const double readyCpu = median("ready cpu share");
    std::printf("  start --wait 2 --ready of a server that never listens: %.1f %% of a core "
                "while it waits\n",
                readyCpu * 100);
    std::printf("  starting a process at all: %.2f ms (an empty one)\n", empty * 1e3);
    std::printf("  status of a running server, every detail: %.2f ms\n", status * 1e3);
    bench::printRatio("start --wait added: events vs polling", startEvents / startPolling, 0,
                      false);
    bench::printRatio("stop --wait added: events vs polling", stopEvents / stopPolling, 0, false);
    bool ok = true;
    // The budgets are absolute: 2 ms added at the median, 5 ms for status.
    ok &= bench::printRatio("start --wait added / 2 ms", startEvents / 2e-3, 1.0, false);
    ok &= bench::printRatio("stop --wait added / 2 ms", stopEvents / 2e-3, 1.0, false);
    ok &=
        bench::printRatio("start --wait --ready beyond listening / 2 ms", ready / 2e-3, 1.0, false);
    ok &= bench::printRatio("status (every detail) / 5 ms", status / 5e-3, 1.0, false);
    // A bounded share of a core however long the wait: 5 %.
    ok &= bench::printRatio("start --wait --ready CPU share / 5 %", readyCpu / 0.05, 1.0, false);
    return ok ? 0 : 1;
}
