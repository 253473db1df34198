#include "Utf8.h"

namespace quendral {

size_t utf8Length(std::string_view s) {
    if (s.empty()) return 0;
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const auto cont = [&](size_t i) { return i < s.size() && (byte(i) & 0xC0) == 0x80; };
    const unsigned char b = byte(0);
    if (b < 0x80) return 1;
    if (b >= 0xC2 && b <= 0xDF) return cont(1) ? 2 : 0;
    if (b >= 0xE0 && b <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        if (b == 0xE0 && byte(1) < 0xA0) return 0; // overlong
        if (b == 0xED && byte(1) > 0x9F) return 0; // a surrogate
        return 3;
    }
    if (b >= 0xF0 && b <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        if (b == 0xF0 && byte(1) < 0x90) return 0; // overlong
        if (b == 0xF4 && byte(1) > 0x8F) return 0; // beyond U+10FFFF
        return 4;
    }
    return 0;
}

std::string visibleText(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    while (!s.empty()) {
        const size_t n = utf8Length(s);
        const auto c = static_cast<unsigned char>(s[0]);
        if (n == 0 || c < 0x20 || c == 0x7f || c == '\\') {
            static const char kHex[] = "0123456789abcdef";
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
            s.remove_prefix(1);
            continue;
        }
        out.append(s.substr(0, n));
        s.remove_prefix(n);
    }
    return out;
}

bool isValidUtf8(std::string_view s) {
    while (!s.empty()) {
        const size_t n = utf8Length(s);
        if (n == 0) return false;
        s.remove_prefix(n);
    }
    return true;
}

} // namespace quendral
