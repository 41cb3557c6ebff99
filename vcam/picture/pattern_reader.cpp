#include "vcam/picture/pattern_reader.h"

namespace zumod::vcam {

std::optional<Stamp> ReadStamp(const uint8_t* picture, const PictureLayout& layout) {
    const PixelFormat* format = FindPixelFormat(layout.fourcc);
    if (format == nullptr || format->compressed) {
        return std::nullopt;
    }
    // In a format without luma the first colour does as well: the blocks are black and white.
    const size_t luma = format->pixel.find('Y');
    return ReadStamp(picture + (luma == std::string_view::npos ? 0 : luma), layout.bytesperline, layout.width,
                     layout.height, format->PixelBytes());
}

}  // namespace zumod::vcam
