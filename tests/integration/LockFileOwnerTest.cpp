// A lock file speaks only for a process of its owner: whoever can write an
// instance directory can name any pid in its lock file, and a monitor run as
// root would otherwise signal that process. Real owners (chown to nobody),
// real processes of another user, and PID 1 of a pid namespace of its own.
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;

namespace {

constexpr uid_t kNobody = 65534;

// "sleep 1000" run as nobody.
class NobodysProcess {
  public:
    NobodysProcess() {
        pid_ = fork();
        if (pid_ == 0) {
            if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(126);
            execlp("sleep", "sleep", "1000", static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~NobodysProcess() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

bool alive(pid_t pid) {
    const char state = processState(pid);
    return state != 0 && state != 'Z';
}

class LockFileOwner : public ::testing::Test, public InstanceFixture {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: files and processes of another user";
        inst.refresh();
    }
    void writeLockFileOf(uid_t owner, pid_t pid) {
        writeLockFile(lck, pid);
        ASSERT_EQ(chown(lck.c_str(), owner, owner), 0);
    }
    std::string stale() const { return "stale .lck file detected: " + lck; }
};

TEST_F(LockFileOwner, AnotherUsersFileNamingRootsProcessIsStaleAndNothingIsSignalled) {
    ChildProcess rootsProcess;
    // Written now, after the process began: only the owner speaks against it.
    writeLockFileOf(kNobody, rootsProcess.pid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.pid(), 0);
    EXPECT_GE(log.count(stale()), 1u);
    EXPECT_FALSE(inst.shutdown());
    EXPECT_TRUE(alive(rootsProcess.pid()));
}

TEST_F(LockFileOwner, RootsFileNamingAnotherUsersProcessIsStale) {
    NobodysProcess other;
    ASSERT_TRUE(waitFor([&] { return processState(other.pid()) == 'S'; }));
    writeLockFileOf(0, other.pid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_FALSE(inst.shutdown());
    EXPECT_TRUE(alive(other.pid()));
}

TEST_F(LockFileOwner, AUsersFileNamingThatUsersProcessIsTheServerEvenForRoot) {
    NobodysProcess other;
    ASSERT_TRUE(waitFor([&] { return processState(other.pid()) == 'S'; }));
    writeLockFileOf(kNobody, other.pid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst.pid(), other.pid());
    EXPECT_EQ(log.count(stale()), 0u);
}

TEST_F(LockFileOwner, PidOneAndTheMonitorItselfNeverCount) {
    writeLockFileOf(0, 1);
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_FALSE(inst.shutdown());
    writeLockFileOf(0, getpid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_FALSE(inst.shutdown());
}

} // namespace
