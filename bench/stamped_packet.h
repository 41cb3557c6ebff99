// The first bytes of what the stamping codec "encodes": whatever the picture said of itself.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zumod::bench {

inline constexpr size_t kEncodedSize = 1024;

struct StampedPacket {
    uint64_t painted_us;  // CLOCK_MONOTONIC, when the picture was made
    uint64_t encode_ns;   // how long the encoder had it
    uint32_t counter;     // the camera's frame counter
    uint32_t readable;    // 0 when the picture carried no stamp
};

}  // namespace zumod::bench
