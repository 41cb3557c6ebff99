// The letters burnt into a picture. Pure functions; any thread.
#pragma once

#include <array>
#include <cstdint>

namespace zumod::vcam {

inline constexpr unsigned kTile = 16;  // pixels: the grid everything that changes is drawn on

using Glyph = std::array<std::array<bool, kTile>, kTile>;  // [row][column], true is lit

// Digits, letters (small ones as capitals) and ". : - /"; anything else is blank.
Glyph DrawGlyph(char letter);

}  // namespace zumod::vcam
