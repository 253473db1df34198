// 200 demo servers started and stopped through the model, 1000 cycles in all,
// with random slow starts, servers that fail at once and servers killed while
// running. Afterwards: no zombie, no descriptor left open in this process,
// every status right, and the lock files of servers that were stopped gone.
#include "ModelTestUtil.h"
#include "QuendralManager.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <filesystem>
#include <random>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

constexpr int kInstances = 200;
constexpr int kCycles = 1000;

enum class Ending { None, Stopped, Killed, Failed };

// Zombie children of this process.
int zombies() {
    int n = 0;
    const pid_t self = getpid();
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const pid_t pid = std::stoi(name);
        if (parentOf(pid) == self && processState(pid) == 'Z') n++;
    }
    return n;
}

bool alive(pid_t pid) {
    return pid > 0 && kill(pid, 0) == 0 && processState(pid) != 'Z';
}

// A server this test started (ended or not). A killed server's stale lock
// file may name a pid the system has since given to another process, which
// the instance then rightly shows as running; the test never signals it.
bool ours(pid_t pid) {
    return pid > 0 && parentOf(pid) == getpid();
}

class Stress : public ::testing::Test {
  protected:
    TempDir home;
    std::vector<std::shared_ptr<QuendralInstance>> instances;
    std::vector<Ending> endings = std::vector<Ending>(kInstances, Ending::None);
    // A killed server leaves its lock file; only the next server that runs
    // replaces it (and removes it when stopped).
    std::vector<bool> staleLock = std::vector<bool>(kInstances, false);
    LogCapture log; // the expected stale-lock messages stay out of the output

    void SetUp() override {
        fs::create_directories(home / "bin");
        fs::copy_file(demoServerPath(), home / "bin/quendral");
        for (int i = 0; i < kInstances; i++)
            makeInstanceDir(home, "inst" + std::to_string(1000 + i));
        setenv("QUENDRAL_DEMO_HTTP_PORT", "0", 1);
        QuendralManager manager;
        manager.addSearchPath(home.path());
        instances = manager.allInstances();
        ASSERT_EQ(instances.size(), static_cast<size_t>(kInstances));
    }

    void TearDown() override {
        for (auto &i : instances)
            if (ours(i->pid())) kill(i->pid(), SIGKILL);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }

    // Refreshes until nothing is starting or stopping; false on time out.
    bool settle(std::chrono::seconds limit = std::chrono::seconds(60)) {
        return waitFor(
            [&] {
                bool busy = false;
                for (auto &i : instances) {
                    i->refresh();
                    const int32_t s = i->serverStatus();
                    busy = busy || s == ServerStatusStarting || s == ServerStatusStopping;
                }
                return !busy;
            },
            limit);
    }

    // Every instance's status agrees with its process.
    void expectStatusesRight() {
        for (auto &i : instances) {
            if (i->serverStatus() == ServerStatusRunning)
                EXPECT_TRUE(alive(i->pid())) << i->directory();
            else
                EXPECT_EQ(i->serverStatus(), ServerStatusStopped) << i->directory();
        }
    }
};

TEST_F(Stress, ThousandCyclesOverTwoHundredServers) {
    const int fdsBefore = openDescriptors();
    std::mt19937 rng(20261121);
    auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };

    int starts = 0, stops = 0, kills = 0, failures = 0;
    for (int cycle = 0; cycle < kCycles; cycle++) {
        const size_t k = rng() % instances.size();
        auto &i = instances[k];
        i->refresh();
        if (i->serverStatus() == ServerStatusStopped) {
            const bool fail = chance(10);
            setenv("QUENDRAL_DEMO_START_DELAY_MS",
                   std::to_string(chance(30) ? rng() % 400 : 0).c_str(), 1);
            setenv("QUENDRAL_DEMO_FAIL", fail ? "1" : "0", 1);
            if (i->startup()) {
                starts++;
                endings[k] = fail ? Ending::Failed : Ending::None;
                if (!fail) staleLock[k] = false;
                failures += fail;
            }
        } else if (i->serverStatus() == ServerStatusRunning && ours(i->pid())) {
            if (chance(20)) {
                kill(i->pid(), SIGKILL);
                endings[k] = Ending::Killed;
                staleLock[k] = true;
                kills++;
            } else if (i->shutdown()) {
                endings[k] = Ending::Stopped;
                stops++;
            }
        }
        if (cycle % 100 == 99) {
            ASSERT_TRUE(settle()) << "cycle " << cycle;
            expectStatusesRight();
        }
    }

    // Stop whatever still runs, then look at everything.
    ASSERT_TRUE(settle());
    for (size_t k = 0; k < instances.size(); k++) {
        if (instances[k]->serverStatus() == ServerStatusRunning && ours(instances[k]->pid()) &&
            instances[k]->shutdown())
            endings[k] = Ending::Stopped;
    }
    ASSERT_TRUE(settle());
    // Each refresh collects at most one ended child; a few rounds collect all.
    EXPECT_TRUE(waitFor([&] {
        for (auto &i : instances) i->refresh();
        return zombies() == 0;
    }));
    // A zombie counts as running until it is collected: look once more now
    // that none is left.
    for (auto &i : instances) i->refresh();
    for (size_t k = 0; k < instances.size(); k++) {
        auto &i = instances[k];
        EXPECT_FALSE(ours(i->pid()) && alive(i->pid())) << i->directory() << ": still running";
        if (staleLock[k] && i->serverStatus() == ServerStatusRunning)
            EXPECT_TRUE(alive(i->pid())) << i->directory() << ": stale lock, pid reused";
        else
            EXPECT_EQ(i->serverStatus(), ServerStatusStopped) << i->directory();
        // A killed server's lock file stays until a later server of the
        // instance replaces it; "stopping" a killed server that was not yet
        // collected cannot remove it either.
        if ((endings[k] == Ending::Stopped || endings[k] == Ending::Failed) && !staleLock[k]) {
            EXPECT_FALSE(fs::exists(i->directory() + "/quendral.lck")) << i->directory();
        }
    }
    EXPECT_EQ(openDescriptors(), fdsBefore);
    std::printf("starts %d (failing at once %d), stops %d, kills %d\n", starts, failures, stops,
                kills);
    EXPECT_GT(starts, 300);
    EXPECT_GT(stops, 100);
    EXPECT_GT(kills, 20);
}

} // namespace
