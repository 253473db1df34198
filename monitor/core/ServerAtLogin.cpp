#include "ServerAtLogin.h"

#include "DesktopEntry.h"
#include "SystemIo.h"

#include "PathUtil.h"
#include "ServerUnit.h"
#include "UserBus.h"
#include "Utf8.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cctype>
#include <chrono>
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

// How long enable or disable may take with the service manager, all of it:
// a manager that does not answer must not hold a script.
constexpr auto kManagerBound = std::chrono::seconds(3);
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

// What marks a unit file or autostart entry as one that enable wrote: only
// such a file is ever replaced or removed.
constexpr const char *kUnitMark =
    "# Written by quendralctl enable; removed by quendralctl disable.";
constexpr const char *kEntryMark =
    "Comment=Written by quendralctl enable; removed by quendralctl disable";

// Appends the byte as C's \xNN.
void appendHex(std::string &out, unsigned char c) {
    char hex[8];
    (void)std::snprintf(hex, sizeof hex, "\\x%02x", c);
    out += hex;
}

// Text for a unit's free-text fields (Description=). systemd reads the file
// as UTF-8 lines, a trailing backslash joining the next, and expands "%"
// specifiers there: visibleText, with "%" doubled. No byte of a path can
// begin a line of its own.
std::string unitText(const std::string &text) {
    std::string out;
    for (const char c : visibleText(text)) {
        if (c == '%') out += '%';
        out += c;
    }
    return out;
}

// One word of a unit's ExecStart, quoted as systemd splits command lines: C
// escapes for quotes, backslashes, control characters and bytes that are not
// UTF-8 (systemd turns \xNN back into the byte), "%" doubled (a specifier
// otherwise). "$" is doubled in the arguments, where systemd expands
// variables, but not in the program's own path, where it does not.
std::string unitWord(const std::string &word, bool program) {
    std::string out = "\"";
    std::string_view rest(word);
    while (!rest.empty()) {
        const size_t n = utf8Length(rest);
        const auto c = static_cast<unsigned char>(rest[0]);
        if (n == 0 || c < 0x20 || c == 0x7f) {
            appendHex(out, c);
            rest.remove_prefix(1);
            continue;
        }
        if (c == '"' || c == '\\' || c == '\'') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '%') {
            out += "%%";
        } else if (c == '$' && !program) {
            out += "$$";
        } else {
            out.append(rest.substr(0, n));
        }
        rest.remove_prefix(n);
    }
    return out + "\"";
}

// The program that ExecStart runs. systemd refuses to run a program whose
// path holds a quote, a backslash or a control character ("special
// characters"); such a program is run by the shell, which takes its path as
// an argument like any other.
std::string unitCommand(const std::string &program) {
    const bool special = std::any_of(program.begin(), program.end(), [](char ch) {
        const auto c = static_cast<unsigned char>(ch);
        return c < 0x20 || c == 0x7f || c == '"' || c == '\'' || c == '\\';
    });
    if (!special) return unitWord(program, true);
    return "/bin/sh -c " + unitWord("exec \"$0\" \"$@\"", false) + " " + unitWord(program, false);
}

// Whether the file at `path` is there and was written by enable (it holds
// `mark` as a line of its own near its top).
enum class Owner { None, Ours, Other };
Owner ownerOf(const std::string &path, const char *mark) {
    struct stat st;
    if (path.empty() || lstat(path.c_str(), &st) != 0) return Owner::None;
    if (!S_ISREG(st.st_mode)) return Owner::Other;
    // Enable writes the mark within its first lines: the start is enough.
    const sys::OpenedFile file = sys::openRegular(path);
    if (file.kind != sys::FileKind::Regular) return Owner::Other;
    char head[512];
    size_t got = 0;
    const bool read = sys::readAt(file.fd, 0, head, sizeof head, got);
    close(file.fd);
    if (!read) return Owner::Other;
    const std::string_view text(head, got);
    const std::string line = std::string(mark) + "\n";
    return text.starts_with(line) || text.find("\n" + line) != std::string_view::npos
               ? Owner::Ours
               : Owner::Other;
}

