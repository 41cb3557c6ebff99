// What the command line of zu-camera-host says.
//
// Thread rule: a plain value; ParseOptions belongs to the main thread.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>

namespace zumod::host {

inline constexpr int kExitFailure = 1;
inline constexpr int kExitWrongOptions = 2;

struct HostOptions {
    std::string listen;  // the socket's path; empty with --stdio
    bool stdio = false;
    std::string modules;                            // empty: the directory beside the program
    std::map<std::string, std::string> properties;  // by key
    uint32_t log_levels = 0;                        // LogLevel bits that are shown
};

// Fills `options` and returns nothing, or returns the exit status when there is nothing more to do: help and
// version go to `out`, one line about a mistake to `err`.
std::optional<int> ParseOptions(int count, const char* const* words, HostOptions& options, std::ostream& out,
                                std::ostream& err);

}  // namespace zumod::host
