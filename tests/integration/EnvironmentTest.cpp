// Environment preparation in this process: what it changes, and that it
// changes nothing when no installation is found.
#include "Environment.h"
#include "ModelTestUtil.h"
#include "QuendralManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

extern char **environ;

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

std::set<std::string> environment() {
    std::set<std::string> vars;
    for (char **e = environ; *e; e++) vars.insert(*e);
    return vars;
}

// Puts the process environment back as it was, whatever a test set.
class Environment : public ::testing::Test {
  protected:
    const std::set<std::string> saved = environment();
    TempDir root;
    QuendralManager manager;
    LogCapture log;

    void TearDown() override {
        clearenv();
        for (const std::string &entry : saved) {
            const size_t eq = entry.find('=');
            setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
        }
    }
};

TEST_F(Environment, NothingFoundChangesNoVariableAndAddsNoSearchPath) {
    setenv("QUENDRAL_HOME", (root / "missing").c_str(), 1);
    setenv("PATH", "/usr/bin:/bin", 1);
    const std::set<std::string> before = environment();
    EXPECT_EQ(quendral::setupGlobalEnvironment(manager, root / "bundle"), "");
    EXPECT_EQ(environment(), before);
    EXPECT_TRUE(manager.searchPaths().empty());
    EXPECT_EQ(log.lines, std::vector<std::string>{"Quendral installation not found"});
}

TEST_F(Environment, FoundHomeBecomesTheManagersOnlySearchPath) {
    fs::create_directories(root / "real/bin");
    fs::create_directory_symlink(root / "real", root / "link");
    setenv("QUENDRAL_HOME", (root / "link").c_str(), 1);
    EXPECT_EQ(quendral::setupGlobalEnvironment(manager, root / "bundle"), root / "real");
    EXPECT_EQ(manager.searchPaths(), std::vector<std::string>{root / "real"});
    EXPECT_STREQ(getenv("QUENDRAL_HOME"), (root / "real").c_str());
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(Environment, BundleFallbackIsNotResolved) {
    fs::create_directories(root / "elsewhere");
    fs::create_directories(root / "bundle/Contents");
    fs::create_directory_symlink(root / "elsewhere", root / "bundle/Contents/quendral");
    unsetenv("QUENDRAL_HOME");
    EXPECT_EQ(quendral::setupGlobalEnvironment(manager, root / "bundle"),
              root / "bundle/Contents/quendral");
    EXPECT_STREQ(getenv("QUENDRAL_HOME"), (root / "bundle/Contents/quendral").c_str());
}

TEST_F(Environment, BinAndLibGoToTheServersOnlyAndThisProgramKeepsTheUsersPath) {
    // The tray runs xdg-open and the like from its own PATH: a program of
    // the installation's must never stand in for them.
    fs::create_directories(root / "q/bin");
    fs::create_directories(root / "q/lib");
    setenv("QUENDRAL_HOME", (root / "q").c_str(), 1);
    setenv("PATH", "/usr/bin:/bin", 1);
    unsetenv("LD_LIBRARY_PATH");
    ASSERT_EQ(quendral::setupGlobalEnvironment(manager, root / "bundle"), root / "q");
    EXPECT_STREQ(getenv("PATH"), "/usr/bin:/bin");
    EXPECT_EQ(getenv("LD_LIBRARY_PATH"), nullptr);
    EXPECT_EQ(quendral::serverVariable("PATH"), (root / "q/bin") + ":/usr/bin:/bin");
    EXPECT_EQ(quendral::serverVariable("LD_LIBRARY_PATH"), (root / "q/lib"));
    const auto env = quendral::serverEnvironment();
    EXPECT_EQ(std::count(env.begin(), env.end(), "PATH=" + (root / "q/bin") + ":/usr/bin:/bin"), 1);
    EXPECT_EQ(std::count_if(env.begin(), env.end(),
                            [](const std::string &e) { return e.rfind("PATH=", 0) == 0; }),
              1);
}

TEST_F(Environment, BinAndLibThatAnotherUserCouldFillStayOutOfTheServersSearchLists) {
    fs::create_directories(root / "q/bin");
    fs::create_directories(root / "q/lib");
    // Open to others: anyone may put a program or a library there.
    fs::permissions(root / "q/bin", fs::perms::all);
    fs::permissions(root / "q/lib", fs::perms::all);
    setenv("QUENDRAL_HOME", (root / "q").c_str(), 1);
    setenv("PATH", "/usr/bin:/bin", 1);
    unsetenv("LD_LIBRARY_PATH");
    ASSERT_EQ(quendral::setupGlobalEnvironment(manager, root / "bundle"), root / "q");
    EXPECT_EQ(quendral::serverVariable("PATH"), "/usr/bin:/bin");
    EXPECT_EQ(quendral::serverVariable("LD_LIBRARY_PATH"), std::nullopt);
    EXPECT_EQ(log.lines,
              (std::vector<std::string>{
                  (root / "q/bin") + " is not put in PATH: it is writable by group or others",
                  (root / "q/lib") +
                      " is not put in LD_LIBRARY_PATH: it is writable by group or others"}));
}

} // namespace
