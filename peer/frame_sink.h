// Where the frames of a recording go: files, or standard output.
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

    // Whose frames follow.
    virtual void Begin(const CameraEntry& camera) = 0;
    // Never blocks for a reader.
    virtual Expected<Result> Add(const Frame& frame) = 0;
    // When to call Flush() if no frame arrives before.
    virtual Clock::time_point FlushDue() const { return Clock::time_point::max(); }
    // Writes the frames that are held in memory.
    virtual Expected<void> Flush() { return {}; }
    // Completes a file. The next frame that a recording can start with is the first one of another file.
    virtual Expected<void> Split() = 0;
    // To be called once a frame was taken, also after a failure.
    virtual Expected<void> Finish() = 0;
    virtual std::string Name() const = 0;
};

// The path "-" is standard output. `options` is borrowed.
Expected<std::unique_ptr<FrameSink>> MakeFrameSink(const std::string& path, const PeerOptions& options,
                                                   StandardOutput& output);

}  // namespace zumod::peer
