#include "codec/picture_layout.h"

#include <algorithm>
#include <optional>

namespace zumod {
namespace {

// Every offset into a picture fits into 32 bits, in the libraries too.
constexpr uint64_t kMaxByteCount = INT32_MAX;

constexpr int32_t HalfRoundedUp(int32_t number) {
    return number / 2 + number % 2;
}

// A picture of checked size and format whose stride is still open.
struct Shape {
    const PixelFormat* format;
    int32_t width;
    int32_t height;

    // Of the first plane.
    int32_t RowBytes() const {
        const int32_t pixels =
            (width + format->group_pixels - 1) / format->group_pixels * format->group_pixels;
        return format->pixel_bytes * pixels;
    }
    int32_t ChromaRows() const { return format->plane_count == 1 ? 0 : HalfRoundedUp(height); }

    // All chroma planes together have rows as long as the luma's, rounded up to an even number.
    uint64_t ByteCount(int32_t stride) const {
        const auto luma_row = static_cast<uint64_t>(stride);
        return luma_row * static_cast<uint64_t>(height) +
               (luma_row + luma_row % 2) * static_cast<uint64_t>(ChromaRows());
    }

    // See kMaxKeptStride.
    uint64_t MaxDeducedStride() const {
        return static_cast<uint64_t>(std::max(RowBytes() + kMaxRowAlignment, kMaxKeptStride));
    }

    // The larger stride that makes `byte_count` an exact fit, if a driver would choose it: a whole number of
    // pixels, an even number where chroma rows are half as long, and not more than drivers reach.
    std::optional<int32_t> LargerStride(int32_t stride, uint64_t byte_count) const {
        const auto rows = static_cast<uint64_t>(height) + static_cast<uint64_t>(ChromaRows());
        const uint64_t larger = byte_count / rows;
        const auto step = static_cast<uint64_t>(format->plane_count == 1 ? format->pixel_bytes : 2);
        if (byte_count > kMaxByteCount || byte_count % rows != 0 || larger % step != 0 ||
            larger <= static_cast<uint64_t>(stride) || larger > MaxDeducedStride()) {
            return std::nullopt;
        }
        return static_cast<int32_t>(larger);
    }
};

PictureError ShapeOf(const VideoInputFormat& record, Shape& shape) {
    const PixelFormat* format = FindPixelFormat(record.format);
    // BGR has no name: its number of bits is part of the format.
    if (format == nullptr ||
        (format->code == kBgr32Code && record.bits_per_pixel != 8 * format->pixel_bytes)) {
        return PictureError::kFormat;
    }
    if (record.width <= 0 || record.height <= 0 || record.width > kMaxPictureSide ||
        record.height > kMaxPictureSide) {
        return PictureError::kSize;
    }
    shape = {format, record.width, record.height};
    const bool fits = record.stride >= shape.RowBytes() && shape.ByteCount(record.stride) <= kMaxByteCount;
    return fits ? PictureError::kNone : PictureError::kStride;
}

PictureLayout LayOut(const Shape& shape, int32_t stride) {
    PictureLayout layout{shape.format, shape.width, shape.height, {}, shape.ByteCount(stride)};
    layout.planes[0] = {0, stride, shape.RowBytes(), shape.height};
    const uint64_t chroma = static_cast<uint64_t>(stride) * static_cast<uint64_t>(shape.height);
    const int32_t rows = shape.ChromaRows();
    const int32_t columns = HalfRoundedUp(shape.width);
    const int32_t half_stride = HalfRoundedUp(stride);
    if (shape.format->plane_count == 2) {
        layout.planes[1] = {chroma, 2 * half_stride, 2 * columns, rows};
    } else if (shape.format->plane_count == 3) {
        const uint64_t second = chroma + static_cast<uint64_t>(half_stride) * static_cast<uint64_t>(rows);
        const bool v_first = shape.format->v_first;
        layout.planes[1] = {v_first ? second : chroma, half_stride, columns, rows};
        layout.planes[2] = {v_first ? chroma : second, half_stride, columns, rows};
    }
    return layout;
}

}  // namespace

PictureError LayOutPicture(const VideoInputFormat& record, uint64_t byte_count, PictureLayout& layout) {
    Shape shape{};
    if (const PictureError error = ShapeOf(record, shape); error != PictureError::kNone) {
        return error;
    }
    int32_t stride = record.stride;
    if (byte_count < shape.ByteCount(stride)) {
        const int32_t row = shape.RowBytes();
        if (stride - row >= 4 || stride % 4 != 0 || byte_count != shape.ByteCount(row)) {
            return PictureError::kTooFewBytes;
        }
        stride = row;
    } else if (byte_count > shape.ByteCount(stride)) {
        stride = shape.LargerStride(stride, byte_count).value_or(stride);
    }
    layout = LayOut(shape, stride);
    return PictureError::kNone;
}

PictureError LayOutPictureAsRecorded(const VideoInputFormat& record, PictureLayout& layout) {
    Shape shape{};
    const PictureError error = ShapeOf(record, shape);
    if (error == PictureError::kNone) {
        layout = LayOut(shape, record.stride);
    }
    return error;
}

const char* PictureErrorText(PictureError error) {
    switch (error) {
        case PictureError::kNone:
            return "no error";
        case PictureError::kFormat:
            return "the format is not known";
        case PictureError::kSize:
            return "the size is out of range";
        case PictureError::kStride:
            return "the stride is out of range";
        case PictureError::kTooFewBytes:
            return "the picture has too few bytes";
    }
    return "";
}

}  // namespace zumod
