// The semaphore calls of a test program with the clock and the sleep beside them: recorded in their order,
// made to fail, and stopped at. A program that links zu_semaphore_watch has these calls of its own objects
// sent through here.
//
// Thread rule: one watch at a time; the calls it watches come from [any thread].
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zumod::testing {

class SemaphoreWatch {
public:
    // Recording starts, nothing fails.
    SemaphoreWatch();
    ~SemaphoreWatch();
    SemaphoreWatch(const SemaphoreWatch&) = delete;
    SemaphoreWatch& operator=(const SemaphoreWatch&) = delete;

    // The calls since the last Take, failed ones included: "sem_post(items)", "sem_init(free, 0,
    // 1073741823)", "sem_timedwait(items, 1.500000000)", "usleep(100000)". A semaphore that was made with 0
    // is "items", one made with more is "free".
    std::vector<std::string> TakeCalls();
    bool Has(const std::string& call) const;

    // The next call with this text before its first comma or its end, "sem_wait(free", fails with each of the
    // errors in turn.
    void Fail(const std::string& call, std::vector<int> errors);
    // Called by the next such call, on its thread, before it is made.
    void OnNext(const std::string& call, std::function<void()> hook);
    // What the wall clock shows from now on.
    void SetClock(long seconds, long microseconds);
};

}  // namespace zumod::testing
