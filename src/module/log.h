// The one way to log in this module.
#pragma once

#include <cstdint>

#include "zumod/runtime.h"

namespace zumod {

// [any thread]. Formats like printf, cut at 4095 characters, and hands the text to the runtime. `level` is
// one LogLevel bit. An exception of the host's sink goes on to the caller.
[[gnu::format(printf, 2, 3)]] void ZuModLog(uint32_t level, const char* format, ...);

}  // namespace zumod
