// The protocol by which another process feeds a camera with pictures, and learns when programs want them.
//
// The feeder connects to the server's socket and sends a request of Operation::kFeed. The reply carries a
// FeedOffer and a descriptor of memory, which the server made and sealed, so that nobody can shrink it under
// the other side. The connection then stays: the server sends a FeedNotice at once and at each change, and
// the feeder a FeedCommand for each picture, to unplug the camera, or to plug it in again. When the
// connection ends, the camera is unplugged until another feeder comes. A camera has at most one feeder.
//
// Pictures. The memory has three slots. At any time the feeder writes to one, the server reads one, and the
// third holds the newest picture, or one that was taken already. `newest` is the number of the third slot,
// and kNew while it holds a picture that was not taken. Each side exchanges its own slot for the third one in
// one atomic step, so neither waits, and the newest picture wins.
//
// Trust. The server trusts nothing in the memory: it takes each number once, checks it, and copies the
// picture before it uses it. A feeder that writes to all three slots spoils only its own pictures. The memory
// is all that they share: neither side can change how the other one reads, or take what was sent to it, so
// neither can make the other one wait.
//
// Thread rule: of FeedMemory: any thread of any process; each word is atomic by itself. The rest are values.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vcam/model/camera_config.h"

namespace zumod::vcam {

struct FeedOffer {
    // Bytes. A picture of 4:2:0 planes without padding takes width * height * 3 / 2. If a program agrees on a
    // size that does not fit, the feeder must send a smaller one.
    uint32_t slot_size;
};

struct FeedNotice {
    uint32_t is_streaming;
    uint32_t width;  // what the program agreed on; other sizes are scaled
    uint32_t height;
    uint32_t rate_numerator;  // frames per second
    uint32_t rate_denominator;

    bool operator==(const FeedNotice&) const = default;
};

struct FeedCommand {
    static constexpr uint32_t kUnplug = 0;
    static constexpr uint32_t kPlugIn = 1;
    static constexpr uint32_t kPicture = 2;  // there is a new one; lost if the server has enough to read

    uint32_t action;
};

struct FeedMemory {
    static constexpr uint32_t kSlots = 3;
    static constexpr uint32_t kSlotMask = 3;
    static constexpr uint32_t kNew = 4;
    // New memory is zero: slot 0 is the third one.
    static constexpr uint32_t kFirstOfServer = 1;
    static constexpr uint32_t kFirstOfFeeder = 2;

    struct Picture {
        std::atomic<uint32_t> width;
        std::atomic<uint32_t> height;
    };

    std::atomic<uint32_t> newest;
    Picture pictures[kSlots];
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

// The slots begin here, one after the other.
inline constexpr size_t kFeedHeaderSize = 4096;
static_assert(sizeof(FeedMemory) <= kFeedHeaderSize);

inline constexpr size_t FeedMemorySize(uint32_t slot_size) {
    return kFeedHeaderSize + size_t{FeedMemory::kSlots} * slot_size;
}

// Whether a feeder may put a picture of this size into a slot.
inline constexpr bool FitsSlot(uint32_t width, uint32_t height, uint32_t slot_size) {
    const auto is_side = [](uint32_t side) {
        return side >= kLeastSide && side <= kGreatestSide && side % 2 == 0;
    };
    return is_side(width) && is_side(height) && uint64_t{width} * height * 3 / 2 <= slot_size;
}

}  // namespace zumod::vcam
