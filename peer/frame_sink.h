// Where the frames of a recording go: a file, or standard output.
//
// Thread rule: one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "common/error.h"
#include "peer/host_calls.h"
#include "peer/options.h"
#include "peer/standard_output.h"

namespace zumod::peer {

class FrameSink {
public:
    enum class Result {
        kTaken,
        kSkipped,  // a recording cannot start with this frame
        kNotNow,   // add the same frame again once a Wait() has returned
    };

    FrameSink() = default;
    FrameSink(const FrameSink&) = delete;
    FrameSink& operator=(const FrameSink&) = delete;
    virtual ~FrameSink() = default;

    // Never blocks. A sink that answers kNotNow keeps no copy of the frame: the caller holds it.
    virtual Expected<Result> Add(const Frame& frame) = 0;
    // To be called once a frame was taken, also after a failure.
    virtual Expected<void> Finish() = 0;
    virtual std::string Name() const = 0;
};

// The path "-" is standard output.
Expected<std::unique_ptr<FrameSink>> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                                   StandardOutput& output);

}  // namespace zumod::peer
