// Which of a device's pixel formats a capture takes.
//
// Thread rule: pure functions, [any thread].
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "src/capture/supported_formats.h"

namespace zumod {

// The first planar 4:2:0 format of exactly this size, in the order of the list; failing that YUYV. No other
// size is a fallback.
std::optional<uint32_t> ChoosePixelFormat(const std::vector<SupportedFormat>& entries, int32_t width,
                                          int32_t height);

// Whether a format that a device insists on can be captured all the same. BGR4 can, though it is never
// chosen.
bool IsCapturable(uint32_t pixel_format);

}  // namespace zumod
