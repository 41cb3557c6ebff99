#include "vcam/picture/pixel_format.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <iterator>

namespace zumod::vcam {
namespace {

constexpr PixelFormat kFormats[] = {
    {V4L2_PIX_FMT_NV12, "Y/CbCr 4:2:0", "Y", 2},
    {V4L2_PIX_FMT_NV21, "Y/CrCb 4:2:0", "Y", 2, true},
    {V4L2_PIX_FMT_YUV420, "Planar YUV 4:2:0", "Y", 1},
    {V4L2_PIX_FMT_YVU420, "Planar YVU 4:2:0", "Y", 1, true},
    {V4L2_PIX_FMT_YUYV, "YUYV 4:2:2", "YC"},
    {V4L2_PIX_FMT_BGR32, "32-bit BGRA/X 8-8-8-8", "BGRX"},
    {.fourcc = V4L2_PIX_FMT_MJPEG, .description = "Motion-JPEG", .compressed = true},
};

}  // namespace

std::span<const PixelFormat> PixelFormats() {
    return kFormats;
}

const PixelFormat* FindPixelFormat(uint32_t fourcc) {
    const auto* found = std::ranges::find(kFormats, fourcc, &PixelFormat::fourcc);
    return found == std::end(kFormats) ? nullptr : found;
}

std::optional<uint32_t> ParseFourcc(std::string_view text) {
    for (const PixelFormat& format : kFormats) {
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

std::string FormatNames() {
    std::string names;
    for (const PixelFormat& format : kFormats) {
        if (!names.empty()) {
            names += ' ';
        }
        names += FourccText(format.fourcc);
    }
    return names;
}

PictureLayout LayOut(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t bytesperline) {
    PictureLayout layout;
    layout.fourcc = fourcc;
    layout.width = width;
    layout.height = height;
    const PixelFormat* format = FindPixelFormat(fourcc);
    if (format == nullptr || format->compressed) {
        // Enough for a picture that does not compress at all, with its tables.
        layout.sizeimage = width * height * 2 + 8192;
        return layout;
    }
    layout.bytesperline = std::max(bytesperline, width * format->PixelBytes());
    layout.chroma_step = format->chroma_step;
    if (layout.chroma_step == 0) {
        layout.sizeimage = layout.bytesperline * height;
        return layout;
    }
    const bool interleaved = layout.chroma_step == 2;
    if (!interleaved) {
        layout.bytesperline = (layout.bytesperline + 1) & ~1U;
    }
    layout.chroma_stride = interleaved ? layout.bytesperline : layout.bytesperline / 2;
    const size_t luma = size_t{layout.bytesperline} * height;
    const size_t second = interleaved ? 1 : size_t{layout.chroma_stride} * (height / 2);
    layout.u_offset = luma + (format->v_first ? second : 0);
    layout.v_offset = luma + (format->v_first ? 0 : second);
    layout.sizeimage = static_cast<uint32_t>(luma + luma / 2);
    return layout;
}

}  // namespace zumod::vcam
