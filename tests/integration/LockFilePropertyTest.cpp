// Random sequences of what happens to an instance in real life (starts, slow
// starts, servers started elsewhere, servers killed or stopped, lock files
// left behind whose pid an unrelated process has taken, files touched), with
// the instance refreshed after every event and checked against what the test
// knows to be true:
//   - running means a live process that the monitor launched or that wrote
//     the lock file; never an unrelated process named by a stale file;
//   - stopping never signals an unrelated process;
//   - while a launched server lives and the lock file names no live writer,
//     the instance stays starting.
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace testsupport;

namespace {

constexpr int kEvents = 120;

bool exists(pid_t pid) {
    return pid > 0 && processState(pid) != 0;
}
bool liveNotZombie(pid_t pid) {
    const char s = processState(pid);
    return s != 0 && s != 'Z';
}

// The pid a lock file names (its content is always written whole here), or 0.
pid_t lockPid(const std::string &path) {
    try {
        const std::string text = readFile(path);
        return static_cast<pid_t>(std::atol(text.c_str()));
    } catch (const std::exception &) {
        return 0;
    }
}

// The log capture keeps the expected stale and "different" lines.
class LockFileProperty : public ::testing::TestWithParam<unsigned>, public DemoInstallationFixture {
  protected:
    std::mt19937 rng{GetParam()};

    // What the test knows about every process it made.
    std::set<pid_t> launched;                            // by the instance's startup
    std::vector<std::unique_ptr<ChildProcess>> external; // servers started elsewhere
    std::vector<std::unique_ptr<ReusedPidLockFile>> strangers;
    std::set<pid_t> strangerPids;

    void TearDown() override {
        for (pid_t pid : launched) kill(pid, SIGKILL);
        for (pid_t pid : launched) waitpid(pid, nullptr, 0);
        unsetenv("QUENDRAL_DEMO_START_DELAY_MS");
        unsetenv("QUENDRAL_DEMO_FAIL");
    }

    int chance(int percent) { return static_cast<int>(rng() % 100) < percent; }
    bool isExternalServer(pid_t pid) const {
        for (const auto &c : external)
            if (c->pid() == pid) return true;
        return false;
    }
    // A live process that wrote the lock file as it stands: the demo server
    // we launched, or a server started elsewhere.
    bool lockNamesLiveWriter() const {
        const pid_t pid = lockPid(lck);
        return (launched.count(pid) || isExternalServer(pid)) && liveNotZombie(pid);
    }
    // The server launched last, while it lives.
    pid_t lastLaunched = 0;

    // A leftover lock file is one whose server has ended: it is put in place
    // only while no server of ours lives, which could be writing its own at
    // that very moment (a server whose file is then overwritten would rightly
    // stay "starting" for ever).
    bool mayLeaveStaleLock() const {
        if (lastLaunched && liveNotZombie(lastLaunched)) return false;
        return !lockNamesLiveWriter();
    }

    void refreshAndCheck(const std::string &event) {
        const int32_t before = inst->serverStatus();
        const bool writerBefore = lockNamesLiveWriter();
        inst->refresh();
        const int32_t after = inst->serverStatus();
        const pid_t pid = inst->pid();
        SCOPED_TRACE("after " + event + ", status " + std::to_string(before) + " -> " +
                     std::to_string(after) + ", pid " + std::to_string(pid));

        if (after == ServerStatusRunning) {
            EXPECT_TRUE(exists(pid));
            EXPECT_TRUE(launched.count(pid) || isExternalServer(pid))
                << "running with a pid that is not a server";
            EXPECT_FALSE(strangerPids.count(pid));
        }
        for (const auto &s : strangers) EXPECT_TRUE(s->unrelatedAlive()) << "a stranger was hit";

        if (before == ServerStatusStarting && lastLaunched && liveNotZombie(lastLaunched) &&
            !writerBefore && !lockNamesLiveWriter()) {
            EXPECT_EQ(after, ServerStatusStarting) << "a server on its way was given up";
        }
    }

