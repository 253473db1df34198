// How quendralctl finds the instance named on its command line: by display
// name, or by its directory however the path is written.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class QuendralctlNaming : public ::testing::Test {
  protected:
    TempDir root;
    std::string home;
    std::string env;
    void SetUp() override {
        home = root / "q";
        fs::create_directories(home + "/bin");
        fs::copy_file(demoServerPath(), home + "/bin/quendral");
        env = "QUENDRAL_HOME=" + shellQuote(home) + " QUENDRAL_DEMO_HTTP_PORT=0";
    }
    void TearDown() override { runCtl("stop --all --wait 10", env); }
    // quendralctl run from the directory `cwd`.
    CtlResult ctlIn(const std::string &cwd, const std::string &args) {
        return runShell("cd " + shellQuote(cwd) + " && env " + env + " " +
                        shellQuote(QUENDRALCTL_PATH) + " " + args);
    }
    // The directory of the instance that `status --json NAMED` reports, run
    // from `cwd`; "" when it found none.
    std::string directoryFound(const std::string &cwd, const std::string &named) {
        const CtlResult r = ctlIn(cwd, "status --json " + shellQuote(named));
        if (r.status != 0 && r.status != 3) return "";
        return nlohmann::json::parse(r.out).at("directory");
    }
};

TEST_F(QuendralctlNaming, AnInstanceIsFoundByItsDirectoryHoweverThePathIsWritten) {
    makeInstanceDir(root, "q/database");
    const std::string other = makeInstanceDir(root, "q/sales");
    fs::create_directory_symlink(other, root / "link");
    // A link inside the installation is an instance of its own name, for the
    // same directory: a path through another link (root/link) that leads
    // there means the instance whose path has no link in it.
    fs::create_directory_symlink(other, home + "/alias");

    const std::vector<std::string> paths = {
        "sales/",         "./sales",           "./sales/",
        home + "//sales", home + "/./sales//", home + "/../q/sales",
        root / "link",    root / "link/"};
    for (const std::string &path : paths) EXPECT_EQ(directoryFound(home, path), other) << path;
    // Relative to where the command runs.
    EXPECT_EQ(directoryFound(other, "."), other);
    EXPECT_EQ(directoryFound(root.path(), "q/sales/"), other);
    EXPECT_EQ(directoryFound(root.path(), "link"), other);
    // By its display name or its path as written, the link in the
    // installation is its own instance.
    EXPECT_EQ(directoryFound(root.path(), "alias"), home + "/alias");
    EXPECT_EQ(directoryFound(home, "./alias/"), home + "/alias");
    EXPECT_EQ(directoryFound(root.path(), home + "//alias"), home + "/alias");

    // The verbs act on what they find.
    EXPECT_EQ(ctlIn(home, "start ./sales/ --wait 10").status, 0);
    EXPECT_EQ(ctlIn(root.path(), "status sales").status, 0);
    const CtlResult stop = ctlIn(root.path(), "stop link/ --wait 10");
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(stop.out, "sales stopped\n");

    // A directory that is no instance, and one that does not exist, are no
    // such instance.
    for (const std::string &path : {std::string("."), std::string("./bin"), root / "nosuch/"}) {
        const CtlResult r = ctlIn(home, "status " + shellQuote(path));
        EXPECT_EQ(r.status, 4) << path;
        EXPECT_EQ(r.err, "quendralctl: no such instance: " + path + "\n");
    }
}

TEST_F(QuendralctlNaming, ADisplayNameTwoInstancesShareIsAnErrorThatListsTheirDirectories) {
    // The installation is an instance itself, and holds one of its own name.
    const std::string outer = root / "sales";
    fs::rename(home, outer);
    env = "QUENDRAL_HOME=" + shellQuote(outer) + " QUENDRAL_DEMO_HTTP_PORT=0";
    writeFile(outer + "/quendral.ini", "[database]\n");
    const std::string inner = makeInstanceDir(root, "sales/sales");

    for (const char *verb : {"status", "start", "log"}) {
        const CtlResult r = ctlIn(root.path(), std::string(verb) + " sales");
        EXPECT_EQ(r.status, 4) << verb;
        EXPECT_EQ(r.err, "quendralctl: sales names more than one instance (" + outer + ", " +
                             inner + "); name one by its directory\n")
            << verb;
    }
    EXPECT_TRUE(processesIn(root.path()).empty()) << "nothing was started";
    // Each can be named by its directory.
    EXPECT_EQ(directoryFound(root.path(), "sales"), "");
    EXPECT_EQ(directoryFound(root.path(), "sales/"), outer);
    EXPECT_EQ(directoryFound(root.path(), "sales/sales"), inner);
    EXPECT_EQ(directoryFound(outer, "./sales"), inner);
}

} // namespace
