// Decoding of a camera's Motion-JPEG pictures.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstdint>
#include <vector>

namespace zumod::vcam {

// The luma of a JPEG picture, row by row. Empty if the picture has another size or is damaged.
std::vector<uint8_t> DecodeLuma(const std::vector<uint8_t>& jpeg, unsigned width, unsigned height);

}  // namespace zumod::vcam
