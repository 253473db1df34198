// A small program that behaves like a Quendral server, so the monitor can be
// shown and tested end to end without the real one.
//
//   quendral -f        run in the foreground in the current (instance) directory
//
// It reads "quendral.ini" (section "database": "lockfile", default
// "quendral.lck"; "errorlogfile", default "quendral.log"), writes its pid to
// the lock file, appends lines to the error log, serves a status page at
// http://localhost:8890/dravinter/ while that port is free, and on SIGTERM
// removes its lock file, logs and exits 0.
//
// Environment switches for tests:
//   QUENDRAL_DEMO_START_DELAY_MS=N   write the lock file only after N ms
//   QUENDRAL_DEMO_IGNORE_TERM=1      ignore SIGTERM
//   QUENDRAL_DEMO_FAIL=1             exit at once with status 1
//   QUENDRAL_DEMO_FAIL_AFTER_MS=N    log a failure and exit with status 1 after N ms,
//                                    never writing the lock file
//   QUENDRAL_DEMO_LISTEN_DELAY_MS=N  listen only N ms after writing the lock file
//   QUENDRAL_DEMO_LOCK_PID=N         write N to the lock file instead of our pid
//   QUENDRAL_DEMO_HTTP_PORT=N        serve on port N instead of 8890 (0: no page)
//   QUENDRAL_DEMO_ENV_FILE=PATH      write the environment we inherited there
//   QUENDRAL_DEMO_FORK=1             serve from a forked child (which writes its own
//                                    pid); the first process waits for it, as a
//                                    supervisor does
//   QUENDRAL_DEMO_FORK=2             the same, but the first process exits at once,
//                                    as a daemon's parent does
//   QUENDRAL_DEMO_DAEMON=1           daemonise as many servers do: the first process
//                                    forks and exits at once; the child leaves its
//                                    process group for one of its own and forks the
//                                    daemon, which stays in the session, writes its
//                                    own pid (after QUENDRAL_DEMO_START_DELAY_MS)
//                                    and serves
//   QUENDRAL_DEMO_DAEMON=2           the same, but the child leaves the session too
//                                    (setsid), as daemon(3) does: only the scope a
//                                    service manager gave the launch still holds it
//   QUENDRAL_DEMO_LOCK_PARENT=1      with QUENDRAL_DEMO_FORK=1, the child writes the
//                                    first process's pid: the server named by the
//                                    lock file serves from a descendant
#include "ncfg.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

volatile sig_atomic_t termRequested = 0;
void onTerm(int) {
    termRequested = 1;
}

std::string lockFile = "quendral.lck";
std::string logFile = "quendral.log";

long envNumber(const char *name, long fallback) {
    const char *v = std::getenv(name);
    if (!v || !*v) return fallback;
    char *end = nullptr;
    const long n = std::strtol(v, &end, 10);
    return *end ? fallback : n;
}

void logLine(const std::string &text) {
    char stamp[32] = "";
    const time_t now = time(nullptr);
    struct tm tm;
    if (localtime_r(&now, &tm) && std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm) == 0)
        stamp[0] = '\0';
    FILE *f = std::fopen(logFile.c_str(), "a");
    if (!f) return;
    (void)std::fprintf(f, "%s quendral[%ld]: %s\n", stamp, static_cast<long>(getpid()),
                       text.c_str());
    (void)std::fclose(f); // a log line that cannot be written is lost, nothing more
}

void readConfig() {
    TWK_CfgHandle *h = nullptr;
    if (TWK_Cfg_init(&h, "quendral.ini") != 0) return;
    if (TWK_Cfg_find(h, "database", nullptr) == 0) {
        while (TWK_Cfg_nextentry(h) == 0) {
            const int type = h->flags & TWK_CFG_TYPEMASK;
            if (type == TWK_CFG_SECTION) break;
            if (type != TWK_CFG_KEY) continue;
            if (stricmp(h->id, "lockfile") == 0) lockFile = h->value;
            if (stricmp(h->id, "errorlogfile") == 0) logFile = h->value;
        }
    }
    TWK_Cfg_done(h);
}

bool writeLockFile(long pid) {
    const std::string tmp = lockFile + ".tmp";
    FILE *f = std::fopen(tmp.c_str(), "w");
    if (!f) return false;
    const bool written = std::fprintf(f, "%ld\n", pid) > 0;
    const bool ok = std::fclose(f) == 0 && written;
    // Renamed into place so the monitor never reads half a pid.
    return ok && std::rename(tmp.c_str(), lockFile.c_str()) == 0;
}

void writeEnvironment(const char *path) {
    FILE *f = std::fopen(path, "w");
    if (!f) return;
    for (char **e = environ; *e; e++) (void)std::fprintf(f, "%s\n", *e);
    (void)std::fclose(f); // a test reading it sees what it needs or fails
}

