// The user's login items: the programs their desktop session starts at
// login, kept as XDG autostart entries ($XDG_CONFIG_HOME/autostart, by
// default ~/.config/autostart). The list is ordered by entry file name, the
// order in which the directory presents them; the monitor keeps nothing of
// its own about the setting.
#pragma once

#include "FileUrl.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

// The running program's own file (the identity a login item names).
std::string applicationPath();

// The list with the five operations the start-at-login logic needs.
class LoginItemList {
  public:
    struct Item {
        std::string file; // the entry's path
    };

    // The current user's list; nothing when its directory exists but cannot
    // be read as one (a file in its place, no permission).
    static std::unique_ptr<LoginItemList> create();
    // The directory of the list, for callers that know where it is.
    static std::unique_ptr<LoginItemList> create(const std::string &autostartDir);

    // The items as they are now, in list order.
    std::vector<Item> snapshot() const;
    // The URL of the program the item starts: its Exec program, which must be
    // an absolute path to an existing file. Nothing for an entry that is
    // hidden, unreadable, or whose program is missing. Never blocks: the
    // entry must be a regular file of sane size.
    std::optional<std::string> resolve(const Item &item) const;
    // Writes an entry for the program at url that sorts before every other
    // entry. Returns false (errno set) when it could not be written.
    bool insertItemURLBeforeFirst(const std::string &url);
    // Deletes the item's entry; false (errno set) when it could not.
    bool remove(const Item &item);

    const std::string &directory() const { return _dir; }

  private:
    explicit LoginItemList(std::string dir) : _dir(std::move(dir)) {}
    std::string _dir;
};

// True when an item of the user's list resolves to exactly url.
bool willStartAtLogin(const std::string &url);
// Adds url at the head of the list when absent (enabled), or removes the
// first item that resolves to it (disabled). A change that cannot be made is
// logged ("cannot add the login item to %@: %@", "cannot remove the login
// item %@: %@").
void setStartAtLogin(const std::string &url, bool enabled);

} // namespace quendral
