// The pixel formats that the codec takes, one row each.
//
// Thread rule: constants.
#pragma once

#include <cstdint>

#include "zumod/codec.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace zumod {

// The code of BGR with 32 bits per pixel, which has no name of four characters.
inline constexpr uint32_t kBgr32Code = 0;

// How the bytes of a picture lie in memory. Everything that depends on the format is computed from these
// columns, so a new format is one new row here. Only formats with halved chroma (4:2:0) may have more than
// one plane.
struct PixelFormat {
    uint32_t code;            // VideoInputFormat::format
    int32_t pixel_bytes;      // from one pixel of the first plane to the next
    int32_t group_pixels;     // 2 where two neighbours in a row share their chroma bytes, otherwise 1
    int32_t luma_offset;      // in such a group, where in its bytes a pixel's luma is
    int32_t plane_count;      // 1: packed. 2: luma, interleaved chroma. 3: luma, two chroma planes
    bool v_first;             // of three planes, the second in memory is V
    bool is_rgb;              // accepted only if kPolicyEncSourceRgb allows it
    AVPixelFormat av_format;  // libavutil's name
    AVPixelFormat encode_as;  // what the software encoder takes: the picture is converted if this differs
};

inline constexpr PixelFormat kPixelFormats[] = {
    // clang-format off
    {VideoFormatCode("NV12"), 1, 1, 0, 2, false, false, AV_PIX_FMT_NV12,    AV_PIX_FMT_NV12},
    {VideoFormatCode("NV21"), 1, 1, 0, 2, false, false, AV_PIX_FMT_NV21,    AV_PIX_FMT_NV21},
    {VideoFormatCode("I420"), 1, 1, 0, 3, false, false, AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
    {VideoFormatCode("YV12"), 1, 1, 0, 3, true,  false, AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P},
    {VideoFormatCode("YUY2"), 2, 2, 0, 1, false, false, AV_PIX_FMT_YUYV422, AV_PIX_FMT_YUV420P},
    {kBgr32Code,              4, 1, 0, 1, false, true,  AV_PIX_FMT_BGR0,    AV_PIX_FMT_YUV420P},
    // clang-format on
};

// The row of this code, or null.
constexpr const PixelFormat* FindPixelFormat(uint32_t code) {
    for (const PixelFormat& format : kPixelFormats) {
        if (format.code == code) {
            return &format;
        }
    }
    return nullptr;
}

}  // namespace zumod
