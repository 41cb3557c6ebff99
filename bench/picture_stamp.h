// What the encoder of the capture benchmarks returns: a kilobyte that begins with the stamp of the picture.
// Both sides of a comparison read the stamp with ReadPicture.
//
// Thread rule: pure functions and plain values.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "common/picture_stamp.h"

namespace zumod::bench {

inline constexpr size_t kEncodedSize = 1024;

struct StampedPacket {
    uint64_t painted_us;  // CLOCK_MONOTONIC, when the picture was painted
    uint64_t encode_ns;   // time spent in the encoder
    uint32_t counter;     // the camera's frame counter
    uint32_t readable;    // 0 if the picture carries no stamp
};

// The picture's first plane is `width` bytes per row.
inline StampedPacket ReadPicture(const uint8_t* luma, int width, int height) {
    const auto start = std::chrono::steady_clock::now();
    const auto stamp = ReadStamp(luma, static_cast<size_t>(width), static_cast<unsigned>(width),
                                 static_cast<unsigned>(height));
    StampedPacket packet{};
    if (stamp) {
        packet.painted_us = stamp->time_us;
        packet.counter = stamp->counter;
        packet.readable = 1;
    }
    packet.encode_ns = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
            .count());
    return packet;
}

}  // namespace zumod::bench
