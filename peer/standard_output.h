// Standard output (or standard error) that never blocks the program: while its reader is slow, signals and
// other descriptors are still served.
//
// The descriptor stays in blocking mode, because O_NONBLOCK would also change it for other processes that
// share it. A pipe that poll() reports as writable takes PIPE_BUF bytes without blocking, so that is what is
// written between two waits. A terminal gives no such promise, so it is opened again, and that descriptor is
// non-blocking.
//
// Thread rule: one thread at a time.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "common/error.h"
#include "common/process_setup.h"
#include "common/unique_fd.h"
#include "common/waiter.h"

namespace zumod::peer {

// The error when the reader is gone: it has seen enough, so the program ends with status 0 and says nothing.
inline Error OutputClosed() {
    return {"", 0};
}

class StandardOutput {
public:
    explicit StandardOutput(Waiter& waiter, int descriptor = STDOUT_FILENO)
        : m_waiter(waiter),
          m_terminal(OpenTerminalAgain(descriptor)),
          m_descriptor(m_terminal ? m_terminal.Get() : descriptor) {}
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    bool IsTerminal() const { return isatty(m_descriptor) == 1; }

    // Writes what can be written without blocking and returns how many bytes that was. If it was not all, a
    // Wait() of the waiter returns once more can be written.
    Expected<size_t> WriteSome(std::span<const uint8_t> bytes);

    // Waits until all of it is written.
    Expected<void> Write(const std::string& text);

    // Writes what can be written without a wait. The rest goes first at the next call; a text for which no
    // place is left is dropped.
    void Offer(const std::string& text);

    // For lines that a person reads: Offer() on a terminal, which may be stopped (with ^S) and must not delay
    // the program, otherwise Write().
    Expected<void> Print(const std::string& text);

private:
    void WriteOffered();

    Waiter& m_waiter;
    const UniqueFd m_terminal;  // open only if the descriptor is a terminal
    const int m_descriptor;
    std::string m_offered;                // the rest of a text
    Waiter::Registration m_registration;  // while it is not known to be writable
    bool m_writable = false;
};

}  // namespace zumod::peer
