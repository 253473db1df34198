#include "FileUrl.h"

#include <string_view>

namespace quendral {

namespace {

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

} // namespace quendral
