// A machine-readable mark in a picture: a frame counter and a monotonic time as black and white luma blocks
// along the top edge, large enough to survive strong compression.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace zumod {

struct Stamp {
    uint32_t counter = 0;
    uint64_t time_us = 0;  // CLOCK_MONOTONIC, 48 bits

    bool operator==(const Stamp&) const = default;
};

inline constexpr unsigned kStampBits =
    4 + 32 + 48 + 16;  // black-and-white reference, counter, time, check sum
inline constexpr uint8_t kStampBlack = 16;
inline constexpr uint8_t kStampWhite = 235;

// The position of the blocks: in rows from the top left corner, one per bit.
struct StampGrid {
    unsigned block = 0;    // a block's width and height; 0 if the picture is too small for a stamp
    unsigned columns = 0;  // blocks per row
    unsigned rows = 0;

    static StampGrid For(unsigned width, unsigned height);
};

using StampPattern = std::array<bool, kStampBits>;  // true is white

StampPattern EncodeStamp(const Stamp& stamp);
std::optional<Stamp> DecodeStamp(const StampPattern& bits);

// Reads a luma plane with `stride` bytes from row to row and `step` bytes from one luma sample to the next: 1
// for planar pictures, 2 for YUYV, 4 for BGR4, where blue distinguishes black from white as well as luma.
// Nothing if there is no stamp or it was destroyed.
std::optional<Stamp> ReadStamp(const uint8_t* luma, size_t stride, unsigned width, unsigned height,
                               unsigned step = 1);

}  // namespace zumod
