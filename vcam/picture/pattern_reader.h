// Reading of the counter and the time from a camera's picture.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "common/picture_stamp.h"
#include "vcam/picture/pixel_format.h"

namespace zumod::vcam {

using zumod::ReadStamp;

// The stamp of an uncompressed picture, or nullopt if it has none or an unreadable one.
std::optional<Stamp> ReadStamp(const uint8_t* picture, const PictureLayout& layout);

}  // namespace zumod::vcam
