// The bound on a stride that the codec deduces from the number of bytes.
//
// Thread rule: pure function; any thread.
#pragma once

#include "codec/picture_layout.h"
#include "zumod/codec.h"

// A stride other than the recorded one is at most that of 3840 pixels of 4 bytes, or 512 bytes of padding.
inline bool IsStrideInBounds(const zumod::PictureLayout& layout, const zumod::VideoInputFormat& record) {
    const zumod::PicturePlane& first = layout.planes[0];
    return first.stride <= record.stride || first.stride <= 15360 || first.stride - first.row_bytes <= 512;
}
