// Runs quendralctl as a whole process through the shell, as a user would.
#pragma once

#include "TempDir.h"

#include <gtest/gtest.h>

#include <string>

namespace testsupport {

struct CtlResult {
    int status = -1; // exit status, -1 when it did not exit normally
    std::string out;
    std::string err;
};

// Runs "env quendralctl args" with env a shell prefix of assignments or an
// env(1) invocation; binary overrides the quendralctl that is run.
CtlResult runCtl(const std::string &args, const std::string &env = "",
                 const std::string &binary = QUENDRALCTL_PATH);

// Runs a shell command line as it stands, its standard error captured.
CtlResult runShell(const std::string &command);

// The text without the lines saying that a started server has no unit of
// its own: where the tests run there is no service manager, and tests of
// other behaviour compare what the tool writes exactly.
std::string withoutUnitNotices(const std::string &text);

// The status word that ends the first line of `status` ("NAME WORD"), its
// newline included.
std::string shownStatus(const std::string &text);

// Quotes a path for the shell.
std::string shellQuote(const std::string &s);

// An installation whose bin/quendral is the demo server (serving no page),
// for tests that run quendralctl on it. Every server is stopped at the end.
class CtlInstallation : public ::testing::Test {
  protected:
    TempDir home;
    // The environment every run gets: QUENDRAL_HOME and no web page.
    std::string env;
    void SetUp() override;
    void TearDown() override;
    // quendralctl with `args` (and more environment), its notices that a
    // server has no unit of its own left out of its errors.
    CtlResult ctl(const std::string &args, const std::string &extraEnv = "");
};

} // namespace testsupport
