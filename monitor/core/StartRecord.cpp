#include "StartRecord.h"
#include "SystemIo.h"

#include "Log.h"
#include "ProcessHandle.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <pwd.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <climits>
#include <thread>
#include <unordered_map>
#include <unistd.h>

namespace quendral {

namespace {

// Whether `path` is a directory of ours that nobody else may write: ours
// to trust with records. A directory of ours with looser bits is tightened.
bool ownPrivateDirectory(const std::string &path, std::string &error) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        error = path + " is not a directory";
        return false;
    }
    if (st.st_uid != geteuid()) {
        error = path + " belongs to another user";
        return false;
    }
    if ((st.st_mode & 077) != 0 && chmod(path.c_str(), 0700) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// Makes `path` a directory of ours unless it is one already; each step of
// the way below a home of ours is ours too.
bool makePrivateDirectory(const std::string &path, std::string &error) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    return ownPrivateDirectory(path, error);
}

// The user's home as the password database has it, when it is a directory of
// the user's that nobody else may write in: the environment never moves it.
std::string usableHome() {
    const passwd *pw = getpwuid(geteuid());
    if (!pw || !pw->pw_dir || pw->pw_dir[0] != '/') return "";
    struct stat st;
    if (stat(pw->pw_dir, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & 022) != 0)
        return "";
    return pw->pw_dir;
}

// Where records may live, best first: the home's state directory, then the
// user's runtime directory, then a directory of the user's under /tmp. The
// names never change while a program runs; which of them can take a record
// may (a home that filled up or was remounted read-only).
enum Place { kHomePlace = 0, kRuntimePlace = 1, kTmpPlace = 2, kPlaces = 3 };

const std::string &placeName(int place) {
    // Found once per user: a child that changed its user (a test dropping
    // privileges) finds its own.
    static uid_t foundFor = static_cast<uid_t>(-1);
    static std::string names[kPlaces];
    if (foundFor != geteuid()) {
        foundFor = geteuid();
        const std::string home = usableHome();
        names[kHomePlace] = home.empty() ? std::string() : home + "/.local/state/quendral-monitor";
        names[kRuntimePlace] = "/run/user/" + std::to_string(foundFor) + "/quendral-monitor";
        names[kTmpPlace] = "/tmp/quendral-monitor-" + std::to_string(foundFor);
    }
    return names[place];
}

// Makes `place` a directory of ours where it can be, or says why not.
std::optional<std::string> makePlace(int place, std::string &error) {
    const std::string &dir = placeName(place);
    if (dir.empty()) {
        error = "the home directory is not the user's own";
        return std::nullopt;
    }
    if (place == kHomePlace) {
        // ~/.local and ~/.local/state are made as XDG makes them (0700)
        // where missing; where they exist they are the user's own home's.
        const std::string home =
            dir.substr(0, dir.size() - strlen("/.local/state/quendral-monitor"));
        for (const char *step : {"/.local", "/.local/state"}) {
            const std::string d = home + step;
            struct stat st;
            if (lstat(d.c_str(), &st) == 0) {
                if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 022) != 0) {
                    error = d + " is not a directory of the user's own";
                    return std::nullopt;
                }
            } else if (mkdir(d.c_str(), 0700) != 0 && errno != EEXIST) {
                error = d + ": " + std::strerror(errno);
                return std::nullopt;
            }
        }
    } else if (place == kRuntimePlace) {
        // Only the runtime directory the system made for the user: ours,
        // private, not a link. It is never made here.
        const std::string runtime = sys::parentDirectory(dir);
        struct stat st;
        if (lstat(runtime.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
            (st.st_mode & 077) != 0) {
            error = runtime + " is not the user's runtime directory";
            return std::nullopt;
        }
    }
    // Anyone may create names in /tmp: the directory is used only if it
    // turns out to be ours and private, whoever made it first.
    if (!makePrivateDirectory(dir, error)) return std::nullopt;
    return dir;
}

std::optional<std::string> findDirectory(std::string &error) {
    for (int place = 0; place < kPlaces; place++)
        if (auto dir = makePlace(place, error)) return dir;
    return std::nullopt;
}

