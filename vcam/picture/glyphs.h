// The letters drawn into a picture.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <array>
#include <cstdint>

namespace zumod::vcam {

inline constexpr unsigned kTile = 16;  // pixels; everything that changes is drawn on this grid

using Glyph = std::array<std::array<bool, kTile>, kTile>;  // [row][column], true is lit

// Knows digits, letters (lower case is drawn as upper case) and ". : - /"; anything else is blank.
Glyph DrawGlyph(char letter);

}  // namespace zumod::vcam
