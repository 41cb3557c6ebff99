#include "vcam/picture/pixel_format.h"

#include <linux/videodev2.h>

#include <algorithm>

namespace zumod::vcam {

const std::vector<PixelFormat>& PixelFormats() {
    static const std::vector<PixelFormat> formats = {
        {V4L2_PIX_FMT_NV12, "Y/CbCr 4:2:0", false},
        {V4L2_PIX_FMT_NV21, "Y/CrCb 4:2:0", false},
        {V4L2_PIX_FMT_YUV420, "Planar YUV 4:2:0", false},
        {V4L2_PIX_FMT_YVU420, "Planar YVU 4:2:0", false},
        {V4L2_PIX_FMT_YUYV, "YUYV 4:2:2", false},
        {V4L2_PIX_FMT_BGR32, "32-bit BGRA/X 8-8-8-8", false},
        {V4L2_PIX_FMT_MJPEG, "Motion-JPEG", true},
    };
    return formats;
}

const PixelFormat* FindPixelFormat(uint32_t fourcc) {
    const auto& formats = PixelFormats();
    const auto found = std::find_if(formats.begin(), formats.end(),
                                    [fourcc](const PixelFormat& format) { return format.fourcc == fourcc; });
    return found == formats.end() ? nullptr : &*found;
}

std::optional<uint32_t> ParseFourcc(std::string_view text) {
    for (const PixelFormat& format : PixelFormats()) {
        if (FourccText(format.fourcc) == text) {
            return format.fourcc;
        }
    }
    return std::nullopt;
}

std::string FourccText(uint32_t fourcc) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        text += static_cast<char>(fourcc >> shift & 0x7f);
    }
    return text;
}

PictureLayout LayOut(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t bytesperline) {
    PictureLayout layout;
    layout.fourcc = fourcc;
    layout.width = width;
    layout.height = height;
    switch (fourcc) {
        case V4L2_PIX_FMT_NV12:
        case V4L2_PIX_FMT_NV21: {
            layout.bytesperline = std::max(bytesperline, width);
            const size_t luma = size_t{layout.bytesperline} * height;
            layout.chroma_stride = layout.bytesperline;
            layout.chroma_step = 2;
            layout.u_offset = luma + (fourcc == V4L2_PIX_FMT_NV21 ? 1 : 0);
            layout.v_offset = luma + (fourcc == V4L2_PIX_FMT_NV21 ? 0 : 1);
            layout.sizeimage = static_cast<uint32_t>(luma + luma / 2);
            break;
        }
        case V4L2_PIX_FMT_YUV420:
        case V4L2_PIX_FMT_YVU420: {
            layout.bytesperline = (std::max(bytesperline, width) + 1) & ~1U;
            layout.chroma_stride = layout.bytesperline / 2;
            layout.chroma_step = 1;
            const size_t luma = size_t{layout.bytesperline} * height;
            const size_t chroma = size_t{layout.chroma_stride} * (height / 2);
            const bool v_first = fourcc == V4L2_PIX_FMT_YVU420;
            layout.u_offset = luma + (v_first ? chroma : 0);
            layout.v_offset = luma + (v_first ? 0 : chroma);
            layout.sizeimage = static_cast<uint32_t>(luma + 2 * chroma);
            break;
        }
        case V4L2_PIX_FMT_YUYV:
            layout.bytesperline = std::max(bytesperline, width * 2);
            layout.sizeimage = layout.bytesperline * height;
            break;
        case V4L2_PIX_FMT_BGR32:
            layout.bytesperline = std::max(bytesperline, width * 4);
            layout.sizeimage = layout.bytesperline * height;
            break;
        default:
            // Room for a picture that does not compress at all, beside its tables.
            layout.sizeimage = width * height * 2 + 8192;
            break;
    }
    return layout;
}

}  // namespace zumod::vcam
