// The names of what enable writes: a directory's path escaped exactly as
// systemd's own tool escapes it, so that users can find the unit by it.
#include "ModelTestUtil.h"
#include "ServerAtLogin.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>

namespace {

std::string systemdEscape(const std::string &path) {
    std::string quoted = "'";
    for (char c : path) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    FILE *p = popen(("systemd-escape --path -- " + quoted + "' 2>/dev/null").c_str(), "r");
    if (!p) return "";
    std::string out;
    std::array<char, 512> buf;
    size_t n;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
    if (pclose(p) != 0) return "";
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}

TEST(ServerAtLogin, PathsAreEscapedAsSystemdEscapesThem) {
    if (systemdEscape("/a").empty()) GTEST_SKIP() << "systemd-escape is not installed";
    for (const std::string path : {"/home/u/q/sales", "/tmp//x/", "/", "/a/.hidden/b c", "/.dot",
                                   "/ü-x", "/odd \"q\" $x 100%", "/a\\b:c_d", "/tab\there"})
        EXPECT_EQ(quendral::escapeUnitPath(path), systemdEscape(path)) << path;
}

TEST(ServerAtLogin, OneDirectoryHowEverWrittenGivesOneName) {
    testsupport::TempDir dir;
    const std::string name = quendral::loginUnitName(dir.path());
    EXPECT_EQ(quendral::loginUnitName(dir.path() + "/"), name);
    EXPECT_EQ(quendral::loginUnitName(dir.path() + "/./"), name);
    EXPECT_TRUE(name.starts_with("quendral-server-"));
    EXPECT_TRUE(name.ends_with(".service"));
}

} // namespace
