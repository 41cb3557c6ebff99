// What a program sets up before any other thread starts: its standard descriptors and its stop signals.
//
// Thread rule: main thread; threads inherit the signal mask.
#pragma once

#include <chrono>
#include <string_view>

#include "common/unique_fd.h"

namespace zumod {

// Opens /dev/null for each standard descriptor that the program was started without, so that no other file
// gets its number. Reading from such an input and writing to such an output still fail. Returns the first of
// them that was closed, or -1.
int FillStandardDescriptors();

// The terminal behind the descriptor, opened again: writes to it do not block, and the descriptors of other
// processes stay as they are. Invalid if there is no terminal, or it cannot be opened.
//
// A terminal that is stopped (with ^S) or not read takes nothing, without limit. That it is ready for poll()
// says only that it takes some bytes.
UniqueFd OpenTerminalAgain(int descriptor);

// Writes what the descriptor takes within this time. A terminal should come from OpenTerminalAgain().
void WriteWithin(std::chrono::milliseconds time, int descriptor, std::string_view text);

// SIGINT, SIGTERM and SIGHUP as a descriptor to poll.
class StopSignals {
public:
    // What a second SIGINT or SIGTERM does, after the first one was consumed: either it is consumed too, or
    // it ends the process at once. A second SIGHUP never ends the process: a terminal that is closed sends
    // one, and its shell another.
    enum class Second { kIsConsumed, kEndsProcess };

    // Blocks the three signals, ignores SIGPIPE, and no longer ignores SIGCHLD: a program that was started
    // with it ignored could not wait for its children. If there is no descriptor left, the three signals stay
    // as they are and end the process.
    explicit StopSignals(Second second = Second::kIsConsumed);

    // Readable while a signal is pending. Negative, if there was no descriptor left.
    int Descriptor() const { return m_descriptor.Get(); }

    // [main thread]. Whether a signal is pending. Consumes it, so that a second signal can interrupt the
    // clean-up.
    bool Consume() const;

private:
    const Second m_second;
    UniqueFd m_descriptor;
};

}  // namespace zumod
