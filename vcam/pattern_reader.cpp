#include "vcam/pattern_reader.h"

#include <linux/videodev2.h>

#include <array>

namespace zumod::vcam {

std::optional<Stamp> ReadStamp(const uint8_t* luma, size_t stride, unsigned width, unsigned height,
                               unsigned step) {
    const StampGrid grid = StampGrid::For(width, height);
    if (grid.block == 0) {
        return std::nullopt;
    }
    // Compression smears a block's edges: only its middle half is looked at.
    const unsigned margin = grid.block / 4;
    std::array<unsigned, kStampBits> level{};
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        const unsigned left = bit % grid.columns * grid.block;
        const unsigned top = bit / grid.columns * grid.block;
        unsigned sum = 0;
        unsigned count = 0;
        for (unsigned y = top + margin; y < top + grid.block - margin; ++y) {
            const uint8_t* row = luma + y * stride;
            for (unsigned x = left + margin; x < left + grid.block - margin; ++x) {
                sum += row[size_t{x} * step];
                ++count;
            }
        }
        level[bit] = sum / count;
    }
    // The first two blocks are white and black.
    if (level[0] < level[1] + 32) {
        return std::nullopt;
    }
    const unsigned threshold = (level[0] + level[1]) / 2;
    StampPattern bits{};
    for (unsigned bit = 0; bit < kStampBits; ++bit) {
        bits[bit] = level[bit] > threshold;
    }
    return DecodeStamp(bits);
}

std::optional<Stamp> ReadStamp(const uint8_t* picture, const PictureLayout& layout) {
    switch (layout.fourcc) {
        case V4L2_PIX_FMT_MJPEG:
            return std::nullopt;
        case V4L2_PIX_FMT_YUYV:
            return ReadStamp(picture, layout.bytesperline, layout.width, layout.height, 2);
        case V4L2_PIX_FMT_BGR32:
            return ReadStamp(picture, layout.bytesperline, layout.width, layout.height, 4);
        default:
            return ReadStamp(picture, layout.bytesperline, layout.width, layout.height, 1);
    }
}

}  // namespace zumod::vcam
