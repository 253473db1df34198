// The open menu left open for minutes over 200 instances (offscreen): its
// refresh timer runs throughout, resident memory stays flat and no
// descriptor is left open. SOAK_SECONDS sets the length (default 180).
#include "UiTestUtil.h"

#include <QElapsedTimer>
#include <QMenu>
#include <QTimer>
#include <gtest/gtest.h>

#include <dirent.h>
#include <fstream>

using namespace testsupport;

namespace {

long residentKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

class Soak : public ::testing::Test, public TrayFixture {};

TEST_F(Soak, OpenMenuRefreshesTwoHundredInstancesWithFlatMemory) {
    const char *env = std::getenv("SOAK_SECONDS");
    const int seconds = env ? std::max(30, std::atoi(env)) : 180;
    // A quarter of the instances run (a sleeping process named in the lock
    // file), so each refresh probes processes as well as reading files.
    std::vector<std::unique_ptr<ChildProcess>> servers;
    for (int i = 0; i < 200; i++) {
        const std::string dir =
            addInstance("inst" + std::to_string(1000 + i), "[database]\nerrorlogfile = log\n");
        if (i % 4 == 0) {
            servers.push_back(std::make_unique<ChildProcess>());
            writeLockFile(dir + "/quendral.lck", servers.back()->pid());
        }
    }
    launch();
    openMenu();
    ASSERT_EQ(menu()->actions().size(), 207);
    int ticks = 0;
    QObject::connect(app->menuUpdateTimer(), &QTimer::timeout, menu(), [&] { ticks++; });

    // The first samples are taken once the heap has settled.
    spinFor(20000);
    const long rssStart = residentKb();
    const int fdsStart = openDescriptors();
    long rssMax = rssStart;
    int fdsMax = fdsStart;
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < (seconds - 20) * 1000LL) {
        spinFor(5000);
        rssMax = std::max(rssMax, residentKb());
        ASSERT_TRUE(menu()->isVisible());
        // Qt's idle pool threads may end and close theirs; none may be added.
        const int fds = openDescriptors();
        fdsMax = std::max(fdsMax, fds);
        ASSERT_LE(fds, fdsStart) << "after " << t.elapsed() / 1000 << " s";
    }
    const long rssEnd = residentKb();
    std::printf("soak %d s: %d refreshes of 200 items; resident %ld kB after 20 s, %ld kB at "
                "the end (max %ld kB); descriptors %d after 20 s, at most %d later\n",
                seconds, ticks, rssStart, rssEnd, rssMax, fdsStart, fdsMax);
    EXPECT_GE(ticks, (seconds - 5) * 2 * 9 / 10) << "the timer must keep firing";
    EXPECT_LE(rssMax - rssStart, 2048) << "resident memory grew";
    EXPECT_EQ(menuTexts(menu()).at(0), "Stop Instance 'inst1000'");
}

} // namespace
