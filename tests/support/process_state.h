// What this process holds of the system, for tests that nothing is left behind.
#pragma once

#include <filesystem>
#include <iterator>

namespace zumod::testing {

inline std::ptrdiff_t CountEntries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory),
                         std::filesystem::directory_iterator());
}

inline std::ptrdiff_t CountThreads() {
    return CountEntries("/proc/self/task");
}

inline std::ptrdiff_t CountDescriptors() {
    return CountEntries("/proc/self/fd");
}

}  // namespace zumod::testing
