// A JPEG picture taken apart into its 16-pixel blocks, each decodable by itself, so that single blocks can be
// exchanged without compressing anything again. Values; any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

struct JpegPicture {
    std::vector<uint8_t> header;               // up to the first block's data
    std::vector<std::vector<uint8_t>> blocks;  // row by row, without the marks between them
};

// All pictures are compressed with the same tables, so blocks of one fit into another.
JpegPicture CompressJpeg(const PlanarImage& image);

// The mark that stands behind block `index`, unless it is the last, and the mark at the end.
inline constexpr size_t kJpegMarkSize = 2;
void AppendJpegMark(std::vector<uint8_t>& out, size_t index);
void AppendJpegEnd(std::vector<uint8_t>& out);
std::vector<uint8_t> JoinJpeg(const JpegPicture& picture);

}  // namespace zumod::vcam