int listenOn(long port) {
    if (port <= 0 || port > 65535) return -1;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void serveOne(int listener) {
    const int c = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (c < 0) return;
    // One short request; never wait long for a slow client.
    pollfd p{c, POLLIN, 0};
    char req[2048];
    ssize_t n = poll(&p, 1, 500) > 0 ? read(c, req, sizeof req - 1) : 0;
    req[n > 0 ? n : 0] = '\0';
    const bool dravinter = std::strncmp(req, "GET /dravinter/", 15) == 0;
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) std::strcpy(cwd, "?");
    std::string body =
        dravinter ? "<!doctype html><html><head><title>Dravinter</title></head><body>"
                    "<h1>Dravinter</h1><p>Quendral demo server, pid " +
                        std::to_string(getpid()) + ", instance " + cwd + "</p></body></html>\n"
                  : "Not found\n";
    std::string resp = std::string("HTTP/1.0 ") + (dravinter ? "200 OK" : "404 Not Found") +
                       "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                       std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    const char *out = resp.data();
    size_t left = resp.size();
    while (left > 0) {
        const ssize_t w = write(c, out, left);
        if (w <= 0) break;
        out += w;
        left -= static_cast<size_t>(w);
    }
    close(c);
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2 || std::strcmp(argv[1], "-f") != 0) {
        (void)std::fprintf(stderr, "usage: quendral -f   (run in the instance directory)\n");
        return 2;
    }
    if (const char *envFile = std::getenv("QUENDRAL_DEMO_ENV_FILE"); envFile && *envFile)
        writeEnvironment(envFile);
    if (envNumber("QUENDRAL_DEMO_FAIL", 0)) return 1;

    readConfig();

    long lockPid = envNumber("QUENDRAL_DEMO_LOCK_PID", getpid());
    if (const long mode = envNumber("QUENDRAL_DEMO_FORK", 0); mode == 1 || mode == 2) {
        const pid_t child = fork();
        if (child < 0) return 1;
        if (child > 0) {
            if (mode == 2) return 0;
            int status = 0;
            while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
            return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
        }
        if (!envNumber("QUENDRAL_DEMO_LOCK_PARENT", 0))
            lockPid = envNumber("QUENDRAL_DEMO_LOCK_PID", getpid());
    }

    if (const long daemonise = envNumber("QUENDRAL_DEMO_DAEMON", 0);
        daemonise == 1 || daemonise == 2) {
        const pid_t first = fork();
        if (first < 0) return 1;
        if (first > 0) return 0;
        if ((daemonise == 1 ? setpgid(0, 0) : setsid()) < 0) _exit(1);
        const pid_t daemon = fork();
        if (daemon < 0) _exit(1);
        if (daemon > 0) _exit(0);
        lockPid = envNumber("QUENDRAL_DEMO_LOCK_PID", getpid());
    }

    struct sigaction sa {};
    sa.sa_handler = envNumber("QUENDRAL_DEMO_IGNORE_TERM", 0) ? SIG_IGN : onTerm;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    logLine("Quendral demo server starting");
    const long delay = envNumber("QUENDRAL_DEMO_START_DELAY_MS", 0);
    for (long waited = 0; waited < delay && !termRequested; waited += 10) usleep(10000);
    if (termRequested) {
        logLine("Terminated before startup finished");
        return 0;
    }
    if (const long failAfter = envNumber("QUENDRAL_DEMO_FAIL_AFTER_MS", -1); failAfter >= 0) {
        // A start that fails on its way up: some time passes, a reason is
        // logged, no lock file is ever written.
        for (long waited = 0; waited < failAfter && !termRequested; waited += 10) usleep(10000);
        logLine("Cannot open the database: demo failure");
        return 1;
    }
    if (!writeLockFile(lockPid)) {
        logLine("Cannot write lock file " + lockFile + ": " + std::strerror(errno));
        return 1;
    }

    const long port = envNumber("QUENDRAL_DEMO_HTTP_PORT", 8890);
    // A database writes its lock file before it accepts connections.
    const long listenDelay = envNumber("QUENDRAL_DEMO_LISTEN_DELAY_MS", 0);
    for (long waited = 0; waited < listenDelay && !termRequested; waited += 10) usleep(10000);
    const int listener = listenOn(port);
    logLine(listener >= 0 ? "Server online; Dravinter at http://localhost:" + std::to_string(port) +
                                "/dravinter/"
                          : "Server online (no web interface)");

    while (!termRequested) {
        pollfd p{listener, POLLIN, 0};
        const int r = poll(&p, listener >= 0 ? 1 : 0, 200);
        if (r > 0 && (p.revents & POLLIN)) serveOne(listener);
    }
    if (listener >= 0) close(listener);
    unlink(lockFile.c_str());
    logLine("Server shutdown complete");
    return 0;
}
