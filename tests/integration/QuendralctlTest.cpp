// quendralctl as a whole process, in temporary installations.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

using namespace testsupport;

namespace {

using Result = CtlResult;

Result ctl(const std::string &args, const std::string &env = "") {
    return runCtl(args, env);
}

class Quendralctl : public ::testing::Test {
  protected:
    TempDir home;
    std::string env;
    void SetUp() override {
        std::filesystem::create_directories(home / "bin");
        std::filesystem::copy_file(demoServerPath(), home / "bin/quendral");
        makeInstanceDir(home, "database");
        makeInstanceDir(home, "sales");
        std::filesystem::create_directories(home / "notaninstance");
        env = "QUENDRAL_HOME='" + home.path() + "' QUENDRAL_DEMO_HTTP_PORT=0";
    }
    void TearDown() override { ctl("stop --wait 5", env); }
};

TEST_F(Quendralctl, ListShowsEveryInstanceSortedWithStatusAndPid) {
    const Result r = ctl("list", env);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "* database  stopped         -  -      " + home.path() + "/database\n" +
                         "  sales     stopped         -  -      " + home.path() + "/sales\n");
}

TEST_F(Quendralctl, JsonListParsesAndNamesTheDefault) {
    const Result r = ctl("list --json", env);
    ASSERT_EQ(r.status, 0);
    const auto j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["default"], home.path() + "/database");
    ASSERT_EQ(j["instances"].size(), 2u);
    EXPECT_EQ(j["instances"][0]["name"], "Default Instance");
    EXPECT_EQ(j["instances"][1]["name"], "Instance 'sales'");
    EXPECT_EQ(j["instances"][1]["serverStatus"], "stopped");
    EXPECT_EQ(j["instances"][1]["pid"], 0);
    EXPECT_TRUE(j["instances"][1]["logFile"].is_null());
}

TEST_F(Quendralctl, StartAndStopWithWaitDriveTheRealServer) {
    EXPECT_EQ(ctl("status", env).status, 3);
    EXPECT_EQ(ctl("start --wait 10", env).status, 0);
    EXPECT_TRUE(std::filesystem::exists(home / "database/quendral.lck"));
    const Result status = ctl("status database", env);
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(shownStatus(status.out), "running\n");
    EXPECT_EQ(ctl("start", env).status, 0) << "a running instance is as a start would have it";
    EXPECT_EQ(ctl("stop --wait 10", env).status, 0);
    EXPECT_FALSE(std::filesystem::exists(home / "database/quendral.lck"));
    EXPECT_EQ(ctl("stop", env).status, 0) << "a stopped instance is as a stop would have it";
}

TEST_F(Quendralctl, InstanceCanBeNamedByDirectory) {
    EXPECT_EQ(ctl("start '" + home.path() + "/sales' --wait 10", env).status, 0);
    EXPECT_EQ(ctl("status sales", env).status, 0);
    EXPECT_EQ(ctl("stop sales --wait 10", env).status, 0);
}

TEST_F(Quendralctl, UnknownInstanceIsExitFour) {
    const Result r = ctl("status nosuch", env);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "quendralctl: no such instance: nosuch\n");
}

TEST_F(Quendralctl, MissingInstallationIsExitFour) {
    const Result r = ctl("list", "QUENDRAL_HOME=/nonexistent/quendral");
    EXPECT_EQ(r.status, 4);
    EXPECT_NE(r.err.find("quendralctl: no Quendral installation found\n"), std::string::npos);
}

TEST_F(Quendralctl, BadUsageIsExitTwo) {
    EXPECT_EQ(ctl("", env).status, 2);
    const Result bogus = ctl("list --bogus", env);
    EXPECT_EQ(bogus.status, 2);
    EXPECT_EQ(std::count(bogus.err.begin(), bogus.err.end(), '\n'), 1) << bogus.err;
    EXPECT_EQ(bogus.err.rfind("quendralctl: ", 0), 0u) << bogus.err;
    EXPECT_EQ(ctl("start --wait -1", env).status, 2);
    EXPECT_EQ(ctl("start --wait nan", env).status, 2);
    EXPECT_EQ(ctl("start --wait soon", env).status, 2);
}

TEST_F(Quendralctl, EnvPrintsWhatAServerInherits) {
    const Result r = ctl("env", "env -u ODBCINI PATH=/usr/bin:/bin " + env);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("QUENDRAL_HOME=" + home.path() + "\n"), std::string::npos);
    EXPECT_NE(r.out.find("PATH=" + home.path() + "/bin:/usr/bin:/bin\n"), std::string::npos);
    EXPECT_EQ(r.out.find("ODBCINI="), std::string::npos);
}

TEST_F(Quendralctl, HomeOptionSetsTheInstallation) {
    const Result r = ctl("--home '" + home.path() + "' list", "QUENDRAL_DEMO_HTTP_PORT=0");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(home.path() + "/sales"), std::string::npos);
}

} // namespace
