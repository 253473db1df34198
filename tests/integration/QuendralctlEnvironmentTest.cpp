// How quendralctl finds the installation and prepares the environment that
// every server it starts inherits, seen through "env" and in a real server.
#include "CtlRunner.h"
#include "ModelTestUtil.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

// "KEY=VALUE" lines of "quendralctl env" or of a server's report, as a map.
std::map<std::string, std::string> parseEnv(const std::string &text) {
    std::map<std::string, std::string> vars;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        if (const size_t eq = line.find('='); eq != std::string::npos)
            vars[line.substr(0, eq)] = line.substr(eq + 1);
        start = end + 1;
    }
    return vars;
}

size_t countLines(const std::string &text, const std::string &suffix) {
    size_t n = 0, start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        if (line.size() >= suffix.size() &&
            line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0)
            n++;
        start = end + 1;
    }
    return n;
}

class QuendralctlEnvironment : public ::testing::Test {
  protected:
    TempDir root;

    // An installation at root/name with the demo server as bin/quendral and
    // one default instance.
    std::string makeHome(const std::string &name) {
        const std::string home = root / name;
        fs::create_directories(home + "/bin");
        fs::create_directories(home + "/lib");
        fs::copy_file(demoServerPath(), home + "/bin/quendral");
        fs::create_directories(home + "/database");
        writeFile(home + "/database/quendral.ini", "[database]\n");
        return home;
    }

    // A copy of quendralctl in bundle/bin, so its bundle path is bundle.
    std::string bundledCtl(const std::string &bundle) {
        fs::create_directories(bundle + "/bin");
        fs::copy_file(QUENDRALCTL_PATH, bundle + "/bin/quendralctl");
        return bundle + "/bin/quendralctl";
    }

    std::map<std::string, std::string> envOf(const std::string &env,
                                             const std::string &binary = QUENDRALCTL_PATH) {
        const CtlResult r = runCtl("env", env, binary);
        EXPECT_EQ(r.status, 0) << r.err;
        return parseEnv(r.out);
    }
};

// A known starting environment: no installation variables, a plain PATH.
const std::string kClean =
    "env -u ODBCINI -u ODBCINSTINI -u LD_LIBRARY_PATH -u QUENDRAL_HOME PATH=/usr/bin:/bin ";

TEST_F(QuendralctlEnvironment, SymlinkedHomeIsRewrittenToItsTarget) {
    const std::string target = makeHome("real");
    fs::create_directory_symlink(target, root / "link");
    const auto vars = envOf(kClean + "QUENDRAL_HOME=" + shellQuote(root / "link"));
    EXPECT_EQ(vars.at("QUENDRAL_HOME"), target);
    EXPECT_EQ(vars.at("PATH"), target + "/bin:/usr/bin:/bin");
    EXPECT_EQ(vars.at("LD_LIBRARY_PATH"), target + "/lib");

    // The manager searches the target, so instances are listed under it.
    const CtlResult list = runCtl("list", kClean + "QUENDRAL_HOME=" + shellQuote(root / "link"));
    EXPECT_NE(list.out.find(target + "/database\n"), std::string::npos) << list.out;
}

TEST_F(QuendralctlEnvironment, HomeThatIsAFileFallsBackToTheBundleSilently) {
    writeFile(root / "file", "not a directory\n");
    const std::string bundle = root / "bundle";
    const std::string ctl = bundledCtl(bundle);
    fs::create_directories(bundle + "/Contents");
    fs::copy(makeHome("staging"), bundle + "/Contents/quendral", fs::copy_options::recursive);

    const CtlResult r = runCtl("env", kClean + "QUENDRAL_HOME=" + shellQuote(root / "file"), ctl);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(parseEnv(r.out).at("QUENDRAL_HOME"), bundle + "/Contents/quendral");
    const CtlResult list =
        runCtl("list", kClean + "QUENDRAL_HOME=" + shellQuote(root / "file"), ctl);
    EXPECT_NE(list.out.find(bundle + "/Contents/quendral/database\n"), std::string::npos);
}

TEST_F(QuendralctlEnvironment, MissingOrUnsetHomeFallsBackToTheBundle) {
    const std::string bundle = root / "bundle";
    const std::string ctl = bundledCtl(bundle);
    fs::create_directories(bundle + "/Contents/quendral/bin");
    for (const std::string &home : {"QUENDRAL_HOME=" + shellQuote(root / "missing"),
                                    std::string("QUENDRAL_HOME="), std::string()}) {
        const CtlResult r = runCtl("env", kClean + home, ctl);
        EXPECT_EQ(r.status, 0) << home;
        EXPECT_EQ(r.err, "") << home;
        const auto vars = parseEnv(r.out);
        EXPECT_EQ(vars.at("QUENDRAL_HOME"), bundle + "/Contents/quendral") << home;
        EXPECT_EQ(vars.at("PATH"), bundle + "/Contents/quendral/bin:/usr/bin:/bin") << home;
    }
}

