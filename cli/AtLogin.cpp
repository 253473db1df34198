// quendralctl enable and disable: servers that start when the user logs in
// (ServerAtLogin.h says where that is kept and how it starts them).
#include "Commands.h"
#include "FindInstance.h"
#include "LoginItems.h"
#include "Output.h"
#include "ServerAtLogin.h"

#include <sys/stat.h>

namespace quendralctl {

namespace {

void say(const std::string &name, const std::string &what) {
    writeOut(shownOn(STDOUT_FILENO, name) + " " + what + "\n");
}

bool isDirectoryPath(const std::string &text) {
    struct stat st;
    return text.find('/') != std::string::npos || (stat(text.c_str(), &st) == 0);
}

} // namespace

int enable(const Instances &all, const Options &o, const std::string &home) {
    Instances chosen;
    int code = Ok;
    if (!targets(all, o, chosen, code)) return code;
    const std::string program = quendral::applicationPath();
    for (const auto &i : chosen) {
        const auto change = quendral::enableAtLogin(i->directory(), home, program);
        if (change.ok)
            say(i->displayName(), "starts at login (" + change.how + ")");
        else
            code = fail(Failed,
                        i->displayName() + " cannot be made to start at login: " + change.error);
    }
    return code;
}

int disable(const Instances &all, const Options &o) {
    Instances chosen;
    int code = Ok;
    std::vector<std::pair<std::string, std::string>> directories; // name, directory
    if (!o.all && !o.instance.empty() && isDirectoryPath(o.instance) &&
        !findInstance(all, o.instance).instance) {
        // An instance removed from disk since it was enabled: its directory
        // still names what was written for it.
        directories.emplace_back(o.instance, o.instance);
    } else {
        if (!targets(all, o, chosen, code)) return code;
        for (const auto &i : chosen) directories.emplace_back(i->displayName(), i->directory());
    }
    for (const auto &[name, directory] : directories) {
        const auto change = quendral::disableAtLogin(directory);
        if (change.ok)
            say(name, "does not start at login");
        else
            code = fail(Failed, name + " cannot be kept from starting at login: " + change.error);
    }
    return code;
}

} // namespace quendralctl
