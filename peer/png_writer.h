// A decoded picture as the bytes of a PNG file.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "common/error.h"
#include "zumod/codec_decode.h"

namespace zumod::peer {

// The picture's pixels are blue, green, red and an unused byte.
Expected<std::vector<uint8_t>> EncodePng(const VideoDecodedPicture& picture);

}  // namespace zumod::peer
