// The faults that a camera has at the moment, and what each of them changes.
//
// Thread rule: the camera's lock guards it.
#pragma once

#include <linux/videodev2.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "vcam/model/faults.h"

namespace zumod::vcam {

// What becomes of a frame that is due.
enum class FrameFate {
    kDelivered,
    kDropped,
    kEmpty,      // the descriptor becomes readable, without a frame
    kFailed,     // the stream fails instead
    kUnplugged,  // the camera is unplugged instead
};

class FaultSet {
public:
    void Add(const Fault& fault) { m_active.push_back({fault, 0}); }
    void Clear() { m_active.clear(); }

    // The fault of this kind that was added first, or null.
    const Fault* Find(FaultKind kind) const;
    bool Has(FaultKind kind) const { return Find(kind) != nullptr; }
    // Removes and returns it.
    std::optional<Fault> Take(FaultKind kind);

    // Whether calls of this request (kOpenCall for open) are counted by a fault.
    bool CountsCallsOf(uint64_t request) const;
    // Counts one call. The errno it fails with, or 0.
    int FailsCall(uint64_t request);

    // What becomes of this frame. A fault that ends the stream is removed.
    FrameFate OnFrame(uint64_t frame);
    // Changes what the program is told about a delivered frame.
    void Spoil(uint64_t frame, v4l2_buffer& buffer) const;
    // Removes and returns the pause that is due before this frame.
    std::optional<std::chrono::milliseconds> TakeStall(uint64_t frame);

private:
    struct Active {
        Fault fault;
        uint64_t calls = 0;
    };

    // The first fault of this kind that covers the frame, or null.
    const Fault* FindFor(FaultKind kind, uint64_t frame) const;
    template <class Condition>
    std::optional<Fault> TakeIf(FaultKind kind, Condition condition);

    std::vector<Active> m_active;
};

}  // namespace zumod::vcam