std::optional<LaunchedProcess> readRecordFd(int fd) {
    struct stat st;
    char buf[kRecordSizeLimit];
    ssize_t n = -1;
    // Only a record of the user's own counts: one planted by another user
    // (while the directory was ever open to others) is void.
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid()) {
        n = sys::retryOnInterrupt([&] { return pread(fd, buf, sizeof buf - 1, 0); });
    }
    if (n <= 0) return std::nullopt;
    buf[n] = '\0';
    // "pid ticks", blanks before each.
    char *end = nullptr;
    const long pid = std::strtol(buf, &end, 10);
    const char *second = end;
    const unsigned long long ticks = std::strtoull(second, &end, 10);
    if (end == second || pid <= 0 || pid > INT32_MAX) return std::nullopt;
    LaunchedProcess record{static_cast<pid_t>(pid), ticks, st.st_mtim, {}};
    // Then, where the launch was given a scope, its control group: taken
    // only when the line is whole (it is written in one piece over the
    // shorter record, whose first bytes it repeats).
    while (*end == ' ') end++;
    if (const char *nl = std::strchr(end, '\n'); *end == '/' && nl) {
        record.cgroup.assign(end, static_cast<size_t>(nl - end));
        if (record.cgroup.find("/..") != std::string::npos) record.cgroup.clear();
    }
    return record;
}

// "pid ticks" at fixed widths, then " cgroup" where there is one, one line.
std::string recordText(const LaunchedProcess &p) {
    char text[48];
    (void)std::snprintf(text, sizeof text, "%20ld %20llu", static_cast<long>(p.pid), p.startTicks);
    return std::string(text) + (p.cgroup.empty() ? "" : " " + p.cgroup) + "\n";
}

// Whether a process of the control group `cgroup` (unified hierarchy) is
// alive and began no earlier than `notBefore`: its pid, else nullopt.
std::optional<pid_t> liveMemberOfCgroup(const std::string &cgroup, unsigned long long notBefore) {
    for (const char *root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
        const std::string procs = std::string(root) + cgroup + "/cgroup.procs";
        const auto text = sys::readWhole(procs.c_str());
        if (!text) continue;
        const char *p = text->c_str();
        for (char *end = nullptr;; p = end) {
            const long pid = std::strtol(p, &end, 10);
            if (end == p) break;
            const auto stat = readProcessStat(static_cast<pid_t>(pid));
            if (stat && !hasEnded(stat->state) && stat->startTicks >= notBefore)
                return static_cast<pid_t>(pid);
        }
        return std::nullopt;
    }
    return std::nullopt;
}

int openRecord(const std::string &path, int flags) {
    return open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
}

// Whether the open file is a regular file of the user's: a record may be
// locked and written only then.
bool ownRegularFile(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid();
}

// Takes away whatever stands at `path` (in a directory of ours): a file or
// link of anyone's, or a directory, which is first moved aside.
void clearName(const std::string &path) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) return;
    const std::string aside = path + ".planted-" + std::to_string(getpid());
    if (rename(path.c_str(), aside.c_str()) != 0) return;
    std::error_code ec;
    std::filesystem::remove_all(aside, ec);
}

bool isLive(const LaunchedProcess &p) {
    return liveProcessOfStart(p).has_value();
}

// Whether the descriptor, locked, is still the file at `path`: a front end
// that removed the record between our open and our lock leaves us holding a
// file nobody else will ever lock.
bool stillThere(int fd, const std::string &path) {
    struct stat held, named;
    return fstat(fd, &held) == 0 && stat(path.c_str(), &named) == 0 &&
           held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// Removes the record at `path` if, under its lock, it is void or names
// `launched`. Never waits for the lock: whoever holds it is deciding a start
// and will leave a record of its own.
void removeRecordIf(const std::string &path, const std::optional<LaunchedProcess> &launched) {
    const int fd = openRecord(path, O_RDWR);
    if (fd < 0) return;
    if (flock(fd, LOCK_EX | LOCK_NB) == 0 && stillThere(fd, path)) {
        const auto record = readRecordFd(fd);
        const bool ours = record && launched && record->pid == launched->pid &&
                          record->startTicks == launched->startTicks;
        if (!record || ours || !isLive(*record)) unlink(path.c_str());
    }
    close(fd);
}

} // namespace

