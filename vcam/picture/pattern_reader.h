// Reads the counter and the time out of a picture, straight from a camera or after it was compressed and
// decoded. Needs nothing but this header and stamp.{h,cpp}. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "common/picture_stamp.h"
#include "vcam/picture/pixel_format.h"

namespace zumod::vcam {

using zumod::ReadStamp;

// The stamp of an uncompressed picture; nothing when there is none or it was destroyed.
std::optional<Stamp> ReadStamp(const uint8_t* picture, const PictureLayout& layout);

}  // namespace zumod::vcam
