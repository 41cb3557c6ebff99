#include "src/bridge/input_format.h"

#include <linux/videodev2.h>

namespace zumod {
namespace {

struct FormatRow {
    uint32_t fourcc;
    uint32_t name;  // in the record, 0 for none
    int32_t bits_per_pixel;
};

constexpr FormatRow kFormats[] = {
    {V4L2_PIX_FMT_NV21, v4l2_fourcc('N', 'V', '2', '1'), 8},
    {V4L2_PIX_FMT_YUV420, v4l2_fourcc('I', '4', '2', '0'), 8},
    {V4L2_PIX_FMT_NV12, v4l2_fourcc('N', 'V', '1', '2'), 8},
    {V4L2_PIX_FMT_YVU420, v4l2_fourcc('Y', 'V', '1', '2'), 8},
    {V4L2_PIX_FMT_BGR32, 0, 32},
    {V4L2_PIX_FMT_YUYV, v4l2_fourcc('Y', 'U', 'Y', '2'), 16},
};

}  // namespace

std::optional<VideoInputFormat> InputFormatOf(int32_t width, int32_t height, uint32_t fourcc) {
    for (const FormatRow& row : kFormats) {
        if (row.fourcc == fourcc) {
            return VideoInputFormat{width, height, RowStride(width, row.bits_per_pixel), row.bits_per_pixel,
                                    row.name};
        }
    }
    return std::nullopt;
}

int32_t RowStride(int32_t width, int32_t bits_per_pixel) {
    // The products of 32-bit arithmetic, computed where they cannot overflow.
    const int64_t bits = static_cast<int32_t>(static_cast<int64_t>(width) * bits_per_pixel + 7);
    return static_cast<int32_t>((bits / 8 + 3) & ~int64_t{3});
}

}  // namespace zumod
