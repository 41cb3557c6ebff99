// Description of one usable camera of this computer. Free of V4L2: the plugin uses it, too.
//
// Thread rule: a plain value.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace zumod {

struct CameraResolution {
    int32_t width;
    int32_t height;

    bool operator==(const CameraResolution&) const = default;
};

struct CameraDeviceInfo {
    // Position among the usable cameras of one enumeration. Changes when a camera before it comes or goes.
    uint32_t id = 0;
    // Always false here; sent to the peer unchanged.
    bool inUse = false;
    std::string name;
    std::string displayName;
    // Device file.
    std::string file;
    std::array<uint8_t, 248> reserved_block{};
    uint32_t reserved_word = 0;
    // Distinct frame sizes, in the order in which they were first found.
    std::vector<CameraResolution> resolutions;
};

}  // namespace zumod
