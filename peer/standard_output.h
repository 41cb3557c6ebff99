// Standard output that never blocks the program: while its reader is slow, signals and other descriptors are
// still served.
//
// Standard output stays in blocking mode, because O_NONBLOCK would also change it for other processes that
// share it. A pipe that poll() reports as writable takes PIPE_BUF bytes without blocking, so that is what is
// written between two waits.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "common/waiter.h"

namespace zumod::peer {

class StandardOutput {
public:
    explicit StandardOutput(Waiter& waiter) : m_waiter(waiter) {}
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    // Writes what can be written without blocking and returns how many bytes that was. If it was not all, a
    // Wait() of the waiter returns once more can be written. Throws OutputClosed when the reader is gone,
    // PeerError for another failure.
    size_t WriteSome(std::span<const uint8_t> bytes);

    // Waits until all of it is written. Also throws Interrupted.
    void Write(const std::string& text);

private:
    Waiter& m_waiter;
    Waiter::Registration m_registration;  // while not known to be writable
    bool m_writable = false;
};

}  // namespace zumod::peer