bool writeWhole(const std::string &path, const std::string &text, std::string &error) {
    std::error_code ec;
    const std::string dir = sys::parentDirectory(path);
    std::filesystem::create_directories(dir, ec);
    // Written beside and renamed over, so the manager or the session never
    // reads half a file; under a short name of its own, so that a unit name
    // as long as systemd allows (255 bytes) still has room for it.
    std::string temp = dir + "/.quendral-XXXXXX";
    const int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) {
        error = dir + ": " + std::strerror(errno);
        return false;
    }
    int err = sys::writeAll(fd, text.data(), text.size()) ? 0 : errno;
    if (err == 0 && fchmod(fd, 0644) != 0) err = errno;
    if (close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && rename(temp.c_str(), path.c_str()) != 0) err = errno;
    if (err != 0) {
        error = path + ": " + std::strerror(err);
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

using Clock = std::chrono::steady_clock;

uint64_t microsecondsUntil(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<uint64_t>(left.count()) : 1;
}

// Asks the user's service manager to enable or disable `unit` (or only to
// read its unit files again), all of it before `deadline`: connecting and
// every call. nullopt when there is no manager to ask (`why` set); else
// whether it did (`error` set when not: a manager that refused, or did not
// answer in time).
std::optional<bool> askManager(Ask what, const std::string &unit, std::string &why,
                               std::string &error, Clock::time_point deadline) {
    bool absent = false;
    sd_bus *bus = openManagerBus(microsecondsUntil(deadline), why, &absent);
    if (!bus) {
        if (absent) return std::nullopt;
        error = why;
        return false;
    }
    sd_bus_error e = SD_BUS_ERROR_NULL;
    auto call = [&](const char *member, const char *types, auto... args) {
        sd_bus_message *message = newManagerCall(bus, member);
        sd_bus_message *reply = nullptr;
        int r = message ? 0 : -ENOMEM;
        if (r >= 0 && types[0]) r = sd_bus_message_append(message, types, args...);
        if (r >= 0) r = sd_bus_call(bus, message, microsecondsUntil(deadline), &e, &reply);
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
    if (r < 0)
        error = r == -ETIMEDOUT ? "the service manager did not answer in time"
                                : (e.message ? e.message : std::strerror(-r));
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
    const auto deadline = Clock::now() + kManagerBound;
    std::string why;
    const std::optional<bool> manager = askManager(Ask::Reload, unit, why, change.error, deadline);
    if (manager == false) return change; // a manager that is there and fails
    if (manager.has_value()) {
        // A unit of that name that enable did not write is the user's own.
        if (ownerOf(unitFile, kUnitMark) == Owner::Other) {
            change.error = unitFile + " is not one quendralctl wrote; it is left as it is";
            return change;
        }
        const std::string text = std::string(kUnitMark) +
                                 "\n"
                                 "[Unit]\n"
                                 "Description=Quendral server of " +
                                 unitText(dir) +
                                 "\n"
                                 "Documentation=man:quendralctl(1)\n\n"
                                 "[Service]\n"
                                 "Type=oneshot\n"
                                 // The server moves into a scope of its own before it runs, so
                                 // it outlives this unit, which ends once the server runs.
                                 "ExecStart=" +
                                 unitCommand(program) + " --home " + unitWord(home, false) +
                                 " start " + unitWord(dir, false) + " --wait " + wait +
                                 "\n\n"
                                 "[Install]\n"
                                 "WantedBy=default.target\n";
        const bool existed = ownerOf(unitFile, kUnitMark) == Owner::Ours;
        if (!writeWhole(unitFile, text, change.error)) return change;
        if (askManager(Ask::Enable, unit, why, change.error, deadline) != true) {
            if (change.error.empty()) change.error = why;
            // Nothing is left of a failed enable: a unit that would not be
            // started is no unit to leave behind.
            if (!existed) {
                std::string ignored;
                removeIfThere(wantsLink(dir), ignored);
                unlink(unitFile.c_str());
            }
            return change;
        }
        change.ok = true;
        change.how = "unit " + unit;
        return change;
    }
    // No service manager: a unit file would wait for one in vain; the
    // session's autostart starts the server instead. An entry must be
    // UTF-8, and its Exec key cannot carry some bytes at all.
    change.error.clear();
    std::string exec;
    for (const std::string &arg : {program, std::string("--home"), home, std::string("start"), dir,
                                   std::string("--wait"), wait}) {
        const auto quoted = isValidUtf8(arg) ? desktopArgument(arg) : std::nullopt;
        if (!quoted) {
            change.error = "an autostart entry cannot carry " + arg +
                           " (it holds one of \" ` $ \\ % or a control character, or is not "
                           "UTF-8)";
            return change;
        }
        exec += (exec.empty() ? "" : " ") + *quoted;
    }
    const std::string entry = loginAutostartEntry(dir);
    if (ownerOf(entry, kEntryMark) == Owner::Other) {
        change.error = entry + " is not one quendralctl wrote; it is left as it is";
        return change;
    }
    const std::string desktop = "[Desktop Entry]\n"
                                "Type=Application\n"
                                "Name=Quendral server of " +
                                dir + "\n" + kEntryMark +
                                "\n"
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
    const std::string entry = loginAutostartEntry(dir);
    // Only what enable wrote is removed: a unit or entry of the user's own
    // under that name stays.
    for (const auto &[path, mark] :
         {std::pair{unitFile, kUnitMark}, std::pair{entry, kEntryMark}}) {
        if (ownerOf(path, mark) == Owner::Other) {
            change.error = path + " is not one quendralctl wrote; it is left as it is";
            return change;
        }
    }
    const auto deadline = Clock::now() + kManagerBound;
    if (exists(unitFile) || exists(wantsLink(dir))) {
        std::string why;
        const bool known = exists(unitFile);
        const std::optional<bool> asked =
            known ? askManager(Ask::Disable, unit, why, change.error, deadline) : std::nullopt;
        // A manager that refuses or does not answer: the unit is taken away
        // all the same, by hand, and the manager forgets it at its next
        // reload. At the next login it is not started: that is disabled.
        change.error.clear();
        // Without a manager (or a unit file) the link goes by hand.
        if (!removeIfThere(wantsLink(dir), change.error)) return change;
        if (!removeIfThere(unitFile, change.error)) return change;
        // So that the manager forgets the file it read.
        if (asked == true) askManager(Ask::Reload, unit, why, change.error, deadline);
        change.error.clear();
    }
    if (!removeIfThere(entry, change.error)) return change;
    change.ok = true;
    return change;
}

} // namespace quendral
