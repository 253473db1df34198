// A start in progress, known to every front end of the user.
//
// Starting is a fact about the instance, not about the process that launched
// the server. A slow server writes its lock file late; until then only the
// launching process knew, so a second quendralctl, the tray or a script saw
// the instance stopped and launched a second server on the same directory.
// Now the front end that launches a server leaves a record naming the
// launched process (its pid and when it began, in clock ticks after boot),
// and every refresh that finds no live writer in the lock file reads it.
//
// Deciding that an instance is stopped and launching its server happen while
// one StartLock is held: an exclusive lock on the instance's record, so two
// front ends never both pass the check. The lock is held for the check and the
// fork only, never while a server runs.
//
// Where records live: the same places for every front end of the user,
// whatever the environment says, so that the desktop's tray, cron, su and
// ssh all meet the same records: ".local/state/quendral-monitor" in the
// user's home as the password database gives it (not $HOME), where no other
// user may create or take anything; where the home cannot take a record
// (full, read-only, not the user's), "/run/user/UID/quendral-monitor" in the
// runtime directory the system made for the user; else
// "/tmp/quendral-monitor-UID". Each must be a directory of ours, mode 0700,
// not a link. Readers look in every place; the start lock is taken in the
// first place that can hold it, and where no place can hold the record, the
// start fails with the reason before the launched child may run the server.
// A directory that was removed (a cleaner of old files) is made again at the
// next start.
// A record the user did not write (one planted while the directory was open
// to others) never counts, and anything standing at a record's name that is
// not a file of the user's is taken away before the record is made.
// A record is named after the instance directory's device and inode, so every
// path to one directory (a link, "./x", "x/") meets one record.
//
// A record is void once nothing of the start lives: the process it names
// has ended (a zombie has ended) and so has every process of the session and
// process group it began, or its pid belongs to another process (the start
// time differs); a void record found by a refresh is removed. So it never outlives the launch, and
// a front end killed at any point leaves nothing that blocks a later start
// once its server has ended. The record file is its own lock (flock); it is
// opened close-on-exec, and the launched child closes every descriptor before
// anything else, so no server inherits it.
//
// Across users the server's own lock file stays the only arbiter: records are
// private to each user.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>

namespace quendral {

struct LaunchedProcess {
    pid_t pid = 0;
    unsigned long long startTicks = 0;
    // When the record was written, just after the launch, as the wall clock
    // read then (from the record's file; zero where not read from one).
    timespec recordedAt{};
    // The control group of the scope the launch was moved into (unified
    // hierarchy), "" where it has none.
    std::string cgroup;
};

// A record is a line of a few dozen bytes; anything longer is cut here.
constexpr size_t kRecordSizeLimit = 4096;

// A live process of the start that `launched` began: the launched process
// itself, or once it has ended a live member of the session or process
// group it began (a server that daemonises); nullopt when nothing of it
// lives, or its pid now belongs to a process that began later.
std::optional<pid_t> liveProcessOfStart(const LaunchedProcess &launched);

// The launched process that a record names for `directory`, or nullopt
// when there is no record, it is void, or records cannot be kept. Takes no
// lock: a record is written in one piece of fixed length. Costs one stat and
// one failed open when there is no record. A void record is removed.
std::optional<LaunchedProcess> liveStartRecord(const std::string &directory);

// Removes `directory`'s record if it names `launched` or is void: that start
// has concluded. Does nothing while another front end holds the lock.
void forgetStartRecord(const std::string &directory, const LaunchedProcess &launched);

// One version of a lock file: which file, and when it was last written.
struct LockFileVersion {
    dev_t device = 0;
    ino_t inode = 0;
    timespec mtime{};
};

// A lock file's writer is judged by comparing when the process began with
// when the file was last written, and both are read as wall-clock times.
// When the clock is stepped (an NTP correction, a resumed virtual machine),
// every process's start time moves against every file's time, and a running
// server would look younger than its own lock file. So a verdict, once made,
// is kept for the user's front ends beside the start records: this version
// of the file was written by this very process (pid and start ticks, which
// no clock step moves). A later look after a step finds it and keeps it.
void rememberLockWriter(const LockFileVersion &file, const LaunchedProcess &writer);
bool isRememberedLockWriter(const LockFileVersion &file, const LaunchedProcess &writer);

class StartLock {
  public:
    // Takes the exclusive lock for `directory`'s record, waiting at most
    // kWaitLimitMs for a front end that holds it (it holds it for a fork).
    explicit StartLock(const std::string &directory);
    ~StartLock();
    StartLock(const StartLock &) = delete;
    StartLock &operator=(const StartLock &) = delete;

    enum State {
        Held,   // the lock is ours until destruction
        Busy,   // another front end held it for longer than the limit
        Failed, // no place could hold the record, or it could not be opened
                // or locked (error() says why): no start may be decided
    };
    State state() const { return state_; }
    const std::string &error() const { return error_; }

    // Under the lock: records `pid`, just launched, as the instance's start,
    // and returns what it recorded: in the lock's file, or where that place
    // cannot take it (full, read-only) in a later place. A failure is logged,
    // error() says why, and gives nullopt: the launched child must then not
    // run the server, since no other front end would see its start.
    std::optional<LaunchedProcess> record(pid_t pid);
    // Adds to the record the control group of the scope the launched
    // process was moved into, before it may run: a server that leaves its
    // session is followed there. Returns the record as it now stands.
    LaunchedProcess recordScope(const std::string &cgroup);

    static constexpr int kWaitLimitMs = 2000;

  private:
    void sweepVoidRecords() const;
    void lockAt();
    // Writes the record's text in the lock's file, or where that place
    // cannot take it in a later place; false with `why` where none can.
    bool writeRecord(const std::string &text, std::string &why);

    State state_ = Failed;
    std::string error_;
    std::string recordPath_;
    int fd_ = -1;   // the record file, locked while Held
    int place_ = 0; // which place holds it
    LaunchedProcess recorded_;
    std::string recordElsewhere_; // where the record went, if not in the lock's file
};

// The directory holding the records (created when missing), or nullopt with
// `error` set when none that is safely ours can be had. For tests and
// diagnostics.
std::optional<std::string> startRecordDirectory(std::string *error = nullptr);
// Forgets where records live, so that the next use finds (and makes) the
// directory again.
void findStartRecordDirectoryAgain();
// Where the record of `directory` (links followed) is kept: the directory
// of records, then "/<device>-<inode>" in hex; empty, with `error` set, when
// there is none.
std::string startRecordPath(const std::string &directory, std::string *error = nullptr);

} // namespace quendral
