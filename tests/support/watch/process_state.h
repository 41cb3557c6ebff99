// What this process holds of the system, for tests that nothing is left behind.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tests/support/watch/wait_until.h"

namespace zumod::testing {

inline std::ptrdiff_t CountEntries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory),
                         std::filesystem::directory_iterator());
}

// A sanitizer starts a thread of its own beside the first one that a program makes, for good. Made here, it
// counts from the start.
inline void StartSanitizersThread() {
    static const bool started = [] {
        std::filesystem::path listed;
        std::thread([&listed] { listed = "/proc/self/task/" + std::to_string(gettid()); }).join();
        // A thread that was joined is listed for a moment longer.
        return WaitUntil([&listed] { return !std::filesystem::exists(listed); });
    }();
    (void)started;
}

inline std::ptrdiff_t CountThreads() {
    StartSanitizersThread();
    return CountEntries("/proc/self/task");
}

// Whether the process comes down, or up, to this many threads.
inline bool ThreadsComeTo(std::ptrdiff_t count) {
    return WaitUntil([count] { return CountThreads() == count; });
}

// Whether the kernel says that this thread of the process waits for something.
inline bool IsAsleep(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t name_end = text.rfind(')');
    return name_end != std::string::npos && text.substr(name_end + 2, 1) == "S";
}

inline std::ptrdiff_t CountDescriptors() {
    return CountEntries("/proc/self/fd");
}

}  // namespace zumod::testing
