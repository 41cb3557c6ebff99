// The threads and descriptors of this process, for tests that check that none is left over.
//
// Thread rule: [any thread].
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "tests/support/watch/wait_until.h"

namespace zumod::testing {

inline std::ptrdiff_t CountEntries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory),
                         std::filesystem::directory_iterator());
}

// What the kernel reports about a thread of this process. The values of a thread that is gone are those
// below.
struct ThreadStatus {
    explicit ThreadStatus(const std::string& thread) {
        std::ifstream file("/proc/self/task/" + thread + "/stat");
        const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        const size_t name_end = text.rfind(')');
        if (name_end != std::string::npos) {
            long ignored = 0;
            std::istringstream(text.substr(name_end + 1)) >> state >> ignored >> ignored >> ignored >>
                ignored >> ignored >> flags;
        }
    }

    char state = 'X';                // dead
    unsigned long flags = kExiting;  // the kernel's PF_ flags
    static constexpr unsigned long kExiting = 4;
};

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

// Does not count a thread that was joined and that the kernel has yet to remove from its list: its exit
// begins before the join returns. (An emulator of another processor may end the join even earlier.)
inline std::ptrdiff_t CountThreads() {
    StartSanitizersThread();
    const auto listed = [] {
        std::set<std::string> threads;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const std::string thread = task.path().filename();
            if ((ThreadStatus(thread).flags & ThreadStatus::kExiting) == 0) {
                threads.insert(thread);
            }
        }
        return threads;
    };
    // The kernel's list may be incomplete if a thread ends meanwhile.
    std::set<std::string> threads = listed();
    WaitUntil([&] {
        const std::set<std::string> before = std::exchange(threads, listed());
        return threads == before;
    });
    return static_cast<std::ptrdiff_t>(threads.size());
}

// Waits until the process has at most this many threads, so that none is left over. Returns false if it has
// more.
inline bool ThreadsComeTo(std::ptrdiff_t count) {
    return WaitUntil([count] { return CountThreads() <= count; });
}

// Whether the kernel reports this thread of the process as waiting.
inline bool IsAsleep(pid_t thread) {
    return ThreadStatus(std::to_string(thread)).state == 'S';
}

inline std::ptrdiff_t CountDescriptors() {
    return CountEntries("/proc/self/fd");
}

}  // namespace zumod::testing
