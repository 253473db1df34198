// quendralctl: the monitor's view and control of Quendral instances for
// terminals and scripts. It prepares the environment exactly as the tray does
// and uses the same manager, so both always agree.
#include "Environment.h"
#include "Log.h"
#include "QuendralManager.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <thread>

extern char **environ;

namespace {

enum Exit { Ok = 0, Failed = 1, Usage = 2, NotRunning = 3, NoInstance = 4 };

using InstancePtr = std::shared_ptr<QuendralInstance>;

const char *statusWord(int32_t status) {
    switch (status) {
    case ServerStatusStopped:
        return "stopped";
    case ServerStatusStarting:
        return "starting";
    case ServerStatusRunning:
        return "running";
    case ServerStatusStopping:
        return "stopping";
    default:
        return "unknown";
    }
}

// The default instance as the menu chooses it: the last one flagged default,
// else the only one.
InstancePtr defaultInstance(const std::vector<InstancePtr> &all) {
    InstancePtr found;
    for (const auto &i : all)
        if (i->isDefault()) found = i;
    if (!found && all.size() == 1) found = all.front();
    return found;
}

InstancePtr findInstance(const std::vector<InstancePtr> &all, const std::string &name) {
    if (name.empty()) return defaultInstance(all);
    for (const auto &i : all)
        if (i->displayName() == name || i->directory() == name) return i;
    return nullptr;
}

int fail(int code, const std::string &message) {
    std::cerr << "quendralctl: " << message << "\n";
    return code;
}

int list(const std::vector<InstancePtr> &all, bool json) {
    const InstancePtr def = defaultInstance(all);
    if (json) {
        nlohmann::json out;
        out["default"] = def ? nlohmann::json(def->directory()) : nlohmann::json(nullptr);
        out["instances"] = nlohmann::json::array();
        for (const auto &i : all) {
            const auto log = i->logFile();
            out["instances"].push_back({
                {"name", i->instanceName()},
                {"displayName", i->displayName()},
                {"directory", i->directory()},
                {"isDefault", i->isDefault()},
                {"serverStatus", statusWord(i->serverStatus())},
                {"pid", i->pid()},
                {"lockFile", i->lockFile() ? nlohmann::json(*i->lockFile()) : nlohmann::json()},
                {"logFile", log ? nlohmann::json(*log) : nlohmann::json(nullptr)},
                {"canStart", i->canStart()},
            });
        }
        std::cout << out.dump(2) << "\n";
        return Ok;
    }
    size_t width = 4;
    for (const auto &i : all) width = std::max(width, i->displayName().size());
    for (const auto &i : all) {
        const std::string pid = i->pid() > 0 ? std::to_string(i->pid()) : "-";
        std::printf("%-*s  %-8s  %7s  %s\n", static_cast<int>(width), i->displayName().c_str(),
                    statusWord(i->serverStatus()), pid.c_str(), i->directory().c_str());
    }
    return Ok;
}

bool waitForStatus(QuendralInstance &i, int32_t status, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        i.refresh();
        if (i.serverStatus() == status) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

int run(int argc, char **argv) {

    CLI::App app{"View and control the Quendral server instances of this machine.", "quendralctl"};
    app.set_version_flag("--version", std::string("quendralctl ") + QM_VERSION);
    app.require_subcommand(1);
    std::string home;
    app.add_option("--home", home, "Installation directory (sets QUENDRAL_HOME)");

    bool json = false;
    auto *listCmd = app.add_subcommand("list", "List the instances with their status");
    listCmd->add_flag("--json", json, "Print JSON");

    std::string name;
    double waitSeconds = 0;
    auto *statusCmd = app.add_subcommand("status", "Exit 0 when the instance runs, 3 when not");
    auto *startCmd = app.add_subcommand("start", "Start an instance's server");
    auto *stopCmd = app.add_subcommand("stop", "Stop an instance's server");
    for (auto *cmd : {statusCmd, startCmd, stopCmd})
        cmd->add_option("instance", name,
                        "Display name or directory (default: the default instance)");
    for (auto *cmd : {startCmd, stopCmd})
        cmd->add_option("--wait", waitSeconds, "Wait up to SECONDS for the change")
            ->check(CLI::NonNegativeNumber)
            ->check(CLI::Validator(
                [](std::string &v) {
                    // "nan" passes the range check above; it is no time to wait.
                    return std::isnan(std::strtod(v.c_str(), nullptr)) ? "not a number of seconds"
                                                                       : std::string();
                },
                "SECONDS"));
    auto *envCmd = app.add_subcommand("env", "Print the environment a started server inherits");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::cerr << "quendralctl: " << e.what() << " (see quendralctl --help)\n";
        return Usage;
    }

    if (!home.empty()) setenv("QUENDRAL_HOME", home.c_str(), 1);
    QuendralManager manager;
    const std::string installation =
        quendral::setupGlobalEnvironment(manager, quendral::defaultBundlePath());
    if (installation.empty()) return fail(NoInstance, "no Quendral installation found");

    if (envCmd->parsed()) {
        for (const char *var :
             {"QUENDRAL_HOME", "PATH", "LD_LIBRARY_PATH", "ODBCINI", "ODBCINSTINI"})
            if (const char *v = std::getenv(var)) std::printf("%s=%s\n", var, v);
        return Ok;
    }

    const auto all = manager.allInstances();
    if (listCmd->parsed()) return list(all, json);

    const InstancePtr inst = findInstance(all, name);
    if (!inst)
        return fail(NoInstance, name.empty() ? "no default instance (give an instance name)"
                                             : "no such instance: " + name);

    if (statusCmd->parsed()) {
        std::printf("%s\n", statusWord(inst->serverStatus()));
        return inst->serverStatus() == ServerStatusRunning ? Ok : NotRunning;
    }
    if (startCmd->parsed() || stopCmd->parsed()) {
        const bool start = startCmd->parsed();
        if (!(start ? inst->startup() : inst->shutdown()))
            return fail(Failed, inst->displayName() +
                                    (start ? " cannot be started" : " cannot be stopped") +
                                    " (it is " + statusWord(inst->serverStatus()) + ")");
        const int32_t target = start ? ServerStatusRunning : ServerStatusStopped;
        if (waitSeconds > 0 && !waitForStatus(*inst, target, waitSeconds))
            return fail(Failed, inst->displayName() + " did not " + (start ? "start" : "stop") +
                                    " within the time given (" + statusWord(inst->serverStatus()) +
                                    ")");
        std::printf("%s %s\n", inst->displayName().c_str(), statusWord(inst->serverStatus()));
        return Ok;
    }
    return Usage;
}

} // namespace

int main(int argc, char **argv) {
    quendral::setLogIdent("quendralctl");
    // Out of memory or a broken output stream: one clear line, not an abort.
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        std::cerr << "quendralctl: " << e.what() << "\n";
        return Failed;
    }
}
