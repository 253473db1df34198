#include "LoginItems.h"

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

bool unreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~' || c == '/';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// A desktop-entry string value with its escapes (\s \n \t \r \\) undone.
std::string unescapeValue(const std::string &v) {
    std::string out;
    for (size_t i = 0; i < v.size(); i++) {
        if (v[i] != '\\' || i + 1 == v.size()) {
            out += v[i];
            continue;
        }
        switch (v[++i]) {
        case 's':
            out += ' ';
            break;
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case 'r':
            out += '\r';
            break;
        default:
            out += v[i];
            break;
        }
    }
    return out;
}

// The program of an Exec line: its first argument, quoted or not, with
// "%%" read as "%".
std::string execProgram(const std::string &exec) {
    std::string prog;
    size_t i = exec.find_first_not_of(" \t");
    if (i == std::string::npos) return prog;
    if (exec[i] == '"') {
        for (i++; i < exec.size() && exec[i] != '"'; i++) {
            if (exec[i] == '\\' && i + 1 < exec.size()) i++;
            prog += exec[i];
        }
    } else {
        for (; i < exec.size() && exec[i] != ' ' && exec[i] != '\t'; i++) prog += exec[i];
    }
    std::string out;
    for (size_t k = 0; k < prog.size(); k++) {
        out += prog[k];
        if (prog[k] == '%' && k + 1 < prog.size() && prog[k + 1] == '%') k++;
    }
    return out;
}

// The program path as an Exec value: quoted when it holds any character the
// Exec rules reserve, "%" doubled, then escaped as a desktop-entry string.
std::string execValue(const std::string &path) {
    const bool quote = path.find_first_of(" \t\n\"'\\><~|&;$*?#()`") != std::string::npos;
    std::string exec = quote ? "\"" : "";
    for (char c : path) {
        if (quote && (c == '"' || c == '`' || c == '$' || c == '\\')) exec += '\\';
        if (c == '%') exec += '%';
        exec += c;
    }
    if (quote) exec += '"';
    std::string value;
    for (char c : exec) {
        if (c == '\\')
            value += "\\\\";
        else if (c == '\n')
            value += "\\n";
        else if (c == '\r')
            value += "\\r";
        else
            value += c;
    }
    return value;
}

bool writeNewFile(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = close(fd) == 0 && ok;
    if (!ok) unlink(path.c_str());
    return ok;
}

} // namespace

std::string fileUrl(const std::string &path) {
    static const char hex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (unsigned char c : path) {
        if (unreserved(c)) {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += hex[c >> 4];
            url += hex[c & 15];
        }
    }
    return url;
}

std::optional<std::string> pathFromFileUrl(const std::string &url) {
    constexpr std::string_view scheme = "file://";
    if (url.compare(0, scheme.size(), scheme) != 0 || url.size() == scheme.size() ||
        url[scheme.size()] != '/')
        return std::nullopt;
    std::string path;
    for (size_t i = scheme.size(); i < url.size(); i++) {
        if (url[i] != '%') {
            path += url[i];
            continue;
        }
        if (i + 2 >= url.size()) return std::nullopt;
        const int hi = hexValue(url[i + 1]), lo = hexValue(url[i + 2]);
        if (hi < 0 || lo < 0) return std::nullopt;
        path += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return path;
}

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
    const std::string *text = &entry.text;
    std::string exec;
    bool inEntry = false, hidden = false;
    size_t start = 0;
    while (start < text->size()) {
        size_t end = text->find('\n', start);
        if (end == std::string::npos) end = text->size();
        std::string line = text->substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty() && line[0] == '[') {
            inEntry = line == "[Desktop Entry]";
            continue;
        }
        if (!inEntry) continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        while (!key.empty() && key.back() == ' ') key.pop_back();
        const size_t v = line.find_first_not_of(' ', eq + 1);
        const std::string value = v == std::string::npos ? "" : line.substr(v);
        if (key == "Exec") exec = unescapeValue(value);
        if (key == "Hidden") hidden = value == "true";
    }
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
    if (!program) return false;
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

void LoginItemList::remove(const Item &item) {
    unlink(item.file.c_str());
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
    if (!list) return;
    const std::optional<LoginItemList::Item> match = firstMatch(*list, url);
    if (enabled && !match) list->insertItemURLBeforeFirst(url);
    if (!enabled && match) list->remove(*match);
}

} // namespace quendral
