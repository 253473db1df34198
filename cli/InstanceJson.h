// An instance as JSON for scripts: the object that `list --json` lists and
// `status --json` prints.
#pragma once

#include "QuendralInstance.h"

#include <nlohmann/json.hpp>

namespace quendralctl {

const char *statusWord(int32_t status);

// "isDefault" is the instance's own flag (its directory is named "database");
// the listing's "default" names the instance that acts when none is named.
nlohmann::ordered_json instanceJson(QuendralInstance &instance);

// Serialised for output. Bytes in names or paths that are not UTF-8 (a
// directory name is any bytes) are written as U+FFFD rather than failing;
// control characters, the C1 ones included, as \u escapes.
std::string dumpJson(const nlohmann::ordered_json &j);

} // namespace quendralctl
