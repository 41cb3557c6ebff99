// Where the frames of a recording go: a file, or standard output.
//
// Thread rule: one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "peer/host_calls.h"
#include "peer/options.h"
#include "peer/stop_signals.h"

namespace zumod::peer {

class FrameSink {
public:
    FrameSink() = default;
    FrameSink(const FrameSink&) = delete;
    FrameSink& operator=(const FrameSink&) = delete;
    virtual ~FrameSink() = default;

    // False for a frame that is left out because it is no place to begin.
    virtual bool Add(const Frame& frame) = 0;
    // To be called once a frame was added, also after a failure.
    virtual void Keep() = 0;
    virtual std::string Name() const = 0;
};

// A path of "-" is standard output. Throws PeerError, as the sink's operations do.
std::unique_ptr<FrameSink> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                         const StopSignals& signals);

}  // namespace zumod::peer
