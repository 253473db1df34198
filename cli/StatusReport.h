// How `status` and `list` write an instance's server facts (ServerFacts.h)
// for people: times, sizes and addresses in the manner of `systemctl
// status`, and the whole report of `status`.
#pragma once

#include "QuendralInstance.h"
#include "ServerFacts.h"

#include <ctime>
#include <string>

namespace quendralctl {

// Whether the instance has a server process at all (running, and on its way
// up or down), whose facts can be asked for.
bool hasLiveServer(const QuendralInstance &instance);

// "Wed 2024-05-01 14:03:12 CEST; 2h 5min ago": local time, then how long
// before `now`.
std::string sinceText(const timespec &since, time_t now);
// "2h 5min", "3min 12s", "45s", "2 days 4h": the two largest units.
std::string durationText(time_t seconds);
// ISO 8601 in local time with its offset: "2024-05-01T14:03:12+02:00".
std::string isoTime(const timespec &t);
// "512B", "8.0K", "12.3M", "1.5G" (powers of 1024), as systemctl shows memory.
std::string memoryText(uint64_t bytes);
// "tcp 127.0.0.1:8890", "udp [::]:5353".
std::string endpointText(const Endpoint &e);
// The ports alone for a listing's column: "8890,5353/udp" (TCP bare),
// "none" when the server listens nowhere, "-" when that cannot be read.
std::string portsText(const std::optional<std::vector<Endpoint>> &listening);

// The whole of `status` for people: the status word on the first line, then
// Directory:, Enabled: (whether it starts at login), for a live server Server:, Since:, Memory:,
// Listening:, Unit: where it has one, and Log: followed by the log's last `lines` lines. Names and
// paths are escaped for a terminal on standard output (Output.h).
std::string statusReport(QuendralInstance &instance, FactsReader &facts, size_t lines);

} // namespace quendralctl
