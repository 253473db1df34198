#include "Output.h"

#include "Utf8.h"

#include <iostream>

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace quendralctl {

using quendral::utf8Length;

namespace {
int firstError = 0;
} // namespace

bool writeOut(std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = write(STDOUT_FILENO, text.data(), text.size());
        if (n > 0) {
            text.remove_prefix(static_cast<size_t>(n));
            continue;
        }
        if (n == 0) errno = EIO; // nothing taken, and no reason given
        if (errno == EINTR) continue;
        // A descriptor left non-blocking by whoever gave it to us: wait until
        // the reader makes room rather than losing output.
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd p{STDOUT_FILENO, POLLOUT, 0};
            if (poll(&p, 1, -1) >= 0 || errno == EINTR) continue;
        }
        if (firstError == 0) firstError = errno;
        return false;
    }
    return true;
}

void sayOnStderr(std::string_view line) {
    std::string text = std::string(kProgramName) + ": ";
    text.append(line);
    text += '\n';
    std::cerr << text;
}

int outputError() {
    return firstError;
}

namespace {

void appendOctal(std::string &out, unsigned char b) {
    out += '\\';
    out += static_cast<char>('0' + (b >> 6));
    out += static_cast<char>('0' + ((b >> 3) & 7));
    out += static_cast<char>('0' + (b & 7));
}

} // namespace

std::string forTerminal(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const size_t n = utf8Length(text);
        const auto b = static_cast<unsigned char>(text[0]);
        // U+0080..U+009F are C2 80..C2 9F.
        const bool c1 = n == 2 && b == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
        if (n == 0 || c1 || b < 0x20 || b == 0x7F) {
            for (size_t i = 0; i < (n == 0 ? 1 : n); i++)
                appendOctal(out, static_cast<unsigned char>(text[i]));
            text.remove_prefix(n == 0 ? 1 : n);
            continue;
        }
        if (b == '\\') out += '\\';
        out.append(text.substr(0, n));
        text.remove_prefix(n);
    }
    return out;
}

std::string linesShownOn(int fd, std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const size_t eol = text.find('\n');
        out += shownOn(fd, text.substr(0, eol));
        if (eol == std::string_view::npos) break;
        out += '\n';
        text.remove_prefix(eol + 1);
    }
    return out;
}

std::string shownOn(int fd, std::string_view text) {
    // Asked once per descriptor: listings call this for every name.
    static int known[3] = {-1, -1, -1};
    int terminal = fd >= 0 && fd < 3 ? known[fd] : -1;
    if (terminal < 0) {
        terminal = isatty(fd) ? 1 : 0;
        if (fd >= 0 && fd < 3) known[fd] = terminal;
    }
    return terminal ? forTerminal(text) : std::string(text);
}

} // namespace quendralctl
