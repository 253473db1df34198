// Who the server is, and whether a start is on, decided by nothing that
// another user can choose or take away: a server that daemonises stays
// "starting" for every front end until it speaks; a lock file that another
// user pointed elsewhere, or that the user may not read, says "unknown",
// never "stopped"; a home that is full or read-only never means a launch
// without a record. Real users (root and nobody), real mounts (tmpfs in a
// mount namespace of the test's own) and real servers.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

constexpr uid_t kNobody = 65534;

bool alive(pid_t pid) {
    const char state = processState(pid);
    return state != 0 && state != 'Z';
}

class QuendralctlWhoSpeaks : public CtlInstallation {
  protected:
    // quendralctl as a shell command, with more environment.
    std::string ctlLine(const std::string &extraEnv = "") const {
        return "env " + env + " " + extraEnv + " " + shellQuote(QUENDRALCTL_PATH);
    }
    // Runs `script` as root in a mount namespace of its own, where mounts
    // over the home are seen by nobody else, with a /tmp of its own: the
    // start records' place under /tmp is this test's alone, and no other
    // test meets what it leaves there. The script mounts with
    // `over PATH rw|ro TMPFS-OPTIONS`, which keeps what the test needs
    // (its installation, the build's programs) where it was, wherever that
    // lies: under /tmp, or under the home mounted over.
    CtlResult inOwnMounts(const std::string &script) {
        const std::string build = fs::path(QUENDRALCTL_PATH).parent_path().parent_path().string();
        const std::string prelude =
            "set -e; keep=" + shellQuote(home.path() + "\n" + build) +
            "\n"
            "over() {\n"
            "  saved=\n"
            "  for k in $(printf '%s\\n' \"$keep\"); do\n"
            "    case \"$k/\" in \"$1\"/*)\n"
            "      t=$(mktemp -d /var/tmp/quendral-ns.XXXXXX); mount --bind \"$k\" \"$t\"\n"
            "      saved=\"$saved $k=$t\";;\n"
            "    esac\n"
            "  done\n"
            "  mount -t tmpfs -o \"$3\" none \"$1\"\n"
            "  for s in $saved; do\n"
            "    k=${s%%=*}; t=${s#*=}\n"
            "    mkdir -p \"$k\"; mount --bind \"$t\" \"$k\"; umount \"$t\"; rmdir \"$t\"\n"
            "  done\n"
            "  if [ \"$2\" = ro ]; then mount -o remount,ro \"$1\"; fi\n"
            "}\n"
            "over /tmp rw mode=1777\n";
        return runShell("unshare -m sh -c " + shellQuote(prelude + script));
    }
    static bool canUnshareMounts() {
        return geteuid() == 0 && runShell("unshare -m true").status == 0;
    }
    static std::string rootHome() {
        const passwd *pw = getpwuid(0);
        return pw && pw->pw_dir ? pw->pw_dir : "/root";
    }
};

TEST_F(QuendralctlWhoSpeaks, ADaemonisingServerIsStartingForEveryoneUntilItWritesItsLockFile) {
    const std::string dir = makeInstanceDir(home, "database");
    const std::string daemon = "QUENDRAL_DEMO_DAEMON=1 QUENDRAL_DEMO_START_DELAY_MS=3000";
    const CtlResult start = ctl("start", daemon);
    ASSERT_EQ(start.status, 0) << start.err;
    EXPECT_EQ(start.out, "database starting\n");
    // The launched process and the one between have gone; the daemon is
    // all that is left of the start, in its own process group.
    ASSERT_TRUE(waitFor([&] { return processesIn(dir).size() == 1; })) << processesIn(dir).size();
    const CtlResult status = ctl("status");
    EXPECT_EQ(status.status, 3);
    EXPECT_EQ(shownStatus(status.out), "starting\n") << status.out;
    const CtlResult again = ctl("start", daemon);
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, "database already starting\n");
    const CtlResult waited = ctl("start --wait 10", daemon);
    EXPECT_EQ(waited.status, 0) << waited.err;
    EXPECT_EQ(waited.out, "database started\n");
    EXPECT_EQ(processesIn(dir).size(), 1u) << "one server";
    EXPECT_EQ(shownStatus(ctl("status").out), "running\n");
}

