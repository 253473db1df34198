// What quendralctl writes on its standard output. Everything a verb prints
// goes through writeOut, without a buffer of its own: each call is written
// out at once, so a failure (a full disk, a closed descriptor) is seen where
// it happens, with its reason, and the exit status can say that the output
// is incomplete instead of claiming success.
#pragma once

#include <string>
#include <string_view>

namespace quendralctl {

// The program's name: every line it writes on standard error begins with it
// and ": ", and the system log knows it by it.
constexpr const char *kProgramName = "quendralctl";

// Writes "quendralctl: " and `line` on standard error, as one line. The text
// is written as it is: callers escape names for a terminal (shownOn).
void sayOnStderr(std::string_view line);

// Writes all of `text` to standard output; false when it could not be
// written (the first failure's errno is kept for outputError).
bool writeOut(std::string_view text);

// The errno of the first write to standard output that failed, 0 when none
// did.
int outputError();

// A directory name may hold any byte but '/' and NUL. Written as it is to a
// terminal, an escape sequence in it would be obeyed: retitle the window,
// move the cursor, rewrite what is shown. So names and paths bound for a
// terminal go through forTerminal: `text` with each control character written
// as a backslash and three octal digits (ESC as \033, newline as \012) and a
// backslash as two, so that the result reads back unambiguously. Control
// characters are the bytes below 0x20 and 0x7f, the C1 controls U+0080 to
// U+009F in UTF-8, and every byte that is not part of a valid UTF-8
// character (a terminal set to another encoding could take 0x80 to 0x9f
// for C1 controls). Printable UTF-8 passes as it is.
std::string forTerminal(std::string_view text);

// forTerminal(text) when `fd` is a terminal, else `text` unchanged: a pipe
// or a file gets the bytes as they are.
std::string shownOn(int fd, std::string_view text);

// shownOn for text of several lines (a log's end): each line escaped, the
// line breaks kept. What a log holds (escape sequences a server or anyone
// who could write its log put there) never drives the terminal.
std::string linesShownOn(int fd, std::string_view text);

} // namespace quendralctl
