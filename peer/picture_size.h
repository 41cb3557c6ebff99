// Sizes of pictures as people give and read them, and which one is taken when none is given.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "peer/camera_list.h"

namespace zumod::peer {

// "640x480"; each side from 1 to 16384. Nothing when the text is anything else.
std::optional<PictureSize> ParseSize(const std::string& text);
std::string SizeText(PictureSize size);

// The largest size that fits into 1280x720; the smallest one when none fits; 640x480 when none is listed.
PictureSize DefaultSize(const std::vector<PictureSize>& listed);

}  // namespace zumod::peer
