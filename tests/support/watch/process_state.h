// The threads and descriptors of this process, for tests that check that none is left over.
//
// Thread rule: [any thread].
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

// A sanitizer starts another thread, which stays, beside the first thread that a program creates. Starting
// it here makes it part of every count.
inline void StartSanitizersThread() {
    static const bool started = [] {
        std::filesystem::path listed;
        std::thread([&listed] { listed = "/proc/self/task/" + std::to_string(gettid()); }).join();
        // A joined thread stays in /proc for a short time.
        return WaitUntil([&listed] { return !std::filesystem::exists(listed); });
    }();
    (void)started;
}

inline std::ptrdiff_t CountThreads() {
    StartSanitizersThread();
    return CountEntries("/proc/self/task");
}

// Waits until the process has this many threads. Returns false if it does not.
inline bool ThreadsComeTo(std::ptrdiff_t count) {
    return WaitUntil([count] { return CountThreads() == count; });
}

// Whether the kernel reports this thread of the process as waiting.
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
