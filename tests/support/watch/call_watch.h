// A watch on the heap, random, library, thread, mutex, semaphore and clock calls of a test program: counts
// and lists them, makes them fail, and runs hooks before them. In a program that links zu_call_watch the
// linker redirects these calls to the watch, except those that shared libraries make.
//
// Thread rule: one watch at a time; the calls it watches come from [any thread].
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace zumod::testing {

class CallWatch {
public:
    // Named after the C functions. _Znwm is the global operator new; the names of std::random_device's two
    // functions have constants below.
    enum Call : int {
#define ZU_CALL(result, name, parameters, value, call, failure, ...) name,
#include "tests/support/watch/watched_calls.def"
#undef ZU_CALL
    };

    static constexpr Call kOpenRandomDevice =
        _ZNSt13random_device7_M_initERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE;
    static constexpr Call kReadRandomDevice = _ZNSt13random_device9_M_getvalEv;

    // The value of a call is the size of the block, text or read it requests, the block it frees, the flags
    // of dlopen, the library, the argument of the new thread, the thread, the mutex, the nanoseconds for
    // which a timed lock may wait, the length of the pause, whether the token of the random device is
    // "default", or the role of the semaphore: one initialised with 0 counts items, one initialised with more
    // counts free slots.
    static constexpr uintptr_t kAny = UINTPTR_MAX;
    static constexpr uintptr_t kItems = 0;
    static constexpr uintptr_t kFreeSlots = 1;

    // Counting starts, nothing fails.
    CallWatch();
    ~CallWatch();
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

    // The next `times` of these calls fail.
    void Fail(Call call, uintptr_t value, int times = 1);
    // The next of these calls fail, one with each of the errors.
    void FailWith(Call call, uintptr_t value, const std::vector<int>& errors);
    // The next of these calls runs the hook first, on its thread.
    void OnNext(Call call, uintptr_t value, std::function<void()> hook);
    // Each new thread runs the hook first. One thread may be starting at a time.
    void OnThreadStart(std::function<void()> hook);
    // What this clock shows from now on; gettimeofday shows CLOCK_REALTIME. Waits do not notice it.
    void SetClock(clockid_t clock, long seconds, long nanoseconds = 0);
    // The bytes that each read returns from now on, and the number that a random device returns.
    void SetRandom(uint32_t number);

    // The number of these calls, including failed ones.
    int Count(Call call, uintptr_t value = kAny) const;
    // The value of the last of these calls; 0 if there was none.
    uintptr_t LastValue(Call call) const;
    // How many mutexes the threads of the program have locked without a deadline, and not unlocked, since the
    // watch began.
    int LockedMutexes() const {
        return Count(pthread_mutex_lock) - Count(pthread_mutex_unlock);
    }
    int FreesOf(const void* block) const {
        return Count(free, reinterpret_cast<uintptr_t>(block));
    }
    // The first block that malloc returned.
    void* FirstMalloc() const;
    // The semaphore calls and pauses since the last Take, as text: "sem_post(items)", "sem_init(free, 0,
    // 1073741823)", "sem_clockwait(items, monotonic 1.500000000)", "usleep(100000)".
    std::vector<std::string> TakeSemaphoreCalls();
};

}  // namespace zumod::testing
