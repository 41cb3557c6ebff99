#include "vcam/picture/jpeg_picture.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

// jpeglib.h expects FILE and size_t to be known.
#include <jpeglib.h>

namespace zumod::vcam {
namespace {

constexpr int kQuality = 90;

std::vector<uint8_t> Compress(const PlanarImage& image) {
    jpeg_compress_struct compressor{};
    jpeg_error_mgr errors{};
    compressor.err = jpeg_std_error(&errors);
    jpeg_create_compress(&compressor);
    unsigned char* memory = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&compressor, &memory, &size);
    compressor.image_width = image.width;
    compressor.image_height = image.height;
    compressor.input_components = 3;
    compressor.in_color_space = JCS_YCbCr;
    jpeg_set_defaults(&compressor);
    jpeg_set_quality(&compressor, kQuality, TRUE);
    compressor.restart_interval = 1;
    jpeg_start_compress(&compressor, TRUE);
    std::vector<uint8_t> line(size_t{image.width} * 3);
    for (unsigned row = 0; row < image.height; ++row) {
        for (unsigned x = 0; x < image.width; ++x) {
            const size_t chroma = size_t{row / 2} * image.chroma_width + x / 2;
            line[size_t{x} * 3] = image.y[size_t{row} * image.width + x];
            line[size_t{x} * 3 + 1] = image.u[chroma];
            line[size_t{x} * 3 + 2] = image.v[chroma];
        }
        unsigned char* lines[] = {line.data()};
        jpeg_write_scanlines(&compressor, lines, 1);
    }
    jpeg_finish_compress(&compressor);
    const std::unique_ptr<unsigned char, decltype(&std::free)> owned(memory, &std::free);
    std::vector<uint8_t> bytes(memory, memory + size);
    jpeg_destroy_compress(&compressor);
    return bytes;
}

}  // namespace

JpegPicture CompressJpeg(const PlanarImage& image) {
    const std::vector<uint8_t> bytes = Compress(image);
    // Marker segments up to and with the start of scan, each with its length in two bytes.
    size_t at = 2;
    while (at + 4 <= bytes.size()) {
        const uint8_t marker = bytes[at + 1];
        at += 2 + (size_t{bytes[at + 2]} << 8 | bytes[at + 3]);
        if (marker == 0xda) {
            break;
        }
    }
    JpegPicture picture;
    picture.header.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    std::vector<uint8_t> block;
    while (at + 1 < bytes.size()) {
        if (bytes[at] != 0xff || bytes[at + 1] == 0) {
            block.push_back(bytes[at]);
            if (bytes[at++] == 0xff) {
                block.push_back(bytes[at++]);
            }
            continue;
        }
        picture.blocks.push_back(block);
        block.clear();
        at += 2;
    }
    return picture;
}

void AppendJpegMark(std::vector<uint8_t>& out, size_t index) {
    out.push_back(0xff);
    out.push_back(static_cast<uint8_t>(0xd0 + index % 8));
}

void AppendJpegEnd(std::vector<uint8_t>& out) {
    out.push_back(0xff);
    out.push_back(0xd9);
}

std::vector<uint8_t> JoinJpeg(const JpegPicture& picture) {
    std::vector<uint8_t> out = picture.header;
    for (size_t i = 0; i < picture.blocks.size(); ++i) {
        out.insert(out.end(), picture.blocks[i].begin(), picture.blocks[i].end());
        if (i + 1 < picture.blocks.size()) {
            AppendJpegMark(out, i);
        }
    }
    AppendJpegEnd(out);
    return out;
}

}  // namespace zumod::vcam
