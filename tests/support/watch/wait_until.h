// A wait for a condition with a deadline. A test never sleeps to wait for another thread.
//
// Thread rule: [any thread]; the condition is evaluated on the calling thread.
#pragma once

#include <chrono>
#include <thread>

namespace zumod::testing {

// Returns whether the condition became true in time. The limit is long enough for a loaded machine.
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zumod::testing
