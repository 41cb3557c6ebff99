#include "vcam/picture/jpeg_pattern.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

// jpeglib.h expects FILE and size_t to be declared.
#include <jpeglib.h>

namespace zumod::vcam {
namespace {

constexpr int kQuality = 90;
constexpr unsigned kBlock = 2 * DCTSIZE;  // luma samples on each side of a 4:2:0 block

struct Plane {
    uint8_t* samples;
    uint32_t stride;
    uint32_t width;
    uint32_t height;
};

// Repeats the last sample of each row, so that the padding does not show at the picture's edge.
void FillPadding(const Plane& plane) {
    for (uint32_t row = 0; row < plane.height; ++row) {
        uint8_t* end = plane.samples + size_t{row} * plane.stride + plane.width;
        std::memset(end, end[-1], plane.stride - plane.width);
    }
}

}  // namespace

PictureLayout JpegInputLayout(uint32_t width, uint32_t height) {
    return LayOut(V4L2_PIX_FMT_YUV420, width, height, (width + kBlock - 1) / kBlock * kBlock);
}

size_t CompressJpeg(const PictureLayout& layout, uint8_t* picture, uint8_t* out, size_t capacity) {
    const Plane planes[] = {
        {picture, layout.bytesperline, layout.width, layout.height},
        {picture + layout.u_offset, layout.chroma_stride, layout.width / 2, layout.height / 2},
        {picture + layout.v_offset, layout.chroma_stride, layout.width / 2, layout.height / 2},
    };
    jpeg_compress_struct compressor{};
    jpeg_error_mgr errors{};
    compressor.err = jpeg_std_error(&errors);
    jpeg_create_compress(&compressor);
    unsigned char* memory = out;
    unsigned long size = capacity;
    jpeg_mem_dest(&compressor, &memory, &size);
    compressor.image_width = layout.width;
    compressor.image_height = layout.height;
    compressor.input_components = 3;
    compressor.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&compressor);
    jpeg_set_quality(&compressor, kQuality, TRUE);
    compressor.raw_data_in = TRUE;
    jpeg_start_compress(&compressor, TRUE);
    for (const Plane& plane : planes) {
        FillPadding(plane);
    }
    JSAMPROW rows[std::size(planes)][kBlock];
    JSAMPARRAY components[] = {rows[0], rows[1], rows[2]};
    while (compressor.next_scanline < layout.height) {
        for (size_t i = 0; i < std::size(planes); ++i) {
            const uint32_t count = i == 0 ? kBlock : DCTSIZE;
            const uint32_t first = compressor.next_scanline / kBlock * count;
            for (uint32_t row = 0; row < count; ++row) {
                // Below the picture its last row is repeated.
                rows[i][row] = planes[i].samples +
                               size_t{std::min(first + row, planes[i].height - 1)} * planes[i].stride;
            }
        }
        jpeg_write_raw_data(&compressor, components, kBlock);
    }
    jpeg_finish_compress(&compressor);
    jpeg_destroy_compress(&compressor);
    if (memory != out) {
        // The library allocated a larger buffer.
        std::free(memory);
        return 0;
    }
    return size;
}

JpegPattern::JpegPattern(const PictureLayout& layout, const std::string& label)
    : m_input(JpegInputLayout(layout.width, layout.height)),
      m_capacity(layout.sizeimage),
      m_pattern(m_input, label) {}

size_t JpegPattern::Paint(uint8_t* out, const Stamp& stamp) const {
    std::vector<uint8_t> picture(m_input.sizeimage);
    m_pattern.Paint(picture.data(), stamp);
    return CompressJpeg(m_input, picture.data(), out, m_capacity);
}

}  // namespace zumod::vcam
