// A deterministic scheduler: runs a program's threads one at a time, in an order that a seed draws, in
// virtual time. In a program that links zu_scheduler the linker redirects the calls of scheduled_calls.def to
// it.
//
// A thread of a schedule is not a thread of the system but a stack and a context, and all of them run on the
// thread that calls Run. A change of thread so costs well under a microsecond, and nothing runs in parallel.
//
// Each redirected call is a scheduling point: the next thread is drawn from those that can go on, the calling
// one included. Only locks that are not recursive are no scheduling points. They are the test doubles' own,
// and a double never calls the module while it holds one; the module's locks are recursive. A wait for a
// semaphore may end with EINTR.
//
// A free mutex goes to any thread that asks for it, as the real one does. In half of the schedules a thread
// that waits for a mutex goes on only a millisecond after the unlock, as on a loaded machine. A thread that
// locks again and again may then keep the mutex from it without end.
//
// The clocks show virtual time. It advances only when all threads wait, and then to the earliest deadline. A
// thread that spins without a redirected call would never give way: its loop needs a Sleep (see
// schedule_test.cpp for the one loop of that kind).
//
// These end a schedule as a failure:
// - Deadlock: threads that wait for each other without a deadline, or no thread can go on and none waits for
//   a time.
// - Livelock: more steps, or more virtual time, than any schedule needs.
// - Misuse: a semaphore is used while it does not exist, or destroyed with a thread inside a call on it; a
//   locked mutex is destroyed; a thread outlives the first one.
// - A Check that fails.
//
// A crash ends the program; before that, the number of the schedule is printed.
//
// The threads of a failed schedule cannot be ended: their stacks and all they own are abandoned.
//
// Thread rule: Run is [one thread]; the rest is called in a schedule only.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace zumod::testing {

class Scheduler {
public:
    enum class TimedLocks {
        kTimeOut,
        kWaitForever,  // a planted bug: each behaves like a plain lock
    };

    // Runs `body` as the first thread, until all threads have ended. Returns what failed, with the state of
    // the threads and the last steps, or nothing. The same seed and program return the same text.
    static std::string Run(uint64_t seed, const std::function<void()>& body,
                           TimedLocks timed_locks = TimedLocks::kTimeOut);

    // A number below `limit`.
    static uint64_t Draw(uint64_t limit);
    static std::chrono::nanoseconds Now();
    // At least one scheduling point, also for 0.
    static void Sleep(std::chrono::nanoseconds time);
    // Threads that have not ended, the first one included.
    static size_t LiveThreads();
    static void Check(bool condition, const char* failure);
    // The steps of the last schedule.
    static uint64_t Steps();
};

}  // namespace zumod::testing