TEST_F(QuendralctlEnvironment, HomeOptionThatNamesNoDirectoryNeverFallsBackToTheBundle) {
    const std::string bundle = root / "bundle";
    const std::string ctl = bundledCtl(bundle);
    fs::create_directories(bundle + "/Contents");
    fs::copy(makeHome("staging"), bundle + "/Contents/quendral", fs::copy_options::recursive);
    const std::string env = kClean + "QUENDRAL_DEMO_HTTP_PORT=0";
    // The bundled installation's server runs; a typo in --home must not reach it.
    ASSERT_EQ(runCtl("start --wait 10", env, ctl).status, 0);
    writeFile(root / "file", "not a directory\n");

    const std::string typo = root / "tpyo";
    for (const std::string &args :
         {"--home " + shellQuote(typo) + " stop --all --wait 10",
          "--home " + shellQuote(typo) + " list", "--home=" + shellQuote(typo) + " env"}) {
        const CtlResult r = runCtl(args, env, ctl);
        EXPECT_EQ(r.status, 4) << args;
        EXPECT_EQ(r.out, "") << args;
        EXPECT_EQ(r.err, "quendralctl: --home " + typo + ": No such file or directory\n") << args;
    }
    CtlResult r = runCtl("--home " + shellQuote(root / "file") + " list", env, ctl);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "quendralctl: --home " + root / "file" + ": not a directory\n");
    r = runCtl("--home '' list", env, ctl);
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "quendralctl: --home '': an empty path names no directory\n");

    EXPECT_EQ(runCtl("status", env, ctl).status, 0) << "the bundled server still runs";
    EXPECT_EQ(runCtl("stop --wait 10", env, ctl).status, 0);
}

TEST_F(QuendralctlEnvironment, InstallationThatCannotBeReadIsAnErrorForEveryVerbThatLists) {
    // Run as "nobody" when the suite runs as root (for whom permission bits
    // do not stop a read), else as the owner, whose bits below deny it too.
    fs::permissions(root.path(), fs::perms::owner_all | fs::perms::group_read |
                                     fs::perms::group_exec | fs::perms::others_read |
                                     fs::perms::others_exec);
    const std::string home = makeHome("closed");
    writeFile(home + "/database/quendral.log", "a line\n");
    const std::vector<std::string> verbs = {
        "list",        "list --json", "list --names",  "status",         "status database",
        "start --all", "stop --all",  "restart --all", "start database", "log"};
    // 0301: may be searched, not listed; 0604: may be listed, its entries not
    // looked at.
    for (const mode_t mode : {0301, 0604}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(chmod(home.c_str(), mode), 0);
        const int rc = runUnprivileged([&] {
            if (access(QUENDRALCTL_PATH, X_OK) != 0) return 99;
            for (size_t v = 0; v < verbs.size(); v++) {
                const CtlResult r = runCtl(verbs[v], kClean + "QUENDRAL_HOME=" + shellQuote(home));
                if (r.status != 4 || !r.out.empty() ||
                    r.err != "quendralctl: cannot read the installation " + home +
                                 ": Permission denied\n")
                    return 10 + static_cast<int>(v);
            }
            // What needs no listing still works.
            return runCtl("env", kClean + "QUENDRAL_HOME=" + shellQuote(home)).status == 0 ? 0 : 9;
        });
        ASSERT_EQ(chmod(home.c_str(), 0755), 0);
        if (rc == 99 || rc == 120)
            GTEST_SKIP() << "quendralctl cannot be run as an ordinary user here (" << rc << ")";
        EXPECT_EQ(rc, 0) << (rc >= 10 && rc < 10 + static_cast<int>(verbs.size())
                                 ? "quendralctl " + verbs[rc - 10] + " did not fail as it should"
                                 : "check " + std::to_string(rc));
    }
}

TEST_F(QuendralctlEnvironment, NoHomeAndNoBundleLogsExactlyOneLineAndFails) {
    const std::string ctl = bundledCtl(root / "bare");
    for (const std::string &home :
         {"QUENDRAL_HOME=" + shellQuote(root / "missing"), std::string()}) {
        const CtlResult r = runCtl("list", kClean + home, ctl);
        EXPECT_EQ(r.status, 4) << home;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(countLines(r.err, "Quendral installation not found"), 1u) << r.err;
        EXPECT_EQ(countLines(r.err, "quendralctl: no Quendral installation found"), 1u) << r.err;
    }
}

TEST_F(QuendralctlEnvironment, UnsetPathBecomesExactlyTheBinDirectory) {
    const std::string home = makeHome("q");
    const auto vars = envOf("env -u PATH QUENDRAL_HOME=" + shellQuote(home));
    EXPECT_EQ(vars.at("PATH"), home + "/bin");
}

