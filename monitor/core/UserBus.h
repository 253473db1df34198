// The user's session bus, where the user's service manager answers, opened
// so that nothing on it can hang its caller: connecting, the authentication
// and the greeting are done here, bounded by the timeout given, and every
// call after is bounded by it too.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

namespace quendral {

// The bus as sd_bus_open_user finds it (DBUS_SESSION_BUS_ADDRESS, else
// $XDG_RUNTIME_DIR/bus), or null with `why` set. The caller owns it
// (sd_bus_flush_close_unref). `absent`, where given, says whether the
// session simply has no bus (no address, no socket, nobody listening on
// it): normal over ssh, in cron or a container, and no fault to report.
sd_bus *openUserBus(uint64_t timeoutUs, std::string &why, bool *absent = nullptr);

// A connection to the user's service manager: its own socket
// ($XDG_RUNTIME_DIR/systemd/private) where it has one, as systemctl and
// systemd-run connect, else the session bus (a manager may answer there).
// The own socket is there as soon as the manager runs, before any bus is up
// and whatever bus the session has. Null with `why` set when neither can be
// reached.
sd_bus *openManagerBus(uint64_t timeoutUs, std::string &why, bool *absent = nullptr);

// A call of the service manager's `member`, arguments still to be appended;
// null on failure. The bus is asked not to start a manager for it: where
// none runs, a session bus may offer to "activate" one, which only fails,
// slowly and noisily.
sd_bus_message *newManagerCall(sd_bus *bus, const char *member);

// Whether an error says that no service manager answers on the bus.
bool isNoManager(int result, const sd_bus_error &error);

} // namespace quendral
