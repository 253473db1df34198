// The verbs of quendralctl, one function each. `main` parses the command
// line into Options and calls one of them; each returns the exit status.
#pragma once

#include "QuendralManager.h"

#include <memory>
#include <string>
#include <vector>

namespace quendralctl {

// Exit statuses, numbered after the LSB init-script convention, so scripts
// written for other services read them the same way. As there, the actions
// are idempotent: a start of an instance already running (or being started
// by another front end) and a stop of one already stopped succeed with
// nothing done; only an instance that cannot get to the state asked for
// fails (1).
enum Exit { Ok = 0, Failed = 1, Usage = 2, NotRunning = 3, NoInstance = 4 };

// What each status means, for the help text: written here once, beside
// the numbers.
struct ExitMeaning {
    Exit code;
    const char *meaning;
};
inline constexpr ExitMeaning kExitMeanings[] = {
    {Ok, "success (status: running)"},
    {Failed, "failed or timed out"},
    {Usage, "usage"},
    {NotRunning, "not running (status)"},
    {NoInstance, "no such instance or no installation"},
};

// "Exit status: 0 success (status: running), 1 failed ..." as the help's
// last lines, wrapped to 80 columns.
std::string exitStatusHelp();

// The longest --wait: a day. More is no time anyone waits for a server, and
// the bound keeps every deadline far from the clock's range.
constexpr double kMaxWaitSeconds = 86400;

struct Options {
    std::string instance; // display name or directory; empty: the default
    bool all = false;     // --all
    bool json = false;    // --json
    bool names = false;   // --names
    double wait = 0;      // --wait SECONDS, 0 to kMaxWaitSeconds; 0: do not wait
    bool ready = false;   // --ready: with --wait, until the server listens on TCP
    long lines = 20;      // log -n
    long statusLines = 5; // status -n: the log's lines under the facts
    bool follow = false;
};

using InstancePtr = std::shared_ptr<QuendralInstance>;
using Instances = std::vector<InstancePtr>;

// Every instance of the installation the manager searches, into `all`; Ok,
// or NoInstance (after saying why) when the installation cannot be read.
int readInstallation(QuendralManager &manager, Instances &all);

int list(const Instances &all, const Options &o);
int status(const Instances &all, const Options &o);
int start(const Instances &all, const Options &o);
int stop(const Instances &all, const Options &o);
int restart(const Instances &all, const Options &o);
int log(const Instances &all, const Options &o);
int env();
// Prints the completion script for "bash", "zsh" or "fish".
int completion(const std::string &shell);

// The instances a verb acts on: --all, the one named, or the default; false
// (after saying why, with `code` set) when there is none.
bool targets(const Instances &all, const Options &o, Instances &out, int &code);

// Makes the chosen instances' servers start at login, with the installation
// `home` (enable), or undoes it (disable, which also takes the directory of
// an instance that is gone). One line per instance; 0 when each is now as
// asked.
int enable(const Instances &all, const Options &o, const std::string &home);
int disable(const Instances &all, const Options &o);

// Prints "quendralctl: <message>" on stderr and returns code.
int fail(int code, const std::string &message);

extern const char *const kBashCompletion;
extern const char *const kZshCompletion;
extern const char *const kFishCompletion;

} // namespace quendralctl
