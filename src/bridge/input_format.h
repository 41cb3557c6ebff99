// How a captured picture is described to the encoder. Pure functions.
#pragma once

#include <cstdint>
#include <optional>

#include "zumod/codec.h"

namespace zumod {

// The record for a picture of the capture's pixel format (a V4L2 FourCC); nothing for a format that the
// encoder is not given.
std::optional<VideoInputFormat> InputFormatOf(int32_t width, int32_t height, uint32_t fourcc);

// Bytes in a row of pixels, rounded up to a multiple of 4.
int32_t RowStride(int32_t width, int32_t bits_per_pixel);

}  // namespace zumod
