// A session bus or service manager that accepts a connection and never
// answers: nothing of quendralctl waits on it past its bound. A start goes on
// without a scope of its own within about a second, saying why once; enable
// fails within a few seconds and leaves nothing behind; a front end killed
// while it waits leaves no server that nobody can see.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

// A socket that takes connections into its backlog and never answers.
class SilentSocket {
  public:
    explicit SilentSocket(const std::string &path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (path.size() >= sizeof addr.sun_path) return;
        std::memcpy(addr.sun_path, path.c_str(), path.size());
        ok_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
              listen(fd_, 64) == 0;
    }
    ~SilentSocket() {
        if (fd_ >= 0) close(fd_);
    }
    bool ok() const { return ok_; }

  private:
    int fd_ = -1;
    bool ok_ = false;
};

class SilentBus : public CtlInstallation {
  protected:
    std::string dir, runtime, config;
    std::string busEnv;
    void SetUp() override {
        CtlInstallation::SetUp();
        dir = makeInstanceDir(home, "database");
        runtime = home / "run";
        config = home / "config";
        fs::create_directories(runtime + "/systemd");
        chmod(runtime.c_str(), 0700);
        busEnv = "DBUS_SESSION_BUS_ADDRESS=unix:path=" + home / "bus" +
                 " XDG_RUNTIME_DIR=" + runtime + " XDG_CONFIG_HOME=" + config;
    }
    // quendralctl with the silent bus; how long it took.
    CtlResult timed(const std::string &args, double &seconds, const std::string &extra = "") {
        const auto began = std::chrono::steady_clock::now();
        CtlResult r = runCtl(args, env + " " + busEnv + " " + extra);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
        return r;
    }
};

TEST_F(SilentBus, AStartGoesOnWithoutAScopeWithinItsBoundAndSaysWhyOnce) {
    SilentSocket bus(home / "bus");
    ASSERT_TRUE(bus.ok());
    double took = 0;
    const CtlResult r = timed("start --wait 5", took);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\n");
    EXPECT_LT(took, 3.0) << "the bus held the start";
    EXPECT_NE(r.err.find("has no unit of its own: cannot reach the session bus: Connection timed "
                         "out\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(SilentBus, AServiceManagerThatNeverAnswersHoldsAStartNoLongerThanItsBound) {
    SilentSocket manager(runtime + "/systemd/private");
    ASSERT_TRUE(manager.ok());
    double took = 0;
    const CtlResult r = timed("start --wait 5", took);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_LT(took, 3.0) << "the manager held the start";
    EXPECT_NE(r.err.find("has no unit of its own: the service manager did not answer in time\n"),
              std::string::npos)
        << r.err;
}

TEST_F(SilentBus, EnableFailsWithinAFewSecondsAndLeavesNothingBehind) {
    SilentSocket manager(runtime + "/systemd/private");
    ASSERT_TRUE(manager.ok());
    double took = 0;
    const CtlResult r = timed("enable", took);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("did not answer in time"), std::string::npos) << r.err;
    EXPECT_LT(took, 6.0);
    // No unit file, no autostart entry in its place: nothing at all.
    EXPECT_FALSE(fs::exists(config + "/systemd/user")) << "something was written";
    EXPECT_FALSE(fs::exists(config + "/autostart")) << "an autostart entry was written";
    EXPECT_EQ(ctl("list").out.find('+'), std::string::npos) << "listed as enabled";
}

TEST_F(SilentBus, AFrontEndKilledWhileTheBusHoldsItsStartLeavesNoServerUnseen) {
    SilentSocket bus(home / "bus");
    ASSERT_TRUE(bus.ok());
    // A slow server, and the front end killed (Ctrl-C, timeout) while it
    // waits on the bus.
    ChildProcess first({"env", "QUENDRAL_HOME=" + home.path(), "QUENDRAL_DEMO_HTTP_PORT=0",
                        "QUENDRAL_DEMO_START_DELAY_MS=1500",
                        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + home / "bus",
                        "XDG_RUNTIME_DIR=" + runtime, QUENDRALCTL_PATH, "start", "--wait", "30"});
    usleep(700 * 1000);
    ASSERT_EQ(kill(first.pid(), SIGTERM), 0);
    first.killAndReap();
    // Whatever the launched child was doing, it is not a server nobody knows
    // of: the instance is stopped once it has gone, and no server runs.
    ASSERT_TRUE(waitFor([&] { return shownStatus(ctl("status").out) == "stopped\n"; }));
    usleep(2000 * 1000); // past the slow server's own start
    EXPECT_TRUE(processesIn(dir).empty()) << "a server runs that no front end launched";
    EXPECT_FALSE(fs::exists(dir + "/quendral.lck"));
    // The next start launches the one server.
    const CtlResult again = ctl("start --wait 10");
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

} // namespace
