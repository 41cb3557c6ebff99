// A decoded picture as the bytes of a PNG or JPEG file.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/error.h"
#include "zumod/codec_decode.h"

namespace zumod::peer {

struct PictureFormat;

// By the ending of a file's name, in any letter case: .png, .jpg or .jpeg. PNG for "-". Null for other names.
const PictureFormat* PictureFormatOf(const std::string& path);

// The picture's pixels are blue, green, red and an unused byte.
Expected<std::vector<uint8_t>> EncodePicture(const VideoDecodedPicture& picture, const PictureFormat& format);

}  // namespace zumod::peer
