// quendralctl: the monitor's view and control of Quendral instances for
// terminals and scripts. It prepares the environment exactly as the tray does
// and uses the same manager, so both always agree. This file only parses the
// command line and calls the verb (Commands.h).
#include "Commands.h"
#include "Environment.h"
#include "Log.h"
#include "Output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

using namespace quendralctl;

namespace {

const char *const kVerbs[] = {"list", "status", "start",   "stop", "restart",
                              "log",  "enable", "disable", "env",  "completion"};

// The first word that is not an option (nor --home's value): the verb.
std::string firstWord(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--home") == 0) {
            i++;
            continue;
        }
        if (argv[i][0] != '-') return argv[i];
    }
    return "";
}

bool isVerb(const std::string &word) {
    for (const char *v : kVerbs)
        if (word == v) return true;
    return false;
}

// The seconds of --wait: a decimal number (a fraction and an exponent
// allowed) from 0 to kMaxWaitSeconds, else nullopt. Checked here rather than
// by the option parser, whose range message would print the largest double
// in all its 309 digits.
std::optional<double> parseSeconds(const std::string &text) {
    if (text.empty() || text.find_first_not_of("0123456789.eE+-") != std::string::npos)
        return std::nullopt; // and so no "nan", "inf" or hexadecimal
    char *end = nullptr;
    const double s = std::strtod(text.c_str(), &end);
    if (*end != '\0' || s < 0 || s > kMaxWaitSeconds) return std::nullopt;
    return s;
}

// Why `dir` cannot be the installation --home names; "" when it can.
std::string whyNotADirectory(const std::string &dir) {
    if (dir.empty()) return "an empty path names no directory";
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) return std::strerror(errno);
    return S_ISDIR(st.st_mode) ? "" : "not a directory";
}

