// Helpers for tests of the configuration reader: load text from a real file
// and look at the entries it produced.
#pragma once

#include "TempDir.h"
#include "ncfg.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace testsupport {

struct HandleDeleter {
    void operator()(TWK_CfgHandle *h) const { TWK_Cfg_done(h); }
};
using Handle = std::unique_ptr<TWK_CfgHandle, HandleDeleter>;

// One entry as plain values; nullopt stands for a NULL field.
struct Entry {
    std::optional<std::string> section, id, value, comment;
    bool operator==(const Entry &) const = default;
};
std::ostream &operator<<(std::ostream &os, const Entry &e);

inline std::optional<std::string> opt(const char *s) {
    return s ? std::optional<std::string>(s) : std::nullopt;
}

inline Entry sectionEntry(std::string name, std::optional<std::string> comment = std::nullopt) {
    return {std::move(name), std::nullopt, std::nullopt, std::move(comment)};
}
inline Entry keyEntry(std::string id, std::string value,
                      std::optional<std::string> comment = std::nullopt) {
    return {std::nullopt, std::move(id), std::move(value), std::move(comment)};
}
inline Entry continuationEntry(std::string value,
                               std::optional<std::string> comment = std::nullopt) {
    return {std::nullopt, std::nullopt, std::move(value), std::move(comment)};
}
inline Entry commentEntry(std::string comment) {
    return {std::nullopt, std::nullopt, std::nullopt, std::move(comment)};
}

std::vector<Entry> entriesOf(const TWK_CfgHandle *h);

// Opens an existing file; fails the test when it cannot.
Handle openFile(const std::string &path);

// Writes text to a file in dir and opens it; fails the test when it cannot.
Handle loadText(const TempDir &dir, std::string_view text, const std::string &name = "t.ini");

// A 16-byte digest in lower-case hex, and the MD5 of some bytes so written.
std::string hex(const unsigned char digest[16]);
std::string md5Hex(const std::string &bytes);

} // namespace testsupport
