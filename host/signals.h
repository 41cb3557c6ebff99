// The signals that end the program, as a descriptor to wait on.
//
// Thread rule: made on the main thread before there is any other, because threads inherit what is blocked.
#pragma once

#include "common/unique_fd.h"

namespace zumod::host {

// Blocks SIGINT, SIGTERM and SIGHUP, which make the returned descriptor readable, and ignores SIGPIPE.
UniqueFd TakeSignals();

}  // namespace zumod::host
