// What quendralctl writes on its standard output. Everything a verb prints
// goes through writeOut, without a buffer of its own: each call is written
// out at once, so a failure (a full disk, a closed descriptor) is seen where
// it happens, with its reason, and the exit status can say that the output
// is incomplete instead of claiming success.
#pragma once

#include <string_view>

namespace quendralctl {

// Writes all of `text` to standard output; false when it could not be
// written (the first failure's errno is kept for outputError).
bool writeOut(std::string_view text);

// The errno of the first write to standard output that failed, 0 when none
// did.
int outputError();

} // namespace quendralctl