TEST_F(QuendralctlWhoSpeaks, StartWaitOfADaemonisingServerWaitsForItsLockFile) {
    const std::string dir = makeInstanceDir(home, "database");
    const CtlResult r =
        ctl("start --wait 10", "QUENDRAL_DEMO_DAEMON=1 QUENDRAL_DEMO_START_DELAY_MS=2000");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\n");
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(QuendralctlWhoSpeaks, ADaemonThatFailsBeforeItsLockFileEndsTheStart) {
    const std::string dir = makeInstanceDir(home, "database");
    const CtlResult r =
        ctl("start --wait 10", "QUENDRAL_DEMO_DAEMON=1 QUENDRAL_DEMO_FAIL_AFTER_MS=1500");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("database did not start (stopped)"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Cannot open the database: demo failure"), std::string::npos) << r.err;
    EXPECT_EQ(shownStatus(ctl("status").out), "stopped\n");
}

// A process of root's and a pid file of root's naming it, in a directory
// nobody else may write: what another user would like root to signal.
class RootsPidFile : public QuendralctlWhoSpeaks {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root, and a second user";
        QuendralctlWhoSpeaks::SetUp();
        dir = makeInstanceDir(home, "database");
        pidFile = run.path() + "/service.pid";
        writeLockFile(pidFile, rootsProcess.pid());
        // The user's instance: theirs, as is its configuration.
        for (const std::string &p : {home.path(), dir}) ASSERT_EQ(chmod(p.c_str(), 0755), 0);
    }
    void giveToNobody(const std::string &path) {
        ASSERT_EQ(lchown(path.c_str(), kNobody, kNobody), 0) << path;
    }
    void expectNothingSignalled() {
        const CtlResult status = ctl("status");
        EXPECT_EQ(status.status, 3);
        EXPECT_EQ(shownStatus(status.out), "unknown\n") << status.out;
        EXPECT_NE(status.out.find("Unknown: "), std::string::npos) << status.out;
        const CtlResult stop = ctl("stop --all --wait 3");
        EXPECT_EQ(stop.status, 1) << stop.out;
        EXPECT_NE(stop.err.find("database cannot be stopped: its status is unknown"),
                  std::string::npos)
            << stop.err;
        const CtlResult start = ctl("start --wait 3");
        EXPECT_EQ(start.status, 1) << start.out;
        EXPECT_TRUE(processesIn(dir).empty()) << "no server started over an unknown status";
        usleep(200 * 1000);
        EXPECT_TRUE(alive(rootsProcess.pid())) << "root's own process was signalled";
    }
    TempDir run;
    ChildProcess rootsProcess;
    std::string dir, pidFile;
};

TEST_F(RootsPidFile, ALockFileThatIsALinkToRootsPidFileSpeaksForNobody) {
    const std::string lck = dir + "/quendral.lck";
    ASSERT_EQ(symlink(pidFile.c_str(), lck.c_str()), 0);
    giveToNobody(lck);
    giveToNobody(dir);
    expectNothingSignalled();
}

TEST_F(RootsPidFile, ALockFileOutsideNamedByAnotherUsersConfigurationSpeaksForNobody) {
    writeFile(dir + "/quendral.ini", "[database]\nlockfile = " + pidFile + "\n");
    giveToNobody(dir + "/quendral.ini");
    giveToNobody(dir);
    expectNothingSignalled();
}

TEST_F(RootsPidFile, ALockFileOutsideNamedByTheUsersOwnConfigurationSpeaks) {
    // The same file named by root's own configuration is root's choice.
    writeFile(dir + "/quendral.ini", "[database]\nlockfile = " + pidFile + "\n");
    const CtlResult status = ctl("status");
    EXPECT_EQ(status.status, 0) << status.out << status.err;
    EXPECT_EQ(shownStatus(status.out), "running\n");
}

TEST_F(QuendralctlWhoSpeaks, ALockFileTheUserMayNotReadIsUnknownAndNoSecondServerStarts) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, and a second user";
    if (!fs::exists("/usr/bin/setpriv")) GTEST_SKIP() << "needs setpriv";
    const std::string dir = makeInstanceDir(home, "database");
    for (const std::string &p : {home.path(), dir}) ASSERT_EQ(chmod(p.c_str(), 0755), 0);
    ASSERT_EQ(chown(dir.c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(chown((dir + "/quendral.ini").c_str(), kNobody, kNobody), 0);
    // Root, whose files nobody else may read, starts the user's server.
    const CtlResult started = runShell("umask 077; " + ctlLine() + " start --wait 10");
    ASSERT_EQ(started.status, 0) << started.err;
    const auto servers = processesIn(dir);
    ASSERT_EQ(servers.size(), 1u);
    const auto asUser = [&](const std::string &args) {
        return runShell("env " + env + " setpriv --reuid=65534 --regid=65534 --clear-groups " +
                        shellQuote(QUENDRALCTL_PATH) + " " + args);
    };
    const CtlResult status = asUser("status");
    EXPECT_EQ(status.status, 3);
    EXPECT_EQ(shownStatus(status.out), "unknown\n") << status.out;
    EXPECT_NE(status.out.find("quendral.lck: Permission denied"), std::string::npos) << status.out;
    const CtlResult start = asUser("start --wait 5");
    EXPECT_EQ(start.status, 1) << start.out;
    EXPECT_NE(start.err.find("database cannot be started: its status is unknown"),
              std::string::npos)
        << start.err;
    EXPECT_EQ(processesIn(dir), servers) << "a second server on the directory";
    EXPECT_EQ(ctl("stop --wait 10").status, 0);
}

TEST_F(QuendralctlWhoSpeaks, AFullHomeRecordsTheStartElsewhereAndNoSecondServerStarts) {
    if (!canUnshareMounts()) GTEST_SKIP() << "needs root and mount namespaces";
    const std::string dir = makeInstanceDir(home, "database");
    const std::string h = shellQuote(rootHome());
    const std::string slow = "QUENDRAL_DEMO_START_DELAY_MS=2000";
    const CtlResult r = inOwnMounts(
        "over " + h + " rw size=256k,mode=0700; mkdir -p " + h + "/.local/state; chmod -R 0700 " +
        h + "/.local; dd if=/dev/zero of=" + h + "/fill bs=4k 2>/dev/null || true; " +
        ctlLine(slow) + " start; " + ctlLine() + " status | head -n 1; " + ctlLine(slow) +
        " start; " + ctlLine() + " start --wait 10");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "database starting\ndatabase starting\ndatabase already starting\n"
                     "database started\n")
        << r.err;
    EXPECT_EQ(processesIn(dir).size(), 1u) << "a second server on the directory";
}

TEST_F(QuendralctlWhoSpeaks, AReadOnlyHomeRecordsTheStartElsewhereAndStartsGoAhead) {
    if (!canUnshareMounts()) GTEST_SKIP() << "needs root and mount namespaces";
    const std::string dir = makeInstanceDir(home, "database");
    const std::string h = shellQuote(rootHome());
    const std::string slow = "QUENDRAL_DEMO_START_DELAY_MS=2000";
    // The records' directory exists, and the home became read-only.
    const CtlResult r = inOwnMounts("over " + h + " rw mode=0700; mkdir -p " + h +
                                    "/.local/state/quendral-monitor; chmod -R 0700 " + h +
                                    "/.local; mount -o remount,ro " + h + "; " + ctlLine(slow) +
                                    " start; " + ctlLine(slow) + " start --wait 10");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "database starting\ndatabase started\n") << r.err;
    EXPECT_EQ(processesIn(dir).size(), 1u) << "a second server on the directory";
}

