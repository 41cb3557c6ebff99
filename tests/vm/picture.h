// A picture with chroma at half the resolution, from a decoder or from bytes in any format that the module
// accepts; the similarity of two pictures; and the time that the driver draws into them.
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

// Bytes without padding, of an even size, in one of the formats "NV12", "NV21", "YU12", "YV12", "YUYV" and
// "BGR4".
Picture FromBytes(const std::string& format, int width, int height, const std::vector<uint8_t>& bytes);

// The worst of the three planes in decibels, without the rows that show the time.
double Likeness(const Picture& one, const Picture& other);

// The time "00:00:12:345" in the driver's first row of text, in milliseconds.
std::optional<int> BurntInTime(const Picture& picture);

}  // namespace zumod::testing
