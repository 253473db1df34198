#include "LoginItems.h"

#include "DesktopEntry.h"
#include "Log.h"

#include "SystemIo.h"
#include "PathUtil.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {

namespace {

constexpr const char *kEntryName = "quendral-monitor.desktop";
// An autostart entry is a few hundred bytes; anything far bigger is not one
// we need to read to the end.
constexpr size_t kEntryReadLimit = size_t{64} * 1024;

// Creates the file exclusively and writes it; removed again when it could not
// be written whole. False with errno set.
bool writeInPlace(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    int err = sys::writeAll(fd, text.data(), text.size()) ? 0 : errno;
    if (close(fd) != 0 && err == 0) err = errno;
    if (err != 0) unlink(path.c_str());
    errno = err;
    return err == 0;
}

// Writes a file that did not exist, whole or not at all: the text goes to a
// hidden file beside it (which no list takes for an entry) and is moved in
// under the name only if the name is still free, as an exclusive create
// would. So a session starting, or another front end reading the list,
// never sees the entry half written. A file system that can neither move
// without replacing nor link (vfat, some network file systems) gets the
// entry written in place, as an exclusive create. False with errno set when
// it could not be done; nothing is left behind then.
bool writeNewFile(const std::string &path, const std::string &text) {
    std::string temp = path::append(sys::parentDirectory(path), ".quendral-monitor.XXXXXX");
    const int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return writeInPlace(path, text);
    int err = fchmod(fd, 0644) == 0 && sys::writeAll(fd, text.data(), text.size()) ? 0 : errno;
    if (close(fd) != 0 && err == 0) err = errno;
    bool inPlace = false;
    if (err == 0 &&
        renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0) {
        err = errno;
        if (err == EINVAL || err == ENOSYS || err == ENOTSUP) {
            err = link(temp.c_str(), path.c_str()) == 0 ? 0 : errno;
            inPlace = err == EPERM || err == ENOTSUP; // ENOTSUP is EOPNOTSUPP here
        }
    }
    unlink(temp.c_str()); // gone already where it was moved
    if (inPlace) return writeInPlace(path, text);
    errno = err;
    return err == 0;
}

} // namespace

std::string applicationPath() {
    return sys::ownExecutablePath();
}

std::unique_ptr<LoginItemList> LoginItemList::create() {
    const std::string config = sys::configHome();
    if (config.empty()) return nullptr;
    return create(path::append(config, "autostart"));
}

std::unique_ptr<LoginItemList> LoginItemList::create(const std::string &autostartDir) {
    // A missing directory is an empty list (it is made on the first insert);
    // anything else that cannot be listed means the list cannot be opened.
    struct stat st;
    if (stat(autostartDir.c_str(), &st) != 0) {
        if (errno != ENOENT) return nullptr;
    } else if (!S_ISDIR(st.st_mode) || access(autostartDir.c_str(), R_OK | X_OK) != 0) {
        return nullptr;
    }
    return std::unique_ptr<LoginItemList>(new LoginItemList(autostartDir));
}

std::vector<LoginItemList::Item> LoginItemList::snapshot() const {
    std::vector<std::string> names;
    if (DIR *d = opendir(_dir.c_str())) {
        while (const dirent *e = readdir(d)) {
            const std::string name = e->d_name;
            if (name[0] != '.' && name.size() > 8 &&
                name.compare(name.size() - 8, 8, ".desktop") == 0)
                names.push_back(name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    std::vector<Item> items;
    items.reserve(names.size());
    for (const std::string &name : names) items.push_back({path::append(_dir, name)});
    return items;
}

std::optional<std::string> LoginItemList::resolve(const Item &item) const {
    const BoundedRead entry = readBounded(item.file, kEntryReadLimit);
    if (entry.status != BoundedRead::Ok || !entry.complete) return std::nullopt;
    const DesktopEntryFields fields = parseDesktopEntry(entry.text);
    const std::string &exec = fields.exec;
    const bool hidden = fields.hidden;
    if (hidden || exec.empty()) return std::nullopt;
    const std::string program = execProgram(exec);
    struct stat st;
    if (program.empty() || program[0] != '/' || stat(program.c_str(), &st) != 0 ||
        S_ISDIR(st.st_mode))
        return std::nullopt;
    return fileUrl(program);
}

bool LoginItemList::insertItemURLBeforeFirst(const std::string &url) {
    const std::optional<std::string> program = pathFromFileUrl(url);
    if (!program) {
        errno = EINVAL;
        return false;
    }
    mkdir(_dir.c_str(), 0700); // the parent is the user's config directory
    const std::vector<Item> items = snapshot();
    const std::string first = items.empty() ? "" : path::lastComponent(items.front().file);
    // Name the entry so that it sorts before the current first one (entries
    // are ordered by name): the plain name when it does, else the plain name
    // behind a run of a character small enough. Only a first entry whose
    // name begins with a space or "!" cannot be preceded this way.
    auto usable = [&](const std::string &name) {
        return (first.empty() || name < first) &&
               access(path::append(_dir, name).c_str(), F_OK) != 0;
    };
    std::string name = kEntryName;
    for (const char prefix : {'0', '-', '!'}) {
        if (usable(name)) break;
        for (int run = 1; run <= 8 && !usable(name); run++)
            name = std::string(static_cast<size_t>(run), prefix) + kEntryName;
    }
    if (!usable(name)) name = kEntryName;
    const std::string text = "[Desktop Entry]\n"
                             "Type=Application\n"
                             "Name=Quendral Monitor\n"
                             "Comment=Shows and controls the Quendral server instances\n"
                             "Exec=" +
                             execValue(*program) +
                             "\n"
                             "Icon=quendral-monitor\n"
                             "Terminal=false\n"
                             "X-GNOME-Autostart-enabled=true\n";
    return writeNewFile(path::append(_dir, name), text);
}

bool LoginItemList::remove(const Item &item) {
    return unlink(item.file.c_str()) == 0;
}

namespace {

// The first item that resolves to exactly url.
std::optional<LoginItemList::Item> firstMatch(const LoginItemList &list, const std::string &url) {
    for (const LoginItemList::Item &item : list.snapshot()) {
        const std::optional<std::string> resolved = list.resolve(item);
        if (resolved && *resolved == url) return item;
    }
    return std::nullopt;
}

} // namespace

bool willStartAtLogin(const std::string &url) {
    const auto list = LoginItemList::create();
    return list && firstMatch(*list, url).has_value();
}

void setStartAtLogin(const std::string &url, bool enabled) {
    const auto list = LoginItemList::create();
    if (!list) {
        logMessage("cannot change the login items: the autostart directory cannot be read");
        return;
    }
    const std::optional<LoginItemList::Item> match = firstMatch(*list, url);
    // The menu shows the setting as it is at the next opening either way;
    // a change that did not happen is said here, or it would pass unseen.
    if (enabled && !match && !list->insertItemURLBeforeFirst(url))
        logMessage("cannot add the login item to %@: %@",
                   {list->directory(), std::strerror(errno)});
    if (!enabled && match && !list->remove(*match))
        logMessage("cannot remove the login item %@: %@", {match->file, std::strerror(errno)});
}

} // namespace quendral
