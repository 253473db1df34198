#include "ServerAtLogin.h"

#include "DesktopEntry.h"
#include "SystemIo.h"

#include "PathUtil.h"
#include "ServerUnit.h"
#include "UserBus.h"

#include <systemd/sd-bus.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {

namespace {

constexpr uint64_t kManagerTimeoutUs = 5'000'000;
// How long the start at login waits for its server before calling it failed.
constexpr int kStartWaitSeconds = 120;

std::string unitDirectory() {
    const std::string config = sys::configHome();
    return config.empty() ? "" : config + "/systemd/user";
}

std::string wantsLink(const std::string &directory) {
    const std::string units = unitDirectory();
    return units.empty() ? "" : units + "/default.target.wants/" + loginUnitName(directory);
}

// An instance directory as one absolute, tidy path, so that "x/", "./x" and
// "x" name one unit.
std::string absoluteDirectory(const std::string &directory) {
    std::error_code ec;
    const auto absolute = std::filesystem::absolute(directory, ec);
    return path::standardize(ec ? directory : absolute.string());
}

// One argument of a unit's ExecStart: quoted, with what systemd would
// expand ("%" specifiers, "$" variables) doubled and C escapes for the rest.
std::string unitArgument(const std::string &arg) {
    std::string out = "\"";
    for (const unsigned char c : arg) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '%') {
            out += "%%";
        } else if (c == '$') {
            out += "$$";
        } else if (c < 0x20 || c == 0x7f) {
            char hex[8];
            (void)std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

bool writeWhole(const std::string &path, const std::string &text, std::string &error) {
    std::error_code ec;
    std::filesystem::create_directories(sys::parentDirectory(path), ec);
    // Written beside and renamed over, so the manager or the session never
    // reads half a file.
    const std::string temp = path + ".new";
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) {
        error = temp + ": " + std::strerror(errno);
        return false;
    }
    const int err = sys::writeAll(fd, text.data(), text.size()) ? 0 : errno;
    if (close(fd) != 0 || err != 0 || rename(temp.c_str(), path.c_str()) != 0) {
        error = path + ": " + std::strerror(err ? err : errno);
        unlink(temp.c_str());
        return false;
    }
    return true;
}

bool removeIfThere(const std::string &path, std::string &error) {
    if (path.empty() || unlink(path.c_str()) == 0 || errno == ENOENT) return true;
    error = path + ": " + std::strerror(errno);
    return false;
}

bool exists(const std::string &path) {
    struct stat st;
    return !path.empty() && lstat(path.c_str(), &st) == 0;
}

enum class Ask { Enable, Disable, Reload };

// Asks the user's service manager to enable or disable `unit` (or only to
// read its unit files again). nullopt when there is no manager to ask (`why`
// set); else whether it did (`error` set when not).
std::optional<bool> askManager(Ask what, const std::string &unit, std::string &why,
                               std::string &error) {
    sd_bus *bus = openManagerBus(kManagerTimeoutUs, why);
    if (!bus) return std::nullopt;
    sd_bus_error e = SD_BUS_ERROR_NULL;
    auto call = [&](const char *member, const char *types, auto... args) {
        sd_bus_message *message = newManagerCall(bus, member);
        sd_bus_message *reply = nullptr;
        int r = message ? 0 : -ENOMEM;
        if (r >= 0 && types[0]) r = sd_bus_message_append(message, types, args...);
        if (r >= 0) r = sd_bus_call(bus, message, 0, &e, &reply);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(message);
        return r;
    };
    // Reload first: the manager must know a unit file written just now.
    int r = call("Reload", "");
    if (isNoManager(r, e)) {
        why = "no service manager on the session bus";
        sd_bus_error_free(&e);
        sd_bus_flush_close_unref(bus);
        return std::nullopt;
    }
    if (r >= 0 && what == Ask::Enable) r = call("EnableUnitFiles", "asbb", 1, unit.c_str(), 0, 1);
    if (r >= 0 && what == Ask::Disable) r = call("DisableUnitFiles", "asb", 1, unit.c_str(), 0);
    if (r >= 0 && what != Ask::Reload) r = call("Reload", "");
    if (r < 0) error = e.message ? e.message : std::strerror(-r);
    sd_bus_error_free(&e);
    sd_bus_flush_close_unref(bus);
    return r >= 0;
}

} // namespace

std::string escapeUnitPath(const std::string &path) {
    // Redundant slashes go; what is left between them joins with "-".
    std::string tidy;
    for (size_t i = 0; i < path.size(); i++) {
        if (path[i] == '/' && (tidy.empty() || tidy.back() == '/')) continue;
        tidy += path[i];
    }
    while (!tidy.empty() && tidy.back() == '/') tidy.pop_back();
    if (tidy.empty()) return "-";
    // Each byte as in any unit name ("." kept but at the very start), and
    // "/" as "-".
    std::string out;
    for (size_t i = 0; i < tidy.size(); i++) {
        if (tidy[i] == '/')
            out += '-';
        else if (tidy[i] == '.' && i > 0)
            out += '.';
        else
            out += escapeUnitNamePart(tidy.substr(i, 1));
    }
    return out;
}

