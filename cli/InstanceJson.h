// An instance as JSON for scripts: the object that `list --json` lists and
// `status --json` prints.
#pragma once

#include "QuendralInstance.h"
#include "ServerFacts.h"

#include <nlohmann/json.hpp>

namespace quendralctl {

// The unit of the user's service manager holding the instance's live server
// ("" for none), so that systemctl and journalctl can be pointed at it.
std::string serverUnit(const QuendralInstance &instance);

// "isDefault" is the instance's own flag (its directory is named "database");
// the listing's "default" names the instance that acts when none is named.
// "unit" is serverUnit, or null. Version 2 added the server's facts, read
// through `facts` for a live server: "since" (ISO 8601 with offset, null
// when there is no server or it cannot be read), "memoryBytes" (null when
// unknown), "listening" ([{"proto", "address", "port"}], empty for no
// server, null when it cannot be read).
constexpr int kJsonVersion = 2;
nlohmann::ordered_json instanceJson(QuendralInstance &instance, FactsReader &facts);

// Serialised for output. Bytes in names or paths that are not UTF-8 (a
// directory name is any bytes) are written as U+FFFD rather than failing;
// control characters, the C1 ones included, as \u escapes.
std::string dumpJson(const nlohmann::ordered_json &j);

} // namespace quendralctl
