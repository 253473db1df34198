// UTF-8 as the formats the monitor writes for others need it: desktop
// entries and unit files must be UTF-8, a terminal must not be handed bytes
// it could take for controls.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quendral {

// The length of the valid UTF-8 character at the start of `s`, 0 when there
// is none (a stray, overlong or surrogate sequence, or one cut short).
size_t utf8Length(std::string_view s);

// Whether all of `s` is valid UTF-8.
bool isValidUtf8(std::string_view s);

// `s` for a text that must be UTF-8 and one line (a unit's or a scope's
// description): control characters, backslashes and bytes that are not part
// of valid UTF-8 written as visible \xNN; the rest as it is.
std::string visibleText(std::string_view s);

} // namespace quendral
