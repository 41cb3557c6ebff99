// The monotonic clock, and how long to wait by it. It is the clock of the time stamps in virtual cameras'
// pictures.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <poll.h>

#include <chrono>
#include <span>
#include <string>

namespace zumod::peer {

using Clock = std::chrono::steady_clock;

// Seconds with one decimal, as in "10.0 s".
std::string SecondsText(Clock::duration duration);

// poll(2) until then; false when the time has come, or a signal without a descriptor, with nothing ready.
bool PollUntil(std::span<pollfd> waits, Clock::time_point deadline);

}  // namespace zumod::peer
