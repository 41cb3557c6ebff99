// Reading of the counter and the time from a camera's picture.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "common/picture_stamp.h"
#include "vcam/picture/pixel_format.h"

namespace zumod::vcam {

using zumod::ReadStamp;

// The stamp of an uncompressed picture, or nullopt if it has none or an unreadable one.
inline std::optional<Stamp> ReadStamp(const uint8_t* picture, const PictureLayout& layout) {
    const PixelFormat* format = FindPixelFormat(layout.fourcc);
    if (format == nullptr || format->compressed) {
        return std::nullopt;
    }
    // A format without luma has the blocks in its first colour too: they are black and white.
    const size_t luma = format->pixel.find('Y');
    return ReadStamp(picture + (luma == std::string_view::npos ? 0 : luma), layout.bytesperline, layout.width,
                     layout.height, format->PixelBytes());
}

}  // namespace zumod::vcam
