// Runs the tray tests on Qt's offscreen platform, in one QApplication.
// With --as-nobody (as root) the process first becomes an ordinary user, for
// the cases that need file permissions to apply.
#include "Unprivileged.h"

#include <QApplication>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <unistd.h>

int main(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--as-nobody") != 0) continue;
        if (geteuid() == 0) {
            const gid_t gid = testsupport::kUnprivilegedId;
            if (setgroups(1, &gid) != 0 || setgid(gid) != 0 ||
                setuid(testsupport::kUnprivilegedId) != 0)
                return 99;
            setenv("HOME", "/tmp", 1);
        }
        for (int k = i; k + 1 < argc; k++) argv[k] = argv[k + 1];
        argc--;
        break;
    }
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    // No session bus: the tray must fall back as it does on a bare X server.
    setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);
    unsetenv("LANGUAGE");
    setenv("LANG", "C.UTF-8", 1);
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    return RUN_ALL_TESTS();
}
