// The table from an ioctl's number to the part of the camera that answers it.
//
// Thread rule: the caller holds the camera's lock.
#pragma once

#include <cstdint>
#include <vector>

#include "vcam/model/camera_parts.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

// Answers an ioctl of an open file. Returns 0 or errno; the payload becomes that of the reply.
int ServeIoctl(CameraParts& parts, const OpenFile& file, const Request& request,
               std::vector<uint8_t>& payload);

}  // namespace zumod::vcam