    void step(int n) {
        switch (rng() % 9) {
        case 0: // the user chooses Start
        case 1: {
            const bool slow = chance(50);
            setenv("QUENDRAL_DEMO_START_DELAY_MS",
                   std::to_string(slow ? 50 + rng() % 400 : 0).c_str(), 1);
            setenv("QUENDRAL_DEMO_FAIL", chance(10) ? "1" : "0", 1);
            if (inst->startup()) {
                lastLaunched = inst->pid();
                launched.insert(lastLaunched);
            }
            return refreshAndCheck("start " + std::to_string(n));
        }
        case 2: // a server started elsewhere writes the lock file
            if (inst->serverStatus() == ServerStatusStopped) {
                external.push_back(std::make_unique<ChildProcess>());
                writeLockFile(lck, external.back()->pid());
            }
            return refreshAndCheck("external server " + std::to_string(n));
        case 3: { // the server is killed outright; its lock file stays
            const pid_t pid = inst->pid();
            if (launched.count(pid) || isExternalServer(pid)) kill(pid, SIGKILL);
            return refreshAndCheck("SIGKILL " + std::to_string(n));
        }
        case 4: // the user chooses Stop
            inst->shutdown();
            return refreshAndCheck("stop " + std::to_string(n));
        case 5: { // a lock file left long ago whose pid another process has now
            if (!mayLeaveStaleLock()) return refreshAndCheck("(kept lock) " + std::to_string(n));
            strangers.push_back(std::make_unique<ReusedPidLockFile>(lck));
            strangerPids.insert(strangers.back()->pid());
            return refreshAndCheck("reused pid " + std::to_string(n));
        }
        case 6: { // a lock file naming a pid that ended
            if (!mayLeaveStaleLock()) return refreshAndCheck("(kept lock) " + std::to_string(n));
            ChildProcess gone({"true"});
            const pid_t pid = gone.pid();
            waitpid(pid, nullptr, 0);
            writeLockFile(lck, pid);
            return refreshAndCheck("dead pid " + std::to_string(n));
        }
        case 7: // files touched: the configuration, and a lock file as its
                // writer would (a stale one only further into the past)
            writeFile(instDir + "/quendral.ini", "[database]\n");
            if (std::filesystem::exists(lck)) {
                if (lockNamesLiveWriter())
                    writeLockFile(lck, lockPid(lck));
                else if (strangerPids.count(lockPid(lck)))
                    backdate(lck, 3 * 24 * 3600 + static_cast<long>(rng() % 1000));
            }
            return refreshAndCheck("touch " + std::to_string(n));
        default: // time passes
            std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 120));
            return refreshAndCheck("wait " + std::to_string(n));
        }
    }
};

TEST_P(LockFileProperty, RandomHistoriesKeepTheInvariants) {
    for (int n = 0; n < kEvents && !HasFailure(); n++) step(n);
    // Finally let everything settle: whatever is starting resolves.
    EXPECT_TRUE(waitFor([&] {
        refreshAndCheck("settling");
        const int32_t s = inst->serverStatus();
        return s != ServerStatusStarting && s != ServerStatusStopping;
    })) << "status "
        << inst->serverStatus() << ", pid " << inst->pid() << " (" << processState(inst->pid())
        << "), lock file names " << lockPid(lck) << " (" << processState(lockPid(lck))
        << "), last launched " << lastLaunched << " (" << processState(lastLaunched) << ")\n"
        << [&] {
               std::string all;
               for (const auto &l : log.lines) all += l + "\n";
               return all.substr(all.size() > 1500 ? all.size() - 1500 : 0);
           }();
    std::printf("seed %u: %zu launched, %zu external, %zu strangers\n", GetParam(), launched.size(),
                external.size(), strangers.size());
}

INSTANTIATE_TEST_SUITE_P(Seeds, LockFileProperty,
                         ::testing::Values(1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u));

} // namespace
