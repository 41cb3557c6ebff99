// One usable camera of this machine, as an enumeration found it.
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
    // The position among the usable cameras of one enumeration: it is stable only as long as the usable
    // devices below it are the same.
    uint32_t id = 0;
    // Never set by the enumeration; goes to the peer as it is.
    bool inUse = false;
    std::string name;
    std::string displayName;
    // The device file.
    std::string file;
    std::array<uint8_t, 248> reserved_block{};
    uint32_t reserved_word = 0;
    // Distinct frame sizes, in the order in which they were first found.
    std::vector<CameraResolution> resolutions;
};

}  // namespace zumod
