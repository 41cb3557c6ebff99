// Where the planes of a picture lie in its bytes, computed from the input format record and the number of
// bytes.
//
// Thread rule: pure functions, [any thread]. Their arguments are unchecked numbers from outside.
#pragma once

#include <cstdint>

#include "codec/pixel_format.h"
#include "zumod/codec.h"

namespace zumod {

struct PicturePlane {
    uint64_t offset;    // of the first byte, from the picture's first byte
    int32_t stride;     // bytes from one row to the next
    int32_t row_bytes;  // bytes of a row that carry the picture
    int32_t row_count;
};

struct PictureLayout {
    const PixelFormat* format;
    int32_t width;
    int32_t height;
    // format->plane_count of them: luma first, then U, then V, whichever of the two comes first in memory.
    PicturePlane planes[3];
    uint64_t byte_count;  // of the picture, without any bytes that follow it
};

enum class PictureError { kNone, kFormat, kSize, kStride, kTooFewBytes };

// The largest side that libx264 and the decoder accept.
inline constexpr int32_t kMaxPictureSide = 16384;

// The largest stride that is deduced from the number of bytes. Real drivers make rows longer than the picture
// for two reasons:
//   - The hardware writes whole bursts. That makes a row at most 512 bytes longer, mostly 64 or fewer.
//   - The program may choose the stride, and a request that does not name one keeps that of the previous
//     format, as with the kernel's vivid driver. That driver's longest row has 3840 pixels of 4 bytes.
// A byte count that asks for more is a wrong count, and the rows are read as recorded.
inline constexpr int32_t kMaxRowAlignment = 512;
inline constexpr int32_t kMaxKeptStride = 3840 * 4;

// Lays the picture out with the record's stride, unless the number of bytes contradicts it:
//   - An exact fit for one larger stride that a driver can have chosen is a picture with padded rows.
//   - The record's stride is usually the row length rounded up to a multiple of 4. If the bytes are too few
//     for that stride but an exact fit for rows without padding, the rows have no padding.
// Any further bytes are ignored. `layout` is written only on success.
PictureError LayOutPicture(const VideoInputFormat& record, uint64_t byte_count, PictureLayout& layout);

// Uses the recorded stride without checking it against a byte count.
PictureError LayOutPictureAsRecorded(const VideoInputFormat& record, PictureLayout& layout);

// For a log line.
const char* PictureErrorText(PictureError error);

}  // namespace zumod
