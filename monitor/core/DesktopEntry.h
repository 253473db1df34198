// Desktop entries (the XDG autostart files a session runs at login): the
// little of the format the monitor reads and writes.
//
// Contract:
//   - Reading: only the "[Desktop Entry]" group counts; "Exec" is taken with
//     its string escapes undone and "Hidden=true" hides the entry; the
//     program of an Exec line is its first argument, quoted or not, with
//     "%%" read as "%".
//   - Writing: a program path becomes an Exec value that reads back as that
//     very path (quoted when it holds a reserved character, "%" doubled,
//     escaped as a string); an argument that some session would misread is
//     refused rather than written (desktopArgument).
#pragma once

#include <optional>
#include <string>

namespace quendral {

struct DesktopEntryFields {
    std::string exec; // unescaped; "" when there is none
    bool hidden = false;
};

// The fields of the "[Desktop Entry]" group of an entry's text.
DesktopEntryFields parseDesktopEntry(const std::string &text);

// The program of an Exec value.
std::string execProgram(const std::string &exec);

// The program path as an Exec value.
std::string execValue(const std::string &path);

// One further argument of an Exec value, in double quotes; nullopt for one
// holding a control character or any of '"', '`', '$', '\\' and '%', whose
// escapes the programs that run autostart entries read differently.
std::optional<std::string> desktopArgument(const std::string &arg);

} // namespace quendral
