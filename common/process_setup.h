// What a program sets up before any other thread starts: its standard descriptors and its stop signals.
//
// Thread rule: main thread; threads inherit the signal mask.
#pragma once

#include "common/unique_fd.h"

namespace zumod {

// Opens /dev/null for each standard descriptor that the program was started without, so that no other file
// gets its number. Reading from such an input and writing to such an output still fail.
void FillStandardDescriptors();

// SIGINT, SIGTERM and SIGHUP as a descriptor to poll.
class StopSignals {
public:
    // Blocks the three signals, and ignores SIGPIPE.
    StopSignals();

    // Readable while a signal is pending.
    int Descriptor() const { return m_descriptor.Get(); }

    // Whether a signal is pending. Consumes it, so that a second signal can interrupt the clean-up.
    bool Consume() const;

private:
    UniqueFd m_descriptor;
};

}  // namespace zumod
