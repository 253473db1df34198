// An instance as JSON for scripts: the object that `list --json` lists and
// `status --json` prints.
#pragma once

#include "QuendralInstance.h"

#include <nlohmann/json.hpp>

namespace quendralctl {

const char *statusWord(int32_t status);

// The unit of the user's service manager holding the instance's live server
// ("" for none), so that systemctl and journalctl can be pointed at it.
std::string serverUnit(const QuendralInstance &instance);

// "isDefault" is the instance's own flag (its directory is named "database");
// the listing's "default" names the instance that acts when none is named.
// "unit" is serverUnit, or null.
nlohmann::ordered_json instanceJson(QuendralInstance &instance);

// Serialised for output. Bytes in names or paths that are not UTF-8 (a
// directory name is any bytes) are written as U+FFFD rather than failing;
// control characters, the C1 ones included, as \u escapes.
std::string dumpJson(const nlohmann::ordered_json &j);

} // namespace quendralctl
