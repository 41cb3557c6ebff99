// The directory of the host's socket.
//
// Whoever may rename a directory above the socket can put another one in its place, and a peer would then
// connect to another program. So the whole path up to the root is checked, not only the directory. It is
// checked from the open directory upwards, by "..": a link in the path cannot lead past the check. The caller
// uses the returned descriptor from then on; what happens to the path later does not matter.
//
// Thread rule: main thread.
#pragma once

#include <string>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod::host {

// Opens the directory (O_PATH). Creates it and its parents, for this user only, if they do not exist. Fails
// if it or a directory above it belongs to another user than this one or root, if others may write to it, or
// if they may write to one above that has no sticky bit.
Expected<UniqueFd> OpenPrivateDirectory(const std::string& path);

}  // namespace zumod::host
