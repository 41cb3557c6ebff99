// A picture with its colours at half the resolution, out of a decoder or out of the bytes of any format that
// the module takes; how alike two are; and the time that the driver burnt in.
//
// Thread rule: plain values.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zumod/codec_decode.h"

namespace zumod::testing {

struct Picture {
    int width = 0;
    int height = 0;
    std::array<std::vector<uint8_t>, 3> planes;  // rows without padding

    int PlaneWidth(size_t plane) const { return plane == 0 ? width : (width + 1) / 2; }
    int PlaneHeight(size_t plane) const { return plane == 0 ? height : (height + 1) / 2; }
};

Picture CopyOf(const VideoDecodedPicture& decoded);

// Bytes without padding in one of the formats "NV12", "NV21", "YU12", "YV12", "YUYV" and "BGR4", of an even
// size.
Picture FromBytes(const std::string& format, int width, int height, const std::vector<uint8_t>& bytes);

// The worst of the three planes in decibels, without the rows that the time is burnt into.
double Likeness(const Picture& one, const Picture& other);

// The driver's "00:00:12:345" in the picture's first row of text, in milliseconds.
std::optional<int> BurntInTime(const Picture& picture);

}  // namespace zumod::testing
