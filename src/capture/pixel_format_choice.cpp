#include "src/capture/pixel_format_choice.h"

#include <linux/videodev2.h>

namespace zumod {
namespace {

bool IsPlanar420(uint32_t pixel_format) {
    switch (pixel_format) {
        case V4L2_PIX_FMT_NV12:
        case V4L2_PIX_FMT_YVU420:
        case V4L2_PIX_FMT_NV21:
        case V4L2_PIX_FMT_YUV420:
            return true;
        default:
            return false;
    }
}

}  // namespace

std::optional<uint32_t> ChoosePixelFormat(const std::vector<SupportedFormat>& entries, int32_t width,
                                          int32_t height) {
    std::optional<uint32_t> second_choice;
    for (const SupportedFormat& entry : entries) {
        if (entry.width != width || entry.height != height) {
            continue;
        }
        if (IsPlanar420(entry.pixel_format)) {
            return entry.pixel_format;
        }
        if (entry.pixel_format == V4L2_PIX_FMT_YUYV) {
            second_choice = entry.pixel_format;
        }
    }
    return second_choice;
}

bool IsCapturable(uint32_t pixel_format) {
    return IsPlanar420(pixel_format) || pixel_format == V4L2_PIX_FMT_YUYV ||
           pixel_format == V4L2_PIX_FMT_BGR32;
}

}  // namespace zumod
