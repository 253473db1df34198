#include "InstanceJson.h"

#include "ServerAtLogin.h"
#include "ServerUnit.h"
#include "StatusReport.h"

namespace quendralctl {

std::string serverUnit(const QuendralInstance &i) {
    const bool live = i.serverStatus() == ServerStatusRunning ||
                      i.serverStatus() == ServerStatusStarting ||
                      i.serverStatus() == ServerStatusStopping;
    return live && i.pid() > 0 ? quendral::unitOfProcess(i.pid()) : std::string();
}

nlohmann::ordered_json instanceJson(QuendralInstance &i, FactsReader &reader) {
    const auto log = i.logFile();
    const std::string unit = serverUnit(i);
    ServerFacts facts;
    if (hasLiveServer(i))
        facts = reader.factsOf(i.pid(), unit);
    else
        facts.listening.emplace(); // no server: it listens nowhere
    nlohmann::ordered_json listening = nullptr;
    if (facts.listening) {
        listening = nlohmann::ordered_json::array();
        for (const Endpoint &e : *facts.listening)
            listening.push_back({{"proto", e.proto}, {"address", e.address}, {"port", e.port}});
    }
    const std::string since = facts.since ? isoTime(*facts.since) : "";
    return {
        {"name", i.instanceName()},
        {"displayName", i.displayName()},
        {"directory", i.directory()},
        {"isDefault", i.isDefault()},
        {"serverStatus", statusWord(i.serverStatus())},
        {"unknownReason", i.unknownReason().empty() ? nlohmann::ordered_json(nullptr)
                                                    : nlohmann::ordered_json(i.unknownReason())},
        {"pid", i.pid()},
        {"lockFile", i.lockFile() ? nlohmann::ordered_json(*i.lockFile()) : nullptr},
        {"logFile", log ? nlohmann::ordered_json(*log) : nullptr},
        {"canStart", i.canStart()},
        {"unit", unit.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(unit)},
        {"since", since.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(since)},
        {"memoryBytes", facts.memoryBytes ? nlohmann::ordered_json(*facts.memoryBytes)
                                          : nlohmann::ordered_json(nullptr)},
        {"listening", listening},
        {"enabledAtLogin", quendral::isEnabledAtLogin(i.directory())},
    };
}

std::string dumpJson(const nlohmann::ordered_json &j) {
    const std::string text =
        j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    // The C0 controls come out as \u escapes, the C1 controls (U+0080 to
    // U+009F, C2 80 to C2 9F in UTF-8) as they are; a terminal may obey
    // those too (U+009B begins a control sequence), so they are escaped the
    // same way. The value read back is the same. The text is valid UTF-8
    // here, so a C2 byte always begins a character.
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        if (static_cast<unsigned char>(text[i]) == 0xC2 && next >= 0x80 && next <= 0x9F) {
            static const char hex[] = "0123456789abcdef";
            out += "\\u00";
            out += hex[next >> 4];
            out += hex[next & 15];
            i++;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace quendralctl
