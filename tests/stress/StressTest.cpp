// 200 demo servers started and stopped through the model, 1000 cycles in all,
// with random slow starts, servers that fail at once and servers killed while
// running. A killed server leaves its lock file behind, and many of the slow
// starts are made on purpose over such a file: the instance must stay
// starting until the new server has written its own. Afterwards: no zombie,
// no descriptor left open in this process, every status right, and the lock
// files of servers that were stopped gone.
#include "ModelTestUtil.h"
#include "QuendralManager.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <filesystem>
#include <fstream>
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

// The pid in an instance's lock file, or 0 when there is none.
pid_t lockFilePid(const std::string &dir) {
    std::ifstream in(dir + "/quendral.lck");
    long pid = 0;
    return in >> pid ? static_cast<pid_t>(pid) : 0;
}

// A server this test started (ended but not yet collected, or not).
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

    // Every instance's status agrees with its process: a running one is a
    // live server this test started, never a process that took the pid a
    // stale lock file names.
    void expectStatusesRight() {
        for (auto &i : instances) {
            if (i->serverStatus() == ServerStatusRunning) {
                EXPECT_TRUE(alive(i->pid())) << i->directory();
                EXPECT_TRUE(ours(i->pid())) << i->directory();
            } else
                EXPECT_EQ(i->serverStatus(), ServerStatusStopped) << i->directory();
        }
    }
};

TEST_F(Stress, ThousandCyclesOverTwoHundredServers) {
    const int fdsBefore = openDescriptors();
    std::mt19937 rng(20261121);
    auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };

    int starts = 0, stops = 0, kills = 0, failures = 0, overStaleLock = 0;
    // Instances whose server was killed: half the cycles start one of them
    // again, slowly, while its lock file still names the dead server.
    std::vector<size_t> killed;
    for (int cycle = 0; cycle < kCycles; cycle++) {
        const bool again = !killed.empty() && chance(50);
        size_t k = rng() % instances.size();
        if (again) {
            const size_t pick = rng() % killed.size();
            k = killed[pick];
            killed.erase(killed.begin() + static_cast<std::ptrdiff_t>(pick));
        }
        auto &i = instances[k];
        i->refresh();
        if (i->serverStatus() == ServerStatusStopped) {
            const bool fail = !again && chance(10);
            const bool slow = again || chance(30);
            setenv("QUENDRAL_DEMO_START_DELAY_MS",
                   std::to_string(slow ? 50 + rng() % 350 : 0).c_str(), 1);
            setenv("QUENDRAL_DEMO_FAIL", fail ? "1" : "0", 1);
            const bool stale = staleLock[k];
            if (i->startup()) {
                starts++;
                overStaleLock += stale && slow && !fail;
                endings[k] = fail ? Ending::Failed : Ending::None;
                if (!fail) staleLock[k] = false;
                failures += fail;
                // Until the server has written its own lock file, a leftover
                // must neither end nor confirm the start.
                const pid_t server = i->pid();
                i->refresh();
                if (!fail && lockFilePid(i->directory()) != server) {
                    EXPECT_EQ(i->serverStatus(), ServerStatusStarting) << i->directory();
                }
            }
        } else if (i->serverStatus() == ServerStatusRunning) {
            EXPECT_TRUE(ours(i->pid())) << i->directory();
            if (chance(20)) {
                kill(i->pid(), SIGKILL);
                endings[k] = Ending::Killed;
                staleLock[k] = true;
                killed.push_back(k);
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
        if (instances[k]->serverStatus() == ServerStatusRunning && instances[k]->shutdown())
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
        EXPECT_EQ(i->serverStatus(), ServerStatusStopped) << i->directory();
        // A killed server's lock file stays until a later server of the
        // instance replaces it; "stopping" a killed server that was not yet
        // collected cannot remove it either.
        if ((endings[k] == Ending::Stopped || endings[k] == Ending::Failed) && !staleLock[k]) {
            EXPECT_FALSE(fs::exists(i->directory() + "/quendral.lck")) << i->directory();
        }
    }
    EXPECT_EQ(openDescriptors(), fdsBefore);
    std::printf("starts %d (failing at once %d, slow over a stale lock file %d), stops %d, "
                "kills %d\n",
                starts, failures, overStaleLock, stops, kills);
    EXPECT_GT(starts, 300);
    EXPECT_GT(stops, 100);
    EXPECT_GT(kills, 20);
    EXPECT_GT(overStaleLock, 20);
}

} // namespace
