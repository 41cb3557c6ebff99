// Reads the stamp out of an NV12 picture of the capture benchmarks, as both sides of a comparison do.
#pragma once

#include <chrono>

#include "bench/stamped_packet.h"
#include "common/picture_stamp.h"

namespace zumod::bench {

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
