#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include "TempDir.h"

#include <array>
#include <cstdio>
#include <sys/wait.h>

namespace testsupport {

std::string shellQuote(const std::string &s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

CtlResult runCtl(const std::string &args, const std::string &env, const std::string &binary) {
    return runShell(env + " " + shellQuote(binary) + " " + args);
}

std::string shownStatus(const std::string &text) {
    const size_t end = text.find('\n');
    const std::string first = end == std::string::npos ? text : text.substr(0, end + 1);
    const size_t space = first.rfind(' ');
    return space == std::string::npos ? first : first.substr(space + 1);
}

std::string withoutUnitNotices(const std::string &text) {
    std::string kept;
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find('\n', begin);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(begin, end - begin);
        if (line.find(" has no unit of its own: ") == std::string::npos) kept += line;
        begin = end;
    }
    return kept;
}

CtlResult runShell(const std::string &command) {
    TempDir scratch;
    const std::string errFile = scratch / "stderr";
    const std::string cmd = "( " + command + " ) 2>" + shellQuote(errFile);
    CtlResult r;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return r;
    std::array<char, 4096> buf;
    size_t n;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
    const int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.err = readFile(errFile);
    return r;
}

void CtlInstallation::SetUp() {
    std::filesystem::create_directories(home / "bin");
    std::filesystem::copy_file(demoServerPath(), home / "bin/quendral");
    env = "QUENDRAL_HOME=" + shellQuote(home.path()) + " QUENDRAL_DEMO_HTTP_PORT=0";
}

void CtlInstallation::TearDown() {
    runCtl("stop --all --wait 10", env);
}

CtlResult CtlInstallation::ctl(const std::string &args, const std::string &extraEnv) {
    CtlResult r = runCtl(args, env + " " + extraEnv);
    r.err = withoutUnitNotices(r.err);
    return r;
}

} // namespace testsupport
