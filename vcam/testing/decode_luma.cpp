#include "vcam/testing/decode_luma.h"

#include <cstdio>

// jpeglib.h expects FILE and size_t to be declared.
#include <jpeglib.h>

namespace zumod::vcam {

std::vector<uint8_t> DecodeLuma(const std::vector<uint8_t>& jpeg, unsigned width, unsigned height) {
    jpeg_decompress_struct decompressor{};
    jpeg_error_mgr errors{};
    decompressor.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&decompressor);
    jpeg_mem_src(&decompressor, jpeg.data(), jpeg.size());
    jpeg_read_header(&decompressor, TRUE);
    decompressor.out_color_space = JCS_GRAYSCALE;
    std::vector<uint8_t> luma;
    if (decompressor.image_width == width && decompressor.image_height == height) {
        jpeg_start_decompress(&decompressor);
        luma.resize(size_t{width} * height);
        while (decompressor.output_scanline < height) {
            unsigned char* line = &luma[size_t{decompressor.output_scanline} * width];
            jpeg_read_scanlines(&decompressor, &line, 1);
        }
        jpeg_finish_decompress(&decompressor);
    }
    jpeg_destroy_decompress(&decompressor);
    return errors.num_warnings == 0 ? luma : std::vector<uint8_t>();
}

}  // namespace zumod::vcam
