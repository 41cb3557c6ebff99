// The cameras of a host, and how they are read from the body of a list message.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "zumod/camera_channel.h"

namespace zumod::peer {

struct PictureSize {
    uint32_t width = 0;
    uint32_t height = 0;

    bool operator==(const PictureSize&) const = default;
};

struct CameraEntry {
    uint32_t id = 0;
    bool in_use = false;
    // Bytes as the host sent them, up to the first zero: not fit for a terminal, perhaps no UTF-8.
    std::string name;
    std::string display_name;
    std::vector<PictureSize> sizes;

    bool operator==(const CameraEntry&) const = default;
};

// A list beyond these is refused: a machine has at most 64 device files, and no camera nearly as many sizes.
inline constexpr size_t kMostCameras = 64;
inline constexpr size_t kMostSizes = 2047;
inline constexpr size_t kLongestList =
    sizeof(uint32_t) + kMostCameras * (sizeof(CameraRecord) + kMostSizes * sizeof(ResolutionPair));

// Nothing, and the reason in `error`, when the body is no list. A record counts its sizes modulo 256: how
// many there are follows from where the next record, with its many zero bytes, and the end of the message
// are.
std::optional<std::vector<CameraEntry>> ParseCameraList(std::span<const uint8_t> body, std::string& error);

}  // namespace zumod::peer
