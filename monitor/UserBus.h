// The user's session bus, where the user's service manager answers, opened
// so that no call on it can hang its caller: every call, the connection's own
// greeting included, is bounded by the timeout given.
#pragma once

#include <cstdint>
#include <string>

struct sd_bus;

namespace quendral {

// The bus as sd_bus_open_user finds it (DBUS_SESSION_BUS_ADDRESS, else
// $XDG_RUNTIME_DIR/bus), or null with `why` set. The caller owns it
// (sd_bus_flush_close_unref).
sd_bus *openUserBus(uint64_t timeoutUs, std::string &why);

} // namespace quendral
