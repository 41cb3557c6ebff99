// Where the planes of a picture lie in its bytes, found out from the input format record and from how many
// bytes there are. Pure functions on numbers that nobody has checked yet, safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zumod/codec.h"

namespace zumod {

enum class PixelLayout { kNv12, kNv21, kI420, kYv12, kYuy2, kBgr32 };

struct PicturePlane {
    uint64_t offset;    // of the first byte, from the picture's first byte
    int32_t stride;     // bytes from one row to the next
    int32_t row_bytes;  // bytes of a row that carry the picture
    int32_t row_count;
};

struct PictureLayout {
    PixelLayout pixel_layout;
    int32_t width;
    int32_t height;
    int32_t plane_count;
    // Luma first. I420 and YV12 alike: then U, then V, wherever in the bytes they lie.
    PicturePlane planes[3];
    uint64_t byte_count;  // of the picture alone, without what may follow it
};

enum class PictureError { kNone, kFormat, kSize, kStride, kTooFewBytes };

// What the largest encoder and decoder take.
inline constexpr int32_t kMaxPictureSide = 16384;

// Lays the picture out with the record's stride, except that the bytes decide when they contradict it:
//   - An exact fit for one larger stride is a picture with padded rows.
//   - The record's stride is commonly the row rounded up to a multiple of 4. Bytes too few for that but an
//     exact fit for rows without padding are such rows.
// More bytes than that are ignored. `layout` is written on success alone.
PictureError LayOutPicture(const VideoInputFormat& record, uint64_t byte_count, PictureLayout& layout);

// Lays a picture out with the record's stride and no doubt about it.
PictureError LayOutPictureAsRecorded(const VideoInputFormat& record, PictureLayout& layout);

// For a log line.
const char* PictureErrorText(PictureError error);

}  // namespace zumod
