// The test picture as Motion-JPEG: each frame is drawn uncompressed and then compressed.
//
// Thread rule: immutable after construction; any thread.
#pragma once

#include <string>

#include "vcam/picture/frame_source.h"
#include "vcam/picture/pattern.h"

namespace zumod::vcam {

// The layout that CompressJpeg reads: three planes, rows padded to whole blocks of the compression.
PictureLayout JpegInputLayout(uint32_t width, uint32_t height);

// Compresses a picture of that layout into at most `capacity` bytes and returns the bytes used, 0 if they are
// not enough. Writes to the padding of `picture`.
size_t CompressJpeg(const PictureLayout& layout, uint8_t* picture, uint8_t* out, size_t capacity);

class JpegPattern final : public FrameSource {
public:
    JpegPattern(const PictureLayout& layout, const std::string& label);

    size_t Paint(uint8_t* out, const Stamp& stamp) const override;

private:
    PictureLayout m_input;
    size_t m_capacity;
    Pattern m_pattern;
};

}  // namespace zumod::vcam
