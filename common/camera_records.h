// The records in the body of a camera list.
//
// A record states its number of sizes modulo 256. The real number follows from where the next record, which
// has many zero bytes, and the end of the message are.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "zumod/camera_channel.h"

namespace zumod {

// A list beyond these limits is malformed. A machine has at most 64 device files, and no camera has nearly as
// many sizes.
inline constexpr size_t kMostCameras = 64;
inline constexpr size_t kMostSizes = 2047;

// A CameraRecord and its sizes, as they are in the message.
using CameraRecordBytes = std::span<const uint8_t>;

// The records of a body of at least 4 bytes. Nothing if they do not fill it, or there are too many of them.
std::optional<std::vector<CameraRecordBytes>> SplitCameraList(std::span<const uint8_t> body);

}  // namespace zumod
