#include "PathUtil.h"
#include "SystemIo.h"

#include <climits>
#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <string_view>
#include <vector>

namespace quendral::path {

std::string append(const std::string &a, const std::string &b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    const bool aSlash = a.back() == '/', bSlash = b.front() == '/';
    if (aSlash && bSlash) return a + b.substr(1);
    if (aSlash || bSlash) return a + b;
    return a + "/" + b;
}

std::string lastComponent(const std::string &p) {
    size_t end = p.size();
    while (end > 1 && p[end - 1] == '/') end--;
    const size_t slash = p.rfind('/', end - 1);
    if (slash == std::string::npos) return p.substr(0, end);
    if (end == 1 && p[0] == '/') return "/";
    return p.substr(slash + 1, end - slash - 1);
}

bool isAbsolute(const std::string &p) {
    return !p.empty() && p[0] == '/';
}

std::string standardize(const std::string &input) {
    std::string p = input;
    if (!p.empty() && p[0] == '~' && (p.size() == 1 || p[1] == '/'))
        p = (sys::homeDirectory().empty() ? std::string("/") : sys::homeDirectory()) + p.substr(1);
    const bool absolute = isAbsolute(p);
    // Components are views into p: this runs for every instance at every
    // scan, and copying each component cost more than the rest.
    std::vector<std::string_view> parts;
    const std::string_view whole(p);
    size_t i = 0;
    while (i <= whole.size()) {
        size_t j = whole.find('/', i);
        if (j == std::string_view::npos) j = whole.size();
        const std::string_view part = whole.substr(i, j - i);
        if (part.empty() || part == ".") {
        } else if (part == "..") {
            if (!parts.empty() && parts.back() != "..")
                parts.pop_back();
            else if (!absolute)
                parts.push_back(part); // a relative path keeps leading ".."
        } else {
            parts.push_back(part);
        }
        i = j + 1;
    }
    std::string out;
    out.reserve(p.size() + 1);
    if (absolute) out.push_back('/');
    for (size_t k = 0; k < parts.size(); k++) {
        if (k) out += '/';
        out += parts[k];
    }
    if (out.empty()) out.push_back('.'); // only a relative path can end up empty
    return out;
}

std::string resolveSymlinks(const std::string &p) {
    if (p.empty()) return p;
    if (std::string whole = sys::realPath(p); !whole.empty()) return whole;
    // Resolve the longest prefix that exists and keep the rest as given.
    size_t cut = p.size();
    while (true) {
        cut = p.rfind('/', cut - 1);
        if (cut == std::string::npos || cut == 0) break;
        if (const std::string head = sys::realPath(p.substr(0, cut)); !head.empty())
            return append(head, p.substr(cut + 1));
    }
    return p;
}

bool isDirectory(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool existsNotDirectory(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

} // namespace quendral::path
