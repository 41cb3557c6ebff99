#include "peer/picture_mailbox.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace zumod::peer {
namespace {

constexpr uint8_t kDarkLuma = 32;
constexpr uint8_t kBrightLuma = 140;
constexpr uint8_t kNoColour = 128;

size_t BytesOf(std::span<const PicturePlane> planes) {
    return planes.empty() ? 0 : planes.back().offset + planes.back().row_bytes * planes.back().rows;
}

// A ring with a bar across it, in the middle of a picture whose shorter side is `side`. `x` and `y` are
// counted from the centre.
bool IsInSign(int64_t x, int64_t y, int64_t side) {
    const int64_t outer = side / 4;
    const int64_t inner = side / 5;
    const int64_t distance = x * x + y * y;
    const int64_t from_bar = x - y;
    return distance <= outer * outer &&
           (distance >= inner * inner || (outer - inner) * (outer - inner) >= from_bar * from_bar);
}

}  // namespace

std::vector<PicturePlane> PlanesOf(PictureSize size, VideoTargetFormat format) {
    const size_t width = size.width;
    const size_t height = size.height;
    const size_t luma = width * height;
    const size_t half_width = (width + 1) / 2;
    const size_t half_height = (height + 1) / 2;
    switch (format) {
        case kVideoTargetI420:
            return {{0, width, height},
                    {luma, half_width, half_height},
                    {luma + half_width * half_height, half_width, half_height}};
        case kVideoTargetNv12:
            return {{0, width, height}, {luma, 2 * half_width, half_height}};
        case kVideoTargetBgr32:
            break;
    }
    return {};
}

bool CopyPicture(const VideoDecodedPicture& decoded, VideoTargetFormat format, Picture& picture) {
    picture.size = {static_cast<uint32_t>(std::max(decoded.width, 0)),
                    static_cast<uint32_t>(std::max(decoded.height, 0))};
    picture.format = format;
    const auto planes = PlanesOf(picture.size, format);
    if (planes.size() != static_cast<size_t>(std::max(decoded.plane_count, 0))) {
        picture.bytes.clear();
        return false;
    }
    picture.bytes.resize(BytesOf(planes));
    for (size_t i = 0; i < planes.size(); ++i) {
        const uint8_t* from = decoded.planes[i];
        uint8_t* to = picture.bytes.data() + planes[i].offset;
        for (size_t row = 0; row < planes[i].rows; ++row) {
            std::memcpy(to, from, planes[i].row_bytes);
            from += decoded.strides[i];
            to += planes[i].row_bytes;
        }
    }
    return true;
}

void DrawNoCamera(PictureSize size, VideoTargetFormat format, Picture& picture) {
    const auto planes = PlanesOf(size, format);
    picture.size = size;
    picture.format = format;
    picture.bytes.assign(BytesOf(planes), kNoColour);
    if (planes.empty()) {
        return;
    }
    const int64_t side = std::min(size.width, size.height);
    auto luma = picture.bytes.begin();
    for (int64_t y = 0; y < size.height; ++y) {
        for (int64_t x = 0; x < size.width; ++x) {
            *luma++ = IsInSign(x - size.width / 2, y - size.height / 2, side) ? kBrightLuma : kDarkLuma;
        }
    }
}

}  // namespace zumod::peer
