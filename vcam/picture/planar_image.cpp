#include "vcam/picture/planar_image.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>

namespace zumod::vcam {

PlanarImage::PlanarImage(unsigned image_width, unsigned image_height)
    : width(image_width),
      height(image_height),
      chroma_width((image_width + 1) / 2),
      chroma_height((image_height + 1) / 2),
      y(size_t{image_width} * image_height, 16),
      u(size_t{chroma_width} * chroma_height, 128),
      v(size_t{chroma_width} * chroma_height, 128) {}

void PlanarImage::Fill(unsigned left, unsigned top, unsigned fill_width, unsigned fill_height,
                       Colour colour) {
    const unsigned right = std::min(left + fill_width, width);
    const unsigned bottom = std::min(top + fill_height, height);
    for (unsigned row = top; row < bottom; ++row) {
        std::fill(y.begin() + row * width + left, y.begin() + row * width + right, colour.y);
    }
    for (unsigned row = top / 2; row < (bottom + 1) / 2; ++row) {
        std::fill(u.begin() + row * chroma_width + left / 2, u.begin() + row * chroma_width + (right + 1) / 2,
                  colour.u);
        std::fill(v.begin() + row * chroma_width + left / 2, v.begin() + row * chroma_width + (right + 1) / 2,
                  colour.v);
    }
}

void PlanarImage::WriteTo(const PictureLayout& layout, uint8_t* out) const {
    std::memset(out, 0, layout.sizeimage);
    for (unsigned row = 0; row < height; ++row) {
        const uint8_t* luma = &y[size_t{row} * width];
        const uint8_t* blue = &u[size_t{row / 2} * chroma_width];
        const uint8_t* red = &v[size_t{row / 2} * chroma_width];
        uint8_t* line = out + size_t{row} * layout.bytesperline;
        switch (layout.fourcc) {
            case V4L2_PIX_FMT_YUYV:
                for (unsigned x = 0; x < width; ++x) {
                    line[size_t{x} * 2] = luma[x];
                    line[size_t{x} * 2 + 1] = x % 2 == 0 ? blue[x / 2] : red[x / 2];
                }
                break;
            case V4L2_PIX_FMT_BGR32:
                for (unsigned x = 0; x < width; ++x) {
                    const Bgr pixel = ToBgr({luma[x], blue[x / 2], red[x / 2]});
                    line[size_t{x} * 4] = pixel.b;
                    line[size_t{x} * 4 + 1] = pixel.g;
                    line[size_t{x} * 4 + 2] = pixel.r;
                    line[size_t{x} * 4 + 3] = 255;
                }
                break;
            default:
                std::memcpy(line, luma, width);
                break;
        }
    }
    if (layout.chroma_step == 0) {
        return;
    }
    for (unsigned row = 0; row < height / 2; ++row) {
        const size_t line = size_t{row} * layout.chroma_stride;
        for (unsigned x = 0; x < width / 2; ++x) {
            out[layout.u_offset + line + size_t{x} * layout.chroma_step] = u[size_t{row} * chroma_width + x];
            out[layout.v_offset + line + size_t{x} * layout.chroma_step] = v[size_t{row} * chroma_width + x];
        }
    }
}

Bgr ToBgr(Colour colour) {
    // BT.601, studio range to full range, in 1/256ths.
    const int luma = 298 * (colour.y - 16) + 128;
    const int u = colour.u - 128;
    const int v = colour.v - 128;
    const auto clamp = [](int value) { return static_cast<uint8_t>(std::clamp(value >> 8, 0, 255)); };
    return {clamp(luma + 516 * u), clamp(luma - 100 * u - 208 * v), clamp(luma + 409 * v)};
}

}  // namespace zumod::vcam