std::optional<pid_t> liveProcessOfStart(const LaunchedProcess &p) {
    // The pid and its start time together name one process for good: a
    // process that took the pid later began later.
    const auto stat = readProcessStat(p.pid);
    if (stat && stat->startTicks == p.startTicks && !hasEnded(stat->state)) return p.pid;
    // Its pid given to another process: nothing of that start was left in
    // its session when the system gave it away (a session's number is never
    // reused while a member lives). Else, ended: a server that daemonises
    // lives on in the session the launch began (its first process exits,
    // the daemon writes the lock file later).
    if (!stat || stat->startTicks == p.startTicks)
        if (const auto member = liveMemberOf(p.pid, p.startTicks)) return member;
    // One that left its session too lives on in the scope the service
    // manager gave the launch, where there is one.
    if (!p.cgroup.empty()) return liveMemberOfCgroup(p.cgroup, p.startTicks);
    return std::nullopt;
}

namespace {
// Found once per process: a refresh must not pay a mkdir and an lstat each
// time. Found again when a start finds it gone.
bool directoryKnown = false;
std::optional<std::string> knownDirectory;
std::string directoryError;
} // namespace

std::optional<std::string> startRecordDirectory(std::string *error) {
    static uid_t knownFor = static_cast<uid_t>(-1);
    if (!directoryKnown || knownFor != geteuid()) {
        knownFor = geteuid();
        directoryError.clear();
        knownDirectory = findDirectory(directoryError);
        directoryKnown = true;
    }
    if (!knownDirectory && error) *error = directoryError;
    return knownDirectory;
}

void findStartRecordDirectoryAgain() {
    directoryKnown = false;
}

namespace {

// "/<device>-<inode>" of the instance directory (links followed), or "" with
// `error` set.
std::string recordName(const std::string &instanceDirectory, std::string *error) {
    struct stat st;
    if (stat(instanceDirectory.c_str(), &st) != 0) {
        if (error) *error = instanceDirectory + ": " + std::strerror(errno);
        return {};
    }
    char name[64];
    (void)std::snprintf(name, sizeof name, "/%llx-%llx", static_cast<unsigned long long>(st.st_dev),
                        static_cast<unsigned long long>(st.st_ino));
    return name;
}

} // namespace

std::string startRecordPath(const std::string &instanceDirectory, std::string *error) {
    std::string why;
    const auto dir = startRecordDirectory(&why);
    if (!dir) {
        if (error) *error = why;
        return {};
    }
    const std::string name = recordName(instanceDirectory, error);
    return name.empty() ? std::string() : *dir + name;
}

std::optional<LaunchedProcess> liveStartRecord(const std::string &directory) {
    const std::string name = recordName(directory, nullptr);
    if (name.empty()) return std::nullopt;
    // Every place is read: a start recorded where the home could not take
    // it is as much a start as any.
    for (int place = 0; place < kPlaces; place++) {
        if (placeName(place).empty()) continue;
        const std::string path = placeName(place) + name;
        const int fd = openRecord(path, O_RDONLY);
        if (fd < 0) continue;
        auto record = readRecordFd(fd);
        close(fd);
        if (record && isLive(*record)) return record;
        // Void: its start ended without anyone concluding it (the front end
        // was killed). It is removed so that records do not pile up.
        removeRecordIf(path, std::nullopt);
    }
    return std::nullopt;
}

void forgetStartRecord(const std::string &directory, const LaunchedProcess &launched) {
    const std::string name = recordName(directory, nullptr);
    if (name.empty()) return;
    for (int place = 0; place < kPlaces; place++)
        if (!placeName(place).empty()) removeRecordIf(placeName(place) + name, launched);
}

