#include "vcam/picture/pattern_reader.h"

#include <linux/videodev2.h>

namespace zumod::vcam {

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