TEST_F(QuendralctlWhoSpeaks, NoPlaceForARecordFailsTheStartAndLaunchesNothing) {
    if (!canUnshareMounts()) GTEST_SKIP() << "needs root and mount namespaces";
    const std::string dir = makeInstanceDir(home, "database");
    const std::string h = shellQuote(rootHome());
    const std::string tmpPlace = "/tmp/quendral-monitor-0";
    // Every place read-only: the home, the runtime directory where there is
    // one, and the directory under /tmp.
    const CtlResult r =
        inOwnMounts("over " + h + " ro mode=0700" +
                    "; if [ -d /run/user/0 ]; then over /run/user/0 ro mode=0700; fi; "
                    "mkdir -p " +
                    tmpPlace + "; over " + tmpPlace + " ro mode=0700; " + ctlLine() +
                    " start --wait 5 || echo failed=$?");
    EXPECT_EQ(r.out, "failed=1\n") << r.err;
    EXPECT_NE(r.err.find("database cannot be started: no place to record the start: "),
              std::string::npos)
        << r.err;
    usleep(300 * 1000);
    EXPECT_TRUE(processesIn(dir).empty()) << "a server that no other front end would see";
}

TEST_F(QuendralctlWhoSpeaks, StatusNamesAWorkerLeftListeningAfterTheServerStopped) {
    // A server that serves from a forked worker and does not pass SIGTERM
    // on: the stop ends the server, and the worker goes on listening.
    const std::string dir = makeInstanceDir(home, "database");
    const int port = freeLoopbackPort();
    ASSERT_GT(port, 0);
    const std::string worker = "QUENDRAL_DEMO_FORK=1 QUENDRAL_DEMO_LOCK_PARENT=1 "
                               "QUENDRAL_DEMO_HTTP_PORT=" +
                               std::to_string(port);
    ASSERT_EQ(ctl("start --wait 10 --ready", worker).status, 0);
    const CtlResult stop = ctl("stop --wait 10");
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(stop.out, "database stopped\n");
    const auto left = processesIn(dir);
    ASSERT_EQ(left.size(), 1u);
    const CtlResult status = ctl("status");
    EXPECT_EQ(shownStatus(status.out), "stopped\n");
    EXPECT_NE(status.out.find("  Left behind: " + std::to_string(left[0]) + " " + home.path() +
                              "/bin/quendral, listening on tcp 127.0.0.1:" + std::to_string(port) +
                              "\n"),
              std::string::npos)
        << status.out;
}

} // namespace
