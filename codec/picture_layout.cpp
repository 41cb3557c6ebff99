#include "codec/picture_layout.h"

#include <optional>

namespace zumod {
namespace {

// Whatever is reached by adding to a picture's first byte fits into 32 bits, also in the libraries.
constexpr uint64_t kMaxByteCount = INT32_MAX;

constexpr int32_t HalfRoundedUp(int32_t number) {
    return number / 2 + number % 2;
}

std::optional<PixelLayout> PixelLayoutOf(const VideoInputFormat& record) {
    switch (record.format) {
        case VideoFormatCode("NV12"):
            return PixelLayout::kNv12;
        case VideoFormatCode("NV21"):
            return PixelLayout::kNv21;
        case VideoFormatCode("I420"):
            return PixelLayout::kI420;
        case VideoFormatCode("YV12"):
            return PixelLayout::kYv12;
        case VideoFormatCode("YUY2"):
            return PixelLayout::kYuy2;
        case 0:
            // The number of bits is part of this format's name.
            return record.bits_per_pixel == 32 ? std::optional(PixelLayout::kBgr32) : std::nullopt;
        default:
            return std::nullopt;
    }
}

bool IsPacked(PixelLayout pixel_layout) {
    return pixel_layout == PixelLayout::kYuy2 || pixel_layout == PixelLayout::kBgr32;
}

// Bytes of a row of the first plane that carry the picture.
int32_t RowBytes(PixelLayout pixel_layout, int32_t width) {
    switch (pixel_layout) {
        case PixelLayout::kYuy2:
            return 4 * HalfRoundedUp(width);
        case PixelLayout::kBgr32:
            return 4 * width;
        default:
            return width;
    }
}

// A picture of checked size and format whose stride is still open.
struct Shape {
    PixelLayout pixel_layout;
    int32_t width;
    int32_t height;

    int32_t RowBytes() const { return zumod::RowBytes(pixel_layout, width); }
    int32_t ChromaRows() const { return IsPacked(pixel_layout) ? 0 : HalfRoundedUp(height); }

    // All chroma planes together have rows as long as the luma's, rounded up to an even number.
    uint64_t ByteCount(int32_t stride) const {
        const auto luma_row = static_cast<uint64_t>(stride);
        return luma_row * static_cast<uint64_t>(height) +
               (luma_row + luma_row % 2) * static_cast<uint64_t>(ChromaRows());
    }

    // The larger stride for which `byte_count` is an exact fit, if there is one that a driver would choose:
    // a whole number of pixels, and halves of it for the chroma.
    std::optional<int32_t> LargerStride(int32_t stride, uint64_t byte_count) const {
        const auto rows = static_cast<uint64_t>(height) + static_cast<uint64_t>(ChromaRows());
        const uint64_t larger = byte_count / rows;
        const uint64_t step = pixel_layout == PixelLayout::kBgr32 ? 4 : 2;
        if (byte_count > kMaxByteCount || byte_count % rows != 0 || larger % step != 0 ||
            larger <= static_cast<uint64_t>(stride)) {
            return std::nullopt;
        }
        return static_cast<int32_t>(larger);
    }
};

PictureError ShapeOf(const VideoInputFormat& record, Shape& shape) {
    const auto pixel_layout = PixelLayoutOf(record);
    if (!pixel_layout) {
        return PictureError::kFormat;
    }
    if (record.width <= 0 || record.height <= 0 || record.width > kMaxPictureSide ||
        record.height > kMaxPictureSide) {
        return PictureError::kSize;
    }
    shape = {*pixel_layout, record.width, record.height};
    const bool fits = record.stride >= shape.RowBytes() && shape.ByteCount(record.stride) <= kMaxByteCount;
    return fits ? PictureError::kNone : PictureError::kStride;
}

PictureLayout LayOut(const Shape& shape, int32_t stride) {
    PictureLayout layout{shape.pixel_layout, shape.width, shape.height, 1, {}, shape.ByteCount(stride)};
    layout.planes[0] = {0, stride, shape.RowBytes(), shape.height};
    if (IsPacked(shape.pixel_layout)) {
        return layout;
    }
    const uint64_t chroma = static_cast<uint64_t>(stride) * static_cast<uint64_t>(shape.height);
    const int32_t rows = shape.ChromaRows();
    const int32_t columns = HalfRoundedUp(shape.width);
    const int32_t half_stride = HalfRoundedUp(stride);
    if (shape.pixel_layout == PixelLayout::kNv12 || shape.pixel_layout == PixelLayout::kNv21) {
        layout.plane_count = 2;
        layout.planes[1] = {chroma, 2 * half_stride, 2 * columns, rows};
        return layout;
    }
    layout.plane_count = 3;
    const uint64_t second = chroma + static_cast<uint64_t>(half_stride) * static_cast<uint64_t>(rows);
    const bool v_first = shape.pixel_layout == PixelLayout::kYv12;
    layout.planes[1] = {v_first ? second : chroma, half_stride, columns, rows};
    layout.planes[2] = {v_first ? chroma : second, half_stride, columns, rows};
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
