// SIGINT, SIGTERM and SIGHUP as a descriptor to poll.
//
// Thread rule: constructed on the main thread before any other thread starts, because threads inherit the
// signal mask.
#pragma once

#include "common/unique_fd.h"

namespace zumod {

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
