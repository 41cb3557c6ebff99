// A picture as three planes, chroma at half the width and height. Pictures are composed in it and then
// written in the layout of a camera's format.
//
// Thread rule: a value; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vcam/picture/pixel_format.h"

namespace zumod::vcam {

struct Colour {
    uint8_t y = 16;
    uint8_t u = 128;
    uint8_t v = 128;
};

struct PlanarImage {
    PlanarImage(unsigned image_width, unsigned image_height);

    void Fill(unsigned left, unsigned top, unsigned fill_width, unsigned fill_height, Colour colour);
    // Writes the picture in an uncompressed layout of the same size. Bytes beyond a row's pixels become 0.
    void WriteTo(const PictureLayout& layout, uint8_t* out) const;
    // The reverse, for a layout with luma. The chroma of a 4:2:2 picture is that of its even rows.
    static PlanarImage ReadFrom(const PictureLayout& layout, const uint8_t* in);
    // The whole picture, as large as it fits into that size, in the middle of black.
    PlanarImage FitInto(unsigned to_width, unsigned to_height) const;

    unsigned width;
    unsigned height;
    unsigned chroma_width;
    unsigned chroma_height;
    std::vector<uint8_t> y;
    std::vector<uint8_t> u;
    std::vector<uint8_t> v;
};

// Writes the bytes that an uncompressed format's first plane has for the pixel in that column of a row.
void PutPixel(const PixelFormat& format, uint8_t* row, unsigned column, Colour colour);

struct Bgr {
    uint8_t b;
    uint8_t g;
    uint8_t r;
};

Bgr ToBgr(Colour colour);

}  // namespace zumod::vcam
