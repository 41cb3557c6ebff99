#include "host/key_frame.h"

#include <algorithm>
#include <array>

namespace zumod::host {
namespace {

constexpr std::array<uint8_t, 3> kStartCode = {0, 0, 1};
constexpr uint8_t kTypeBits = 0x1F;
constexpr uint8_t kFirstSlice = 1;  // 1 to 5 are slices: parts of a picture
constexpr uint8_t kIdrSlice = 5;

}  // namespace

bool IsKeyFrame(std::span<const uint8_t> encoded) {
    auto next = encoded.begin();
    for (;;) {
        next = std::search(next, encoded.end(), kStartCode.begin(), kStartCode.end());
        if (encoded.end() - next <= static_cast<std::ptrdiff_t>(kStartCode.size())) {
            return false;
        }
        next += kStartCode.size();
        const uint8_t type = *next & kTypeBits;
        if (type >= kFirstSlice && type <= kIdrSlice) {
            return type == kIdrSlice;
        }
    }
}

}  // namespace zumod::host
