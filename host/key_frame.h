// Detection of H.264 key frames in the encoded bytes of a video frame.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <cstdint>
#include <span>

namespace zumod::host {

// Whether decoding can begin with this frame: the first slice in it belongs to an IDR picture. `encoded` is a
// byte stream as in Annex B of H.264. False for other bytes. Reads no further than the first slice's header.
bool IsKeyFrame(std::span<const uint8_t> encoded);

}  // namespace zumod::host
