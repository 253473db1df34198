// quendralctl enable and disable where no service manager answers: an XDG
// autostart entry of the instance's own, which a session's autostart (dex,
// as a desktop runs it at login) turns into a real start. The monitor's own
// login item is another entry, and stays as it is.
#include "CtlRunner.h"
#include "LoginItems.h"
#include "ServerAtLogin.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class QuendralctlAtLogin : public ::testing::Test {
  protected:
    TempDir root;
    std::string home = root / "home";
    std::string config = root / "config";
    std::string env;
    void SetUp() override {
        fs::create_directories(home + "/bin");
        fs::create_directories(config);
        fs::copy_file(demoServerPath(), home + "/bin/quendral");
        makeInstanceDir(root, "home/database");
        makeInstanceDir(root, "home/sales");
        env = "QUENDRAL_HOME=" + shellQuote(home) + " XDG_CONFIG_HOME=" + shellQuote(config) +
              " DBUS_SESSION_BUS_ADDRESS=unix:path=" + shellQuote(root / "no-bus") +
              " QUENDRAL_DEMO_HTTP_PORT=0";
    }
    void TearDown() override { ctl("stop --all --wait 10"); }
    CtlResult ctl(const std::string &args) {
        CtlResult r = runCtl(args, env);
        r.err = withoutUnitNotices(r.err);
        return r;
    }
    std::string entryOf(const std::string &name) const {
        return config + "/autostart/quendral-server-" +
               quendral::escapeUnitPath(home + "/" + name) + ".desktop";
    }
    // Runs the entry as a session's autostart would, and waits for it.
    void runAsASessionWould(const std::string &entry) {
        const CtlResult r = runShell("env " + env + " dex " + shellQuote(entry) + " >/dev/null");
        ASSERT_EQ(r.status, 0) << r.err;
    }
    bool runningWithin10s(const std::string &name) {
        return waitFor([&] { return ctl("status " + shellQuote(name)).status == 0; });
    }
};

TEST_F(QuendralctlAtLogin, EnableWritesAnAutostartEntryThatStartsTheServer) {
    // The monitor's own login item, as the tray writes it.
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", config);
        quendral::setStartAtLogin(quendral::fileUrl("/usr/bin/quendral-monitor-test"), true);
    }
    const auto monitorItems = [&] {
        std::vector<std::string> files;
        for (const auto &e : fs::directory_iterator(config + "/autostart"))
            if (!e.path().filename().string().starts_with("quendral-server-"))
                files.push_back(e.path().string() + "=" + readFile(e.path()));
        return files;
    };
    const auto before = monitorItems();
    ASSERT_EQ(before.size(), 1u);

    const CtlResult r = ctl("enable sales");
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string entry = entryOf("sales");
    EXPECT_EQ(r.out, "sales starts at login (autostart entry " + entry + ")\n");
    ASSERT_TRUE(fs::exists(entry));
    EXPECT_NE(readFile(entry).find("\nExec=\"" + std::string(QUENDRALCTL_PATH) +
                                   "\" \"--home\" \"" + home + "\" \"start\" \"" + home +
                                   "/sales\" \"--wait\" \"120\"\n"),
              std::string::npos)
        << readFile(entry);
    EXPECT_EQ(ctl("list").out, "* database  stopped         -  -      " + home + "/database\n" +
                                   " +sales     stopped         -  -      " + home + "/sales\n");
    EXPECT_NE(ctl("status sales").out.find("\n      Enabled: at login\n"), std::string::npos);
    EXPECT_NE(ctl("status sales --json").out.find("\"enabledAtLogin\": true"), std::string::npos);
    EXPECT_NE(ctl("status database --json").out.find("\"enabledAtLogin\": false"),
              std::string::npos);

    runAsASessionWould(entry);
    EXPECT_TRUE(runningWithin10s("sales"));
    EXPECT_EQ(ctl("status database").status, 3) << "only what was enabled starts";

    const CtlResult off = ctl("disable sales");
    EXPECT_EQ(off.status, 0) << off.err;
    EXPECT_EQ(off.out, "sales does not start at login\n");
    EXPECT_FALSE(fs::exists(entry));
    EXPECT_EQ(monitorItems(), before) << "the monitor's own login item is not touched";
}

TEST_F(QuendralctlAtLogin, AnEntryCarriesADirectoryNameWithSpacesAndApostrophes) {
    const std::string name = "it's my db";
    makeInstanceDir(root, "home/" + name);
    ASSERT_EQ(ctl("enable " + shellQuote(name)).status, 0);
    ASSERT_TRUE(fs::exists(entryOf(name)));
    runAsASessionWould(entryOf(name));
    EXPECT_TRUE(runningWithin10s(name));
}

TEST_F(QuendralctlAtLogin, ANameThatSessionsWouldReadDifferentlyIsRefusedPlainly) {
    // Sessions disagree on quotes, dollars and percent signs inside an
    // entry's quoted arguments: rather no entry than one that starts
    // something else.
    // An entry must be UTF-8: a name that is not cannot be written in one;
    // a newline would begin a line of its own.
    for (const std::string name :
         {"say \"q\"", "cost$", "100%", "bad\xff", "x\nExec=touch PWNED"}) {
        makeInstanceDir(root, "home/" + name);
        const CtlResult r = ctl("enable " + shellQuote(name));
        EXPECT_EQ(r.status, 1) << name;
        EXPECT_NE(r.err.find("cannot be made to start at login: an autostart entry cannot carry"),
                  std::string::npos)
            << r.err;
        EXPECT_FALSE(fs::exists(entryOf(name))) << name;
    }
}

TEST_F(QuendralctlAtLogin, AnEntryOfTheUsersOwnIsNeitherReplacedNorRemoved) {
    const std::string entry = entryOf("sales");
    fs::create_directories(config + "/autostart");
    writeFile(entry, "[Desktop Entry]\nType=Application\nName=Mine\nExec=true\n");
    const CtlResult enable = ctl("enable sales");
    EXPECT_EQ(enable.status, 1);
    EXPECT_NE(enable.err.find("is not one quendralctl wrote; it is left as it is"),
              std::string::npos)
        << enable.err;
    EXPECT_EQ(readFile(entry), "[Desktop Entry]\nType=Application\nName=Mine\nExec=true\n");
    const CtlResult disable = ctl("disable sales");
    EXPECT_EQ(disable.status, 1);
    EXPECT_TRUE(fs::exists(entry));
}

TEST_F(QuendralctlAtLogin, AllEnablesEveryInstanceAndDisableTakesTheDirectoryOfOneThatIsGone) {
    ASSERT_EQ(ctl("enable --all").status, 0);
    EXPECT_TRUE(fs::exists(entryOf("database")));
    EXPECT_TRUE(fs::exists(entryOf("sales")));
    fs::remove_all(home + "/sales");
    const CtlResult r = ctl("disable " + shellQuote(home + "/sales"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_FALSE(fs::exists(entryOf("sales")));
    EXPECT_TRUE(fs::exists(entryOf("database")));
    EXPECT_EQ(ctl("enable nosuch").status, 4);
}

} // namespace
