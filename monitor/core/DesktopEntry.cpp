#include "DesktopEntry.h"

namespace quendral {

namespace {

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

} // namespace

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

DesktopEntryFields parseDesktopEntry(const std::string &entryText) {
    const std::string *text = &entryText;
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
    return {exec, hidden};
}

std::optional<std::string> desktopArgument(const std::string &arg) {
    for (const unsigned char c : arg)
        if (c < 0x20 || c == 0x7f || c == '"' || c == '`' || c == '$' || c == '\\' || c == '%')
            return std::nullopt;
    return "\"" + arg + "\"";
}

} // namespace quendral
