#include "vcam/picture/planar_image.h"

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
        uint8_t* line = &y[size_t{row} * width];
        std::fill(line + left, line + right, colour.y);
    }
    for (unsigned row = top / 2; row < (bottom + 1) / 2; ++row) {
        uint8_t* blue = &u[size_t{row} * chroma_width];
        uint8_t* red = &v[size_t{row} * chroma_width];
        std::fill(blue + left / 2, blue + (right + 1) / 2, colour.u);
        std::fill(red + left / 2, red + (right + 1) / 2, colour.v);
    }
}

void PlanarImage::WriteTo(const PictureLayout& layout, uint8_t* out) const {
    const PixelFormat& format = *FindPixelFormat(layout.fourcc);
    std::memset(out, 0, layout.sizeimage);
    for (unsigned row = 0; row < height; ++row) {
        const uint8_t* luma = &y[size_t{row} * width];
        const uint8_t* blue = &u[size_t{row / 2} * chroma_width];
        const uint8_t* red = &v[size_t{row / 2} * chroma_width];
        uint8_t* line = out + size_t{row} * layout.bytesperline;
        if (format.pixel == "Y") {
            std::memcpy(line, luma, width);  // far faster than a pixel at a time
            continue;
        }
        if (format.pixel == "YC") {
            for (size_t x = 0; x + 1 < width; x += 2) {  // the same for a pair
                line[2 * x] = luma[x];
                line[2 * x + 1] = blue[x / 2];
                line[2 * x + 2] = luma[x + 1];
                line[2 * x + 3] = red[x / 2];
            }
            continue;
        }
        for (unsigned x = 0; x < width; ++x) {
            PutPixel(format, line, x, {luma[x], blue[x / 2], red[x / 2]});
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

PlanarImage PlanarImage::ReadFrom(const PictureLayout& layout, const uint8_t* in) {
    const PixelFormat& format = *FindPixelFormat(layout.fourcc);
    const unsigned step = format.PixelBytes();
    PlanarImage image(layout.width, layout.height);
    for (unsigned row = 0; row < image.height; ++row) {
        const uint8_t* line = in + size_t{row} * layout.bytesperline;
        uint8_t* luma = &image.y[size_t{row} * image.width];
        for (unsigned x = 0; x < image.width; ++x) {
            luma[x] = line[size_t{x} * step];
        }
    }
    for (unsigned row = 0; row < image.height / 2; ++row) {
        uint8_t* blue = &image.u[size_t{row} * image.chroma_width];
        uint8_t* red = &image.v[size_t{row} * image.chroma_width];
        const uint8_t* packed = in + size_t{2} * row * layout.bytesperline;
        const size_t line = size_t{row} * layout.chroma_stride;
        for (unsigned x = 0; x < image.width / 2; ++x) {
            const size_t at = line + size_t{x} * layout.chroma_step;
            blue[x] = layout.chroma_step == 0 ? packed[size_t{4} * x + 1] : in[layout.u_offset + at];
            red[x] = layout.chroma_step == 0 ? packed[size_t{4} * x + 3] : in[layout.v_offset + at];
        }
    }
    return image;
}

PlanarImage PlanarImage::FitInto(unsigned to_width, unsigned to_height) const {
    PlanarImage fitted(to_width, to_height);
    const bool by_width = uint64_t{to_width} * height <= uint64_t{to_height} * width;
    const auto scaled = [](unsigned side, unsigned to, unsigned from) {
        return std::max(2U, static_cast<unsigned>(uint64_t{side} * to / from) & ~1U);
    };
    const unsigned new_width = by_width ? to_width : std::min(to_width, scaled(width, to_height, height));
    const unsigned new_height = by_width ? std::min(to_height, scaled(height, to_width, width)) : to_height;
    const auto copy = [&](const std::vector<uint8_t>& from, std::vector<uint8_t>& to, unsigned part) {
        const unsigned columns = new_width / part;
        const unsigned rows = new_height / part;
        const unsigned left = (to_width - new_width) / 4 * 2 / part;
        const unsigned top = (to_height - new_height) / 4 * 2 / part;
        for (unsigned row = 0; row < rows; ++row) {
            const uint8_t* source = &from[size_t{row} * (height / part) / rows * (width / part)];
            uint8_t* target = &to[size_t{top + row} * (to_width / part) + left];
            for (unsigned x = 0; x < columns; ++x) {
                target[x] = source[size_t{x} * (width / part) / columns];
            }
        }
    };
    copy(y, fitted.y, 1);
    copy(u, fitted.u, 2);
    copy(v, fitted.v, 2);
    return fitted;
}

void PutPixel(const PixelFormat& format, uint8_t* row, unsigned column, Colour colour) {
    uint8_t* out = row + size_t{column} * format.PixelBytes();
    for (const char sample : format.pixel) {
        switch (sample) {
            case 'Y':
                *out++ = colour.y;
                break;
            case 'C':
                *out++ = (column % 2 == 0) != format.v_first ? colour.u : colour.v;
                break;
            case 'B':
                *out++ = ToBgr(colour).b;
                break;
            case 'G':
                *out++ = ToBgr(colour).g;
                break;
            case 'R':
                *out++ = ToBgr(colour).r;
                break;
            default:
                *out++ = 255;
                break;
        }
    }
}

Bgr ToBgr(Colour colour) {
    // BT.601, studio range to full range, in units of 1/256.
    const int luma = 298 * (colour.y - 16) + 128;
    const int u = colour.u - 128;
    const int v = colour.v - 128;
    const auto clamp = [](int value) { return static_cast<uint8_t>(std::clamp(value >> 8, 0, 255)); };
    return {clamp(luma + 516 * u), clamp(luma - 100 * u - 208 * v), clamp(luma + 409 * v)};
}

}  // namespace zumod::vcam
