// Description of a captured picture for the encoder.
//
// Thread rule: pure functions, [any thread].
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <optional>

#include "zumod/codec.h"

namespace zumod {

struct InputFormatRow {
    uint32_t pixel_format;  // V4L2 FourCC
    uint32_t name;          // format code for the encoder, 0 for none
    int32_t bits_per_pixel;
};

// All pixel formats that the encoder accepts.
inline constexpr InputFormatRow kInputFormats[] = {
    {V4L2_PIX_FMT_NV21, VideoFormatCode("NV21"), 8},
    {V4L2_PIX_FMT_YUV420, VideoFormatCode("I420"), 8},
    {V4L2_PIX_FMT_NV12, VideoFormatCode("NV12"), 8},
    {V4L2_PIX_FMT_YVU420, VideoFormatCode("YV12"), 8},
    {V4L2_PIX_FMT_BGR32, 0, 32},
    {V4L2_PIX_FMT_YUYV, VideoFormatCode("YUY2"), 16},
};

// Returns the bytes in a row of pixels, rounded up to a multiple of 4.
constexpr int32_t RowStride(int32_t width, int32_t bits_per_pixel) {
    // Required by the contract: 32-bit arithmetic, done in 64 bits and truncated so that it cannot overflow.
    const int64_t bits = static_cast<int32_t>(static_cast<int64_t>(width) * bits_per_pixel + 7);
    return static_cast<int32_t>((bits / 8 + 3) & ~int64_t{3});
}

// Returns nullopt for a pixel format that the encoder does not accept.
constexpr std::optional<VideoInputFormat> InputFormatOf(int32_t width, int32_t height,
                                                        uint32_t pixel_format) {
    for (const InputFormatRow& row : kInputFormats) {
        if (row.pixel_format == pixel_format) {
            return VideoInputFormat{width, height, RowStride(width, row.bits_per_pixel), row.bits_per_pixel,
                                    row.name};
        }
    }
    return std::nullopt;
}

}  // namespace zumod
