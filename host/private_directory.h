// The directory that a host's socket stands in: nobody else may put anything there.
#pragma once

#include <string>

namespace zumod::host {

// The directory part of a path.
std::string DirectoryOf(const std::string& path);

// [main thread]. Makes the directory for this user alone if it is not there. False, with `error` in one line,
// when it cannot be made, is no directory, belongs to another user, or others may write to it.
bool EnsurePrivateDirectory(const std::string& directory, std::string& error);

}  // namespace zumod::host
