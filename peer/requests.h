// The messages that a peer sends, as bytes.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "peer/camera_list.h"

namespace zumod::peer {

std::vector<uint8_t> ListRequest();
std::vector<uint8_t> VersionRequest();
std::vector<uint8_t> OpenRequest(uint32_t id, PictureSize size, int fps);
std::vector<uint8_t> SetFormatRequest(uint32_t id, PictureSize size, int fps);
std::vector<uint8_t> CloseRequest(uint32_t id);

}  // namespace zumod::peer