bool sameDirectory(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

int run(int argc, char **argv) {
    CLI::App app{"View and control the Quendral server instances of this machine.", kProgramName};
    app.set_version_flag("--version", std::string(kProgramName) + " " + QM_VERSION);
    app.require_subcommand(1);
    app.footer("Examples:\n"
               "  quendralctl list                      instances, their status and pid\n"
               "  quendralctl list --json               the same for scripts\n"
               "  quendralctl status sales && echo up   exit 0 running, 3 not\n"
               "  quendralctl status sales -n 20        its server, ports and 20 log lines\n"
               "  quendralctl start --wait 10           start the default instance and wait\n"
               "  quendralctl start --wait 30 --ready   ... until it accepts connections\n"
               "  quendralctl restart --all --wait 20   restart every instance\n"
               "  quendralctl log sales -n 50 -f        the log's end, then what is appended\n"
               "  quendralctl --home /opt/quendral env  what a started server inherits\n"
               "  source <(quendralctl completion bash) completion in this shell\n" +
               exitStatusHelp());
    std::string home;
    auto *homeOption =
        app.add_option("--home", home, "Installation directory (sets QUENDRAL_HOME)");

    Options o;
    std::string waitText;
    std::vector<CLI::Option *> waitOptions;
    const std::string instanceHelp = "Display name or directory (default: the default instance)";

    auto *listCmd = app.add_subcommand("list", "List the instances with their status");
    auto *json = listCmd->add_flag("--json", o.json, "Print JSON");
    listCmd->add_flag("--names", o.names, "Print the display names alone")->excludes(json);

    auto *statusCmd = app.add_subcommand(
        "status", "Show the instance's server (pid, since, memory, ports, log); exit 0 when it "
                  "runs, 3 when not");
    statusCmd->add_option("instance", o.instance, instanceHelp);
    statusCmd->add_flag("--json", o.json, "Print the instance as JSON");
    statusCmd->add_option("-n", o.statusLines, "How many lines of the log (default 5, 0: none)")
        ->check(CLI::NonNegativeNumber);

    auto *startCmd = app.add_subcommand("start", "Start an instance's server");
    auto *stopCmd = app.add_subcommand("stop", "Stop an instance's server");
    auto *restartCmd =
        app.add_subcommand("restart", "Stop an instance's server if it runs, then start it");
    for (auto *cmd : {startCmd, stopCmd, restartCmd}) {
        auto *name = cmd->add_option("instance", o.instance, instanceHelp);
        cmd->add_flag("--all", o.all, "Every instance, in the listing's order")->excludes(name);
        auto *wait = cmd->add_option("--wait", waitText,
                                     "Wait up to SECONDS (at most a day; 0: do not wait)")
                         ->type_name("SECONDS");
        waitOptions.push_back(wait);
        if (cmd != stopCmd)
            cmd->add_flag("--ready", o.ready,
                          "With --wait: until the server listens on a TCP port, as it accepts "
                          "connections")
                ->needs(wait);
    }

    auto *logCmd = app.add_subcommand("log", "Print the end of an instance's log file");
    logCmd->add_option("instance", o.instance, instanceHelp);
    logCmd->add_option("-n", o.lines, "How many lines (default 20)")->check(CLI::NonNegativeNumber);
    logCmd->add_flag("-f", o.follow, "Then print what is appended, until interrupted");

    auto *enableCmd =
        app.add_subcommand("enable", "Start an instance's server whenever you log in");
    auto *disableCmd = app.add_subcommand("disable", "Undo enable");
    for (auto *cmd : {enableCmd, disableCmd}) {
        auto *name = cmd->add_option("instance", o.instance, instanceHelp);
        cmd->add_flag("--all", o.all, "Every instance, in the listing's order")->excludes(name);
    }

    auto *envCmd = app.add_subcommand("env", "Print the environment a started server inherits");

    std::string shell;
    auto *completionCmd =
        app.add_subcommand("completion", "Print the completion script of a shell");
    completionCmd->add_option("shell", shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        const std::string word = firstWord(argc, argv);
        if (!word.empty() && !isVerb(word))
            return fail(Usage, "unknown command '" + word + "' (see quendralctl --help)");
        sayOnStderr(std::string(e.what()) + " (see " + kProgramName + " --help)");
        return Usage;
    }

    if (std::any_of(waitOptions.begin(), waitOptions.end(),
                    [](const CLI::Option *w) { return w->count() > 0; })) {
        const std::optional<double> seconds = parseSeconds(waitText);
        if (!seconds)
            return fail(Usage, "--wait must be between 0 and " +
                                   std::to_string(static_cast<long>(kMaxWaitSeconds)) +
                                   " seconds, not " + (waitText.empty() ? "''" : waitText));
        o.wait = *seconds;
    }

    // Needs no installation.
    if (completionCmd->parsed()) return completion(shell);

    // An installation named on the command line is that one or none. Unlike
    // a QUENDRAL_HOME left in the environment, which falls back to the
    // bundled installation quietly, a typo here must not: `stop --all` would
    // stop servers the user never named.
    const bool homeGiven = homeOption->count() > 0;
    if (homeGiven) {
        if (const std::string why = whyNotADirectory(home); !why.empty())
            return fail(NoInstance, "--home " + (home.empty() ? "''" : home) + ": " + why);
        setenv("QUENDRAL_HOME", home.c_str(), 1);
    }
    QuendralManager manager;
    const std::string installation =
        quendral::setupGlobalEnvironment(manager, quendral::defaultBundlePath());
    if (installation.empty()) return fail(NoInstance, "no Quendral installation found");
    // Removed or replaced since it was looked at above: the fallback was
    // taken after all.
    if (homeGiven && !sameDirectory(installation, home))
        return fail(NoInstance, "--home " + home + ": not a directory");
    if (envCmd->parsed()) return env();

    Instances all;
    if (const int code = readInstallation(manager, all); code != Ok) return code;
    if (listCmd->parsed()) return list(all, o);
    if (statusCmd->parsed()) return status(all, o);
    if (startCmd->parsed()) return start(all, o);
    if (stopCmd->parsed()) return stop(all, o);
    if (restartCmd->parsed()) return restart(all, o);
    if (logCmd->parsed()) return log(all, o);
    if (enableCmd->parsed()) return enable(all, o, installation);
    if (disableCmd->parsed()) return disable(all, o);
    return Usage;
}

// The model's messages name paths, and a path may hold an escape sequence:
// on a terminal they are escaped as every name is (Output.h). The system log
// gets each line as it is, as it does by default.
void escapeLogLinesOnATerminal() {
    if (!isatty(STDERR_FILENO)) return;
    openlog(kProgramName, LOG_PID, LOG_USER);
    quendral::setLogSink([](const std::string &line) {
        syslog(LOG_NOTICE, "%s", line.c_str());
        sayOnStderr(forTerminal(line));
    });
}

// A listing or a line that did not get out (a full disk, a closed
// descriptor) must not pass for success: a script would go on with a
// truncated answer. The verbs write through writeOut; the option parser's
// help and version go through std::cout, flushed here.
int finishOutput(int code) {
    if (const int err = outputError())
        return fail(Failed, std::string("cannot write the output: ") + std::strerror(err));
    errno = 0;
    std::cout.flush();
    if (std::fflush(stdout) == 0 && !std::ferror(stdout) && std::cout) return code;
    // The reason is known only when this last flush is what failed.
    return fail(Failed, errno ? std::string("cannot write the output: ") + std::strerror(errno)
                              : "cannot write the output");
}

} // namespace

int main(int argc, char **argv) {
    quendral::setLogIdent(kProgramName);
    escapeLogLinesOnATerminal();
    int code = Failed;
    // Out of memory or a broken output stream: one clear line, not an abort.
    try {
        code = run(argc, argv);
    } catch (const std::exception &e) {
        sayOnStderr(e.what());
    }
    return finishOutput(code);
}
