// The names of a recording's files.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <ctime>
#include <string>

namespace zumod::peer {

// The pattern with the conversions of strftime, such as %H, replaced by the local time. Empty if the result
// would be longer than a path can be.
std::string ExpandName(const std::string& pattern, std::time_t time);

// "film.mp4" as number 2 is "film-002.mp4"; as number 1 it stays as it is.
std::string NumberedName(const std::string& path, unsigned number);

}  // namespace zumod::peer