std::string loginUnitName(const std::string &directory) {
    return "quendral-server-" + escapeUnitPath(absoluteDirectory(directory)) + ".service";
}

std::string loginUnitFile(const std::string &directory) {
    const std::string units = unitDirectory();
    return units.empty() ? "" : units + "/" + loginUnitName(directory);
}

std::string loginAutostartEntry(const std::string &directory) {
    const std::string config = sys::configHome();
    return config.empty() ? ""
                          : config + "/autostart/quendral-server-" +
                                escapeUnitPath(absoluteDirectory(directory)) + ".desktop";
}

bool isEnabledAtLogin(const std::string &directory) {
    return exists(wantsLink(directory)) || exists(loginAutostartEntry(directory));
}

AtLoginChange enableAtLogin(const std::string &directory, const std::string &home,
                            const std::string &program) {
    AtLoginChange change;
    const std::string dir = absoluteDirectory(directory);
    const std::string unitFile = loginUnitFile(dir);
    if (unitFile.empty()) {
        change.error = "no configuration directory (neither XDG_CONFIG_HOME nor HOME is set)";
        return change;
    }
    const std::string unit = loginUnitName(dir);
    const std::string wait = std::to_string(kStartWaitSeconds);
    const std::string text = "# Written by quendralctl enable; removed by quendralctl disable.\n"
                             "[Unit]\n"
                             "Description=Quendral server of " +
                             dir +
                             "\n"
                             "Documentation=man:quendralctl(1)\n\n"
                             "[Service]\n"
                             "Type=oneshot\n"
                             // The server moves into a scope of its own before it runs, so it
                             // outlives this unit, which ends once the server runs.
                             "ExecStart=" +
                             unitArgument(program) + " --home " + unitArgument(home) + " start " +
                             unitArgument(dir) + " --wait " + wait +
                             "\n\n"
                             "[Install]\n"
                             "WantedBy=default.target\n";
    std::string why;
    if (askManager(Ask::Reload, unit, why, change.error)) {
        if (!writeWhole(unitFile, text, change.error)) return change;
        if (askManager(Ask::Enable, unit, why, change.error) != true) {
            if (change.error.empty()) change.error = why;
            return change;
        }
        change.ok = true;
        change.how = "unit " + unit;
        return change;
    }
    // No service manager: a unit file would wait for one in vain; the
    // session's autostart starts the server instead.
    change.error.clear();
    std::string exec;
    for (const std::string &arg : {program, std::string("--home"), home, std::string("start"), dir,
                                   std::string("--wait"), wait}) {
        const auto quoted = desktopArgument(arg);
        if (!quoted) {
            change.error = "an autostart entry cannot carry " + arg +
                           " (it holds one of \" ` $ \\ % or a control character)";
            return change;
        }
        exec += (exec.empty() ? "" : " ") + *quoted;
    }
    const std::string entry = loginAutostartEntry(dir);
    const std::string desktop =
        "[Desktop Entry]\n"
        "Type=Application\n"
        "Name=Quendral server of " +
        dir +
        "\n"
        "Comment=Written by quendralctl enable; removed by quendralctl disable\n"
        "Exec=" +
        exec +
        "\n"
        "NoDisplay=true\n"
        "Terminal=false\n";
    if (!writeWhole(entry, desktop, change.error)) return change;
    change.ok = true;
    change.how = "autostart entry " + entry;
    return change;
}

AtLoginChange disableAtLogin(const std::string &directory) {
    AtLoginChange change;
    const std::string dir = absoluteDirectory(directory);
    const std::string unit = loginUnitName(dir);
    const std::string unitFile = loginUnitFile(dir);
    if (exists(unitFile) || exists(wantsLink(dir))) {
        std::string why;
        const bool known = exists(unitFile);
        const std::optional<bool> asked =
            known ? askManager(Ask::Disable, unit, why, change.error) : std::nullopt;
        if (asked && !*asked) return change;
        // Without a manager (or a unit file) the link goes by hand.
        if (!removeIfThere(wantsLink(dir), change.error)) return change;
        if (!removeIfThere(unitFile, change.error)) return change;
        // So that the manager forgets the file it read.
        askManager(Ask::Reload, unit, why, change.error);
        change.error.clear();
    }
    if (!removeIfThere(loginAutostartEntry(dir), change.error)) return change;
    change.ok = true;
    return change;
}

} // namespace quendral
