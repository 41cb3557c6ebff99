// Reads the counter and the time out of a picture, straight from a camera or after it was compressed and
// decoded. Needs nothing but this header and stamp.{h,cpp}. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "vcam/pixel_format.h"
#include "vcam/stamp.h"

namespace zumod::vcam {

// A luma plane: `stride` bytes from row to row, `step` bytes from one luma sample to the next (1 for planar
// pictures, 2 for YUYV, 4 for BGR4, where blue serves as well as luma for black and white). Nothing when
// there is no stamp or it was destroyed.
std::optional<Stamp> ReadStamp(const uint8_t* luma, size_t stride, unsigned width, unsigned height,
                               unsigned step = 1);

// The same of an uncompressed picture as a camera gives it.
std::optional<Stamp> ReadStamp(const uint8_t* picture, const PictureLayout& layout);

}  // namespace zumod::vcam