TEST_F(QuendralctlEnvironment, EmptyPathBecomesTheBinDirectoryAlone) {
    // "bin:" would end in an empty entry: the current directory, which for a
    // server is its instance directory.
    const std::string home = makeHome("q");
    const auto vars = envOf("env PATH= LD_LIBRARY_PATH= QUENDRAL_HOME=" + shellQuote(home));
    EXPECT_EQ(vars.at("PATH"), home + "/bin");
    EXPECT_EQ(vars.at("LD_LIBRARY_PATH"), home + "/lib");
}

TEST_F(QuendralctlEnvironment, PreparedSearchListsGainNoEmptyEntry) {
    const std::string home = makeHome("q");
    const auto vars = envOf("env PATH=:/usr/bin::/bin: LD_LIBRARY_PATH=/opt/l:: QUENDRAL_HOME=" +
                            shellQuote(home));
    EXPECT_EQ(vars.at("PATH"), home + "/bin:/usr/bin:/bin");
    EXPECT_EQ(vars.at("LD_LIBRARY_PATH"), home + "/lib:/opt/l");
}

TEST_F(QuendralctlEnvironment, BinIsPrependedEvenWhenAlreadyOnThePath) {
    const std::string home = makeHome("q");
    const auto vars =
        envOf("env PATH=" + shellQuote(home + "/bin:/bin") + " QUENDRAL_HOME=" + shellQuote(home));
    EXPECT_EQ(vars.at("PATH"), home + "/bin:" + home + "/bin:/bin");
}

TEST_F(QuendralctlEnvironment, OdbcFilesAreSetOnlyWhenUnsetAndRegular) {
    const std::string home = makeHome("q");
    writeFile(home + "/bin/odbc.ini", "[ODBC]\n");
    writeFile(home + "/bin/odbcinst.ini", "[ODBC]\n");
    const std::string q = " QUENDRAL_HOME=" + shellQuote(home);

    auto vars = envOf(kClean + q);
    EXPECT_EQ(vars.at("ODBCINI"), home + "/bin/odbc.ini");
    EXPECT_EQ(vars.at("ODBCINSTINI"), home + "/bin/odbcinst.ini");

    vars = envOf(kClean + "ODBCINI= ODBCINSTINI=/etc/odbcinst.ini" + q);
    EXPECT_EQ(vars.at("ODBCINI"), "") << "set but empty counts as set";
    EXPECT_EQ(vars.at("ODBCINSTINI"), "/etc/odbcinst.ini");
}

TEST_F(QuendralctlEnvironment, OdbcIniThatIsADirectoryLeavesTheVariableUnset) {
    const std::string home = makeHome("q");
    fs::create_directories(home + "/bin/odbc.ini");
    const auto vars = envOf(kClean + "QUENDRAL_HOME=" + shellQuote(home));
    EXPECT_EQ(vars.count("ODBCINI"), 0u);
    EXPECT_EQ(vars.count("ODBCINSTINI"), 0u);
}

TEST_F(QuendralctlEnvironment, LibWithoutBinPreparesOnlyTheLibraryPath) {
    const std::string home = root / "libonly";
    fs::create_directories(home + "/lib");
    auto vars = envOf(kClean + "QUENDRAL_HOME=" + shellQuote(home));
    EXPECT_EQ(vars.at("PATH"), "/usr/bin:/bin");
    EXPECT_EQ(vars.at("LD_LIBRARY_PATH"), home + "/lib");
    vars = envOf(kClean + "LD_LIBRARY_PATH=/opt/x QUENDRAL_HOME=" + shellQuote(home));
    EXPECT_EQ(vars.at("LD_LIBRARY_PATH"), home + "/lib:/opt/x");
}

TEST_F(QuendralctlEnvironment, StartedServerInheritsThePreparedEnvironment) {
    const std::string target = makeHome("real");
    writeFile(target + "/bin/odbc.ini", "[ODBC]\n");
    fs::create_directory_symlink(target, root / "link");
    const std::string report = root / "server-env";
    const std::string env = kClean + "LD_LIBRARY_PATH=/opt/x QUENDRAL_DEMO_HTTP_PORT=0 " +
                            "QUENDRAL_DEMO_ENV_FILE=" + shellQuote(report) +
                            " QUENDRAL_HOME=" + shellQuote(root / "link");
    ASSERT_EQ(runCtl("start --wait 10", env).status, 0);
    const auto vars = parseEnv(readFile(report));
    EXPECT_EQ(runCtl("stop --wait 10", env).status, 0);

    EXPECT_EQ(vars.at("QUENDRAL_HOME"), target);
    EXPECT_EQ(vars.at("PATH"), target + "/bin:/usr/bin:/bin");
    EXPECT_EQ(vars.at("LD_LIBRARY_PATH"), target + "/lib:/opt/x");
    EXPECT_EQ(vars.at("ODBCINI"), target + "/bin/odbc.ini");
    EXPECT_EQ(vars.count("ODBCINSTINI"), 0u);
}

} // namespace
