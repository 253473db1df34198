// The instance a user names on the command line: by its display name, or by
// its directory however the path is written.
#pragma once

#include "Commands.h"

#include <string>

namespace quendralctl {

struct Found {
    InstancePtr instance; // null when none is found
    Exit code = Ok;       // else NoInstance
    std::string error;    // why none, naming what was asked
};

// The instance of `all` that `named` names. A display name is compared as
// bytes (a name that is not UTF-8 can still be typed or pasted); one that
// several instances share is ambiguous, an error that lists their
// directories. Anything else is taken as a path, relative to the current
// directory, and matched by the directory it leads to (device and inode):
// "sales/", "./sales", "a//sales" and a symbolic link all find the instance.
Found findInstance(const Instances &all, const std::string &named);

} // namespace quendralctl
