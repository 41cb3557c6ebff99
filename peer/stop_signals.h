// SIGINT, SIGTERM and SIGHUP as something to wait for beside everything else.
//
// Thread rule: made on the main thread before there is any other, because threads inherit what is blocked.
#pragma once

#include "common/unique_fd.h"

namespace zumod::peer {

class StopSignals {
public:
    // Blocks the signals and ignores SIGPIPE.
    StopSignals();

    // Readable while a signal waits.
    int Descriptor() const { return m_descriptor.Get(); }

    // Throws Interrupted when a signal waits, and takes it: the next one can end what is done at the end.
    void Check() const;

private:
    UniqueFd m_descriptor;
};

}  // namespace zumod::peer
