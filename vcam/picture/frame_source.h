// The interface of a source of a camera's pictures. A source draws in one layout.
//
// Thread rule: immutable after construction; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/picture_stamp.h"
#include "vcam/picture/pixel_format.h"

namespace zumod::vcam {

class FrameSource {
public:
    FrameSource() = default;
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;
    virtual ~FrameSource() = default;

    // Writes the picture with this stamp, at most layout.sizeimage bytes, and returns the bytes used.
    virtual size_t Paint(uint8_t* out, const Stamp& stamp) const = 0;
};

}  // namespace zumod::vcam