namespace {

std::string writerMemoPath(const LockFileVersion &file) {
    const auto dir = startRecordDirectory();
    if (!dir) return {};
    char name[80];
    (void)std::snprintf(name, sizeof name, "/w-%llx-%llx",
                        static_cast<unsigned long long>(file.device),
                        static_cast<unsigned long long>(file.inode));
    return *dir + name;
}

// The memo's text: pid and start ticks first, as in a start record, so that
// the sweep of void records also removes memos of processes that ended.
std::string writerMemoText(const LockFileVersion &file, const LaunchedProcess &writer) {
    char text[128];
    (void)std::snprintf(text, sizeof text, "%ld %llu %lld %ld\n", static_cast<long>(writer.pid),
                        writer.startTicks, static_cast<long long>(file.mtime.tv_sec),
                        static_cast<long>(file.mtime.tv_nsec));
    return text;
}

std::string readSmallFile(const std::string &path) {
    const int fd = openRecord(path, O_RDONLY);
    if (fd < 0) return {};
    char buf[128];
    const ssize_t n = sys::retryOnInterrupt([&] { return read(fd, buf, sizeof buf); });
    close(fd);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

} // namespace

// The memos this process has written or found as they should be, and when
// it last looked. A running server's lock file is judged at every refresh,
// with the same verdict each time: its memo is looked at again only once a
// minute. That still puts back a memo that went (a cleaner of old files in
// /tmp) and keeps it looking used. One thread, as the model.
namespace {
struct KnownMemo {
    std::string text; // cppcheck-suppress unusedStructMember
    std::chrono::steady_clock::time_point seen;
};
std::unordered_map<std::string, KnownMemo> knownMemos;
constexpr size_t kKnownMemosLimit = 4096;
constexpr auto kMemoRecheck = std::chrono::minutes(1);
} // namespace

void rememberLockWriter(const LockFileVersion &file, const LaunchedProcess &writer) {
    const std::string path = writerMemoPath(file);
    if (path.empty()) return;
    const std::string text = writerMemoText(file, writer);
    const auto now = std::chrono::steady_clock::now();
    const auto known = knownMemos.find(path);
    if (known != knownMemos.end() && known->second.text == text &&
        now - known->second.seen < kMemoRecheck)
        return;
    if (knownMemos.size() >= kKnownMemosLimit) knownMemos.clear();
    if (readSmallFile(path) == text) { // as it should be
        knownMemos[path] = {text, now};
        return;
    }
    // Written beside and renamed over: a reader sees one memo or the other.
    const std::string temp = path + "." + std::to_string(getpid());
    const int fd = openRecord(temp, O_WRONLY | O_CREAT | O_TRUNC);
    if (fd < 0) {
        // The directory went: found, and made, again next time.
        if (errno == ENOENT) findStartRecordDirectoryAgain();
        return;
    }
    const ssize_t n = sys::retryOnInterrupt([&] { return write(fd, text.data(), text.size()); });
    const bool ok = close(fd) == 0 && n == static_cast<ssize_t>(text.size());
    if (ok && rename(temp.c_str(), path.c_str()) == 0)
        knownMemos[path] = {text, now}; // tried again at the next verdict otherwise
    else
        unlink(temp.c_str());
}

bool isRememberedLockWriter(const LockFileVersion &file, const LaunchedProcess &writer) {
    const std::string path = writerMemoPath(file);
    return !path.empty() && readSmallFile(path) == writerMemoText(file, writer);
}

StartLock::StartLock(const std::string &directory) {
    const std::string name = recordName(directory, &error_);
    if (name.empty()) {
        state_ = Failed;
        return;
    }
    // The lock is taken in the first place that can hold the record's file:
    // every front end of the user tries the places in the same order, so
    // they all meet at the same one.
    std::string why;
    for (int place = 0; place < kPlaces; place++) {
        const auto dir = makePlace(place, why);
        if (!dir) continue;
        recordPath_ = *dir + name;
        lockAt();
        if (state_ == Held) {
            place_ = place;
            sweepVoidRecords();
            return;
        }
        if (state_ == Busy) return;
        why = error_;
    }
    state_ = Failed;
    error_ = "no place to record the start: " + why;
}

void StartLock::lockAt() {
    // Another front end holds it only to check and fork; one that holds it
    // longer is stopped or hung, and the monitor must not hang with it.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitLimitMs);
    bool cleared = false;
    for (;;) {
        if (fd_ < 0) fd_ = openRecord(recordPath_, O_RDWR | O_CREAT);
        if (fd_ >= 0 && !ownRegularFile(fd_)) {
            close(fd_);
            fd_ = -1;
            errno = EPERM;
        }
        if (fd_ < 0 && !cleared && errno != EROFS && errno != ENOSPC && errno != EDQUOT) {
            // The directory went (a cleaner of /tmp or of old state): made
            // again. Something at the record's name that is no file of ours
            // (planted while the directory was open to others): taken away.
            cleared = true;
            if (errno == ENOENT) {
                if (mkdir(sys::parentDirectory(recordPath_).c_str(), 0700) != 0 && errno != EEXIST)
                    break;
            } else {
                clearName(recordPath_);
            }
            continue;
        }
        if (fd_ < 0) break;
        if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
            if (stillThere(fd_, recordPath_)) {
                state_ = Held;
                return;
            }
            // Removed while we waited: lock the file that stands there now.
            close(fd_);
            fd_ = -1;
            continue;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            state_ = Busy;
            error_ = "another start of it is being decided";
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    state_ = Failed;
    error_ = recordPath_ + ": " + std::strerror(errno);
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void StartLock::sweepVoidRecords() const {
    // Records of starts that concluded where no front end saw them conclude
    // (a server that ran and ended unobserved, an instance directory that
    // was removed) are void; a start is rare enough to tidy them up here.
    const std::string dir = sys::parentDirectory(recordPath_);
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    const std::string own = recordPath_.substr(dir.size() + 1);
    int budget = 256; // a start never waits on a directory of leftovers
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] == '.' || own == e->d_name) continue;
        if (budget-- == 0) break;
        removeRecordIf(dir + "/" + e->d_name, std::nullopt);
    }
    closedir(d);
}

