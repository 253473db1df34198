// File URLs, the identity a login item names a program by.
//
// Contract: fileUrl percent-encodes every byte outside the unreserved set
// and "/", so two paths give equal URLs exactly when they are equal, and
// pathFromFileUrl undoes exactly that (it refuses anything but an absolute
// "file://" URL with well-formed escapes).
#pragma once

#include <optional>
#include <string>

namespace quendral {

// "file://" and the path with every byte outside the unreserved set and "/"
// percent-encoded.
std::string fileUrl(const std::string &path);
// The path of a file URL made by fileUrl, or nothing for any other text.
std::optional<std::string> pathFromFileUrl(const std::string &url);

} // namespace quendral
