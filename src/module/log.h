// The log function of the module. All log lines go through it.
//
// Thread rule: [any thread].
#pragma once

#include <cstdint>

#include "zumod/runtime.h"

namespace zumod {

// Formats like printf, truncated to 4095 characters, and passes the text to the runtime. `level` is one
// LogLevel bit. An exception of the host's sink propagates to the caller.
[[gnu::format(printf, 2, 3)]] void ZuModLog(uint32_t level, const char* format, ...);

}  // namespace zumod