StartLock::~StartLock() {
    // A lock taken for a start that did not happen leaves no file behind;
    // one holding another front end's live record keeps it.
    if (state_ == Held) {
        const auto held = readRecordFd(fd_);
        if (!held || !isLive(*held)) unlink(recordPath_.c_str());
    }
    // Closing the descriptor releases the lock.
    if (fd_ >= 0) close(fd_);
}

std::optional<LaunchedProcess> StartLock::record(pid_t pid) {
    if (state_ != Held) return std::nullopt;
    const auto stat = readProcessStat(pid);
    if (!stat) {
        logMessage("cannot record the start of %@: the launched process is gone", {recordPath_});
        return std::nullopt;
    }
    recorded_ = LaunchedProcess{pid, stat->startTicks, {}, {}};
    std::string why;
    if (writeRecord(recordText(recorded_), why)) return recorded_;
    logMessage("cannot record the start of %@: %@", {recordPath_, why});
    error_ = why;
    return std::nullopt;
}

LaunchedProcess StartLock::recordScope(const std::string &cgroup) {
    LaunchedProcess scoped = recorded_;
    scoped.cgroup = cgroup;
    std::string why;
    // Without it the start is still seen as long as its session lives.
    if (!cgroup.empty() && cgroup[0] == '/' && cgroup.find('\n') == std::string::npos &&
        cgroup.size() < kRecordSizeLimit / 2 && writeRecord(recordText(scoped), why))
        recorded_ = scoped;
    return recorded_;
}

bool StartLock::writeRecord(const std::string &text, std::string &why) {
    if (state_ != Held) return false;
    const ssize_t len = static_cast<ssize_t>(text.size());
    ssize_t n = -1;
    // Written in one piece at the start of the file, over a shorter record
    // whose first bytes it repeats: a reader without the lock sees a whole
    // record, old or new.
    if (recordElsewhere_.empty()) {
        n = sys::retryOnInterrupt([&] { return pwrite(fd_, text.data(), text.size(), 0); });
        if (n == len) return true;
        why = recordPath_ + ": " + (n < 0 ? std::strerror(errno) : "short write");
        // A record that stands there already stays: a longer one written
        // over it in part still begins with it, and its line is not whole.
        if (recorded_.cgroup.empty() && text == recordText(recorded_)) {
            (void)ftruncate(fd_, 0); // no half record here
        } else {
            return false;
        }
    } else {
        why = "the first record's place";
    }
    // The lock's place could not take it (full, read-only since): a later
    // place can, and every front end reads every place. Written beside and
    // renamed in, so that no reader ever sees it half written.
    const std::string name = recordPath_.substr(recordPath_.find_last_of('/'));
    for (int place = place_ + 1; place < kPlaces; place++) {
        if (!recordElsewhere_.empty() && recordElsewhere_.rfind(placeName(place), 0) != 0) continue;
        std::string unusable;
        const auto dir = makePlace(place, unusable);
        if (!dir) {
            why += "; " + unusable;
            continue;
        }
        const std::string path = *dir + name;
        const std::string temp = path + ".new-" + std::to_string(getpid());
        const int fd = openRecord(temp, O_WRONLY | O_CREAT | O_TRUNC);
        if (fd < 0) {
            why += "; " + temp + ": " + std::strerror(errno);
            continue;
        }
        n = sys::retryOnInterrupt([&] { return write(fd, text.data(), text.size()); });
        const int err = n < 0 ? errno : EIO;
        if (close(fd) == 0 && n == len && rename(temp.c_str(), path.c_str()) == 0) {
            recordElsewhere_ = path;
            return true;
        }
        why += "; " + path + ": " + std::strerror(n == len ? errno : err);
        unlink(temp.c_str());
    }
    return false;
}

} // namespace quendral
