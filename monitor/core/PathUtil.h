// Path operations the model needs, in their Linux form.
//
// Contract: append, lastComponent, isAbsolute and standardize work on the
// text alone and never touch the file system (except for "~", which is the
// home directory of SystemIo.h); resolveSymlinks, isDirectory and
// existsNotDirectory look, follow links, and never fail: what cannot be
// looked at counts as not there.
#pragma once

#include <string>

namespace quendral::path {

// a + "/" + b with exactly one "/" between them; no other change.
std::string append(const std::string &a, const std::string &b);

// The last path component (the directory's display name).
std::string lastComponent(const std::string &p);

bool isAbsolute(const std::string &p);

// "~" expanded, "." components and repeated or trailing "/" dropped, ".."
// resolved lexically (without looking at the file system).
std::string standardize(const std::string &p);

// All symbolic links resolved when the whole path exists; otherwise the
// longest existing prefix resolved and the rest kept as given.
std::string resolveSymlinks(const std::string &p);

// Something exists at p (links followed) and is a directory.
bool isDirectory(const std::string &p);

// Something exists at p (links followed) and is not a directory.
bool existsNotDirectory(const std::string &p);

} // namespace quendral::path
