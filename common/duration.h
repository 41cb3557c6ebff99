// A time as a user writes it.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace zumod {

// The time in a text such as "90", "1.5", "1m30s", "2h" or "00:01:30", above 0 and at most 1000000 s. Nothing
// for any other text.
std::optional<std::chrono::steady_clock::duration> ParseDuration(const std::string& text);

}  // namespace zumod
