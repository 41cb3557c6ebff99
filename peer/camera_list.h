// The cameras of a host: the body of a list message, and the sizes of pictures.
//
// Thread rule: values and pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/camera_records.h"
#include "common/error.h"
#include "zumod/camera_channel.h"

namespace zumod::peer {

struct PictureSize {
    uint32_t width = 0;
    uint32_t height = 0;

    bool operator==(const PictureSize&) const = default;
};

// The size in a text such as "640x480" or "640X480", each side from 1 to 16384. Nothing for any other text.
std::optional<PictureSize> ParseSize(const std::string& text);
std::string SizeText(PictureSize size);

// The largest size that fits into 1280x720; the smallest one if none fits; 640x480 if none is listed.
PictureSize DefaultSize(const std::vector<PictureSize>& listed);
// The default one of those with fewer pixels than this size; nothing if there is none.
std::optional<PictureSize> SmallerSize(std::vector<PictureSize> listed, PictureSize than);
// A camera is not tried with more sizes than so many: each is an open at the host.
inline constexpr int kMostSizesTried = 8;

struct CameraEntry {
    uint32_t id = 0;
    bool in_use = false;
    // Bytes as the host sent them, up to the first zero: not safe for a terminal, and maybe not UTF-8.
    std::string name;
    std::string display_name;
    std::vector<PictureSize> sizes;

    bool operator==(const CameraEntry&) const = default;
};

// The longest body of a list.
inline constexpr size_t kLongestList =
    sizeof(uint32_t) + kMostCameras * (sizeof(CameraRecord) + kMostSizes * sizeof(ResolutionPair));

// The cameras in the body of a list message.
Expected<std::vector<CameraEntry>> ParseCameraList(std::span<const uint8_t> body);

}  // namespace zumod::peer
