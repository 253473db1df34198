#include "Unprivileged.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

int runUnprivileged(const std::function<int()> &body) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (geteuid() == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(kUnprivilegedId) != 0 ||
                setuid(kUnprivilegedId) != 0)
                _exit(120);
        }
        _exit(body() & 0x7f);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace testsupport
