// A decoded picture as the bytes of a PNG file.
//
// Thread rule: pure function; any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "zumod/codec_decode.h"

namespace zumod::peer {

// Takes a picture of blue, green, red and an unused byte. Throws PeerError.
std::vector<uint8_t> EncodePng(const VideoDecodedPicture& picture);

}  // namespace zumod::peer
