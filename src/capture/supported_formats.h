// Which frame sizes a device delivers in which pixel formats.
//
// Thread rule: [any thread]; the function keeps no state.
#pragma once

#include <cstdint>
#include <vector>

namespace zumod {

struct SupportedFormat {
    int32_t width;
    int32_t height;
    // V4L2 FourCC.
    uint32_t pixel_format;

    bool operator==(const SupportedFormat&) const = default;
};

// Appends what the device answers to a table of candidate sizes: by candidate first, by the device's own
// order of formats second. Returns true, also for a device that offers nothing; errno then is the last
// refused request's.
bool enumSupportedFormats(int descriptor, std::vector<SupportedFormat>& entries);

}  // namespace zumod
