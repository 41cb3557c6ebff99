// One place to wait for descriptors, a stop signal and a deadline at once. The main threads of host and peer
// and the thread of the virtual cameras' server wait only here.
//
// Every part of a program that has a descriptor to wait for (a connection, standard output, a listening
// socket) registers it with a callback. Wait() calls the callbacks of all descriptors that are ready, no
// matter which part called it. Sequential code such as "send a request, wait for the answer" therefore needs
// no state machine: it calls Wait() until its own callback has produced what it needs, and all other parts
// are served in the meantime.
//
// Rules:
// - Callbacks run inside Wait(), on the caller's thread. They must not call Wait().
// - A callback may add and remove registrations, including its own. A removed one is not called any more.
// - poll() is level-triggered: a part that does not want its input now must drop its registration, otherwise
//   every Wait() returns at once. This is how a part applies back-pressure.
// - Signals come first: if one is pending, no callback runs in that round. A terminal sends its interrupt to
//   all processes of the foreground, so the process behind a connection may end at the same moment, and the
//   user should not be told of its end instead.
//
// A round costs one vector of pollfd; a program has a handful of descriptors.
//
// Thread rule: one thread at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/process_setup.h"

namespace zumod {

// Monotonic. The time stamps in the pictures of virtual cameras are of this clock, too.
using Clock = std::chrono::steady_clock;

// Seconds with one decimal, as in "10.0 s".
std::string SecondsText(Clock::duration duration);

// The error of a wait that a stop signal ended.
inline Error Interrupted() {
    return {"interrupted"};
}

class Waiter {
public:
    using Callback = std::function<void()>;

    struct Source {
        int descriptor;
        short events;
        Callback on_ready;
    };
    // The descriptor is registered until this is reset or destroyed. Must not outlive the descriptor.
    using Registration = std::shared_ptr<const Source>;

    // `signals` is borrowed; null for a waiter that no signal interrupts.
    explicit Waiter(const StopSignals* signals = nullptr) : m_signals(signals) {}
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    // `events` as poll() takes them; errors and a hang-up also count as ready.
    [[nodiscard]] Registration Watch(int descriptor, short events, Callback on_ready);

    // Returns true after the callbacks of a round and false at the deadline. Fails with Interrupted() if a
    // signal was pending; the signal is consumed, so that a second one can interrupt the clean-up after the
    // first. A deadline in the past still serves what is ready now; Clock::time_point::max() means none.
    Expected<bool> Wait(Clock::time_point deadline);

    // The same, and does not return true before this descriptor is ready, too.
    Expected<bool> WaitFor(int descriptor, short events, Clock::time_point deadline);

private:
    const StopSignals* const m_signals;
    std::vector<std::weak_ptr<const Source>> m_sources;
};

}  // namespace zumod
