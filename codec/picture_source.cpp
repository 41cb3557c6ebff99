#include "codec/picture_source.h"

#include <cstddef>
#include <cstring>

extern "C" {
#include <libavutil/imgutils.h>
}

namespace zumod {
namespace {

// A writable frame of this format and size: the old one if it is one, otherwise a new one.
AVFrame* Writable(AvOwner<AVFrame>& frame, AVPixelFormat format, int width, int height) {
    if (frame != nullptr && frame->format == format && frame->width == width && frame->height == height &&
        av_frame_is_writable(frame.get()) > 0) {
        return frame.get();
    }
    frame.reset(av_frame_alloc());
    if (frame == nullptr) {
        return nullptr;
    }
    frame->format = format;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        frame.reset();
    }
    return frame.get();
}

uint8_t* Row(const AVFrame& frame, int plane, int row) {
    return frame.data[plane] + std::ptrdiff_t{frame.linesize[plane]} * row;
}

// Appends a copy of a row's last pixel. In a group of two the chroma bytes of the added pixel are there
// already.
void RepeatLastPixel(uint8_t* row, const PixelFormat& format, int width) {
    uint8_t* const last = row + std::ptrdiff_t{format.pixel_bytes} * (width - 1) + format.luma_offset;
    std::memcpy(last + format.pixel_bytes, last,
                static_cast<size_t>(format.pixel_bytes / format.group_pixels));
}

// The scaler reads a little past a row's end. For all rows but the last ones that is still inside the
// picture.
constexpr int kTailRows = 2;
constexpr int kTailBytes = 256;

// The scaler needs aligned rows (it prints a warning about others) and more rows than the tail has.
bool CanScaleInPlace(const PictureLayout& layout, const uint8_t* bytes) {
    constexpr uintptr_t kAlignment = 16;
    if (layout.height <= kTailRows) {
        return false;
    }
    for (int i = 0; i < layout.format->plane_count; ++i) {
        const PicturePlane& plane = layout.planes[i];
        const auto address = reinterpret_cast<uintptr_t>(bytes) + plane.offset;
        if ((address | static_cast<uintptr_t>(plane.stride)) % kAlignment != 0 ||
            plane.stride < kTailBytes / kTailRows || plane.row_count < layout.height) {
            return false;
        }
    }
    return true;
}

}  // namespace

AVFrame* PictureSource::Take(const PictureLayout& layout, const uint8_t* bytes, AVPixelFormat format,
                             bool fast) {
    const bool even = layout.width % 2 == 0 && layout.height % 2 == 0;
    if (layout.format->av_format == format) {
        return even ? Borrow(layout, bytes) : Pad(layout, bytes);
    }
    const bool borrowed = even && CanScaleInPlace(layout, bytes);
    const AVFrame* picture = borrowed ? Borrow(layout, bytes) : Pad(layout, bytes);
    return picture != nullptr ? Convert(*picture, format, fast, borrowed) : nullptr;
}

bool PictureSource::Release() {
    if (m_borrowed != nullptr) {
        av_frame_unref(m_borrowed.get());
    }
    const bool is_last = m_loan == nullptr || av_buffer_get_ref_count(m_loan.get()) == 1;
    m_loan.reset();
    return is_last;
}

AVFrame* PictureSource::Borrow(const PictureLayout& layout, const uint8_t* bytes) {
    Release();
    // The encoder copies a frame that has no buffer reference, so this frame's buffer refers to the caller's
    // bytes. The read-only flag keeps the libraries from writing to them.
    auto* first = const_cast<uint8_t*>(bytes);
    m_loan.reset(av_buffer_create(
        first, static_cast<size_t>(layout.byte_count), [](void*, uint8_t*) {}, nullptr,
        AV_BUFFER_FLAG_READONLY));
    if (m_borrowed == nullptr) {
        m_borrowed.reset(av_frame_alloc());
    }
    if (m_loan == nullptr || m_borrowed == nullptr) {
        return nullptr;
    }
    m_borrowed->buf[0] = av_buffer_ref(m_loan.get());
    if (m_borrowed->buf[0] == nullptr) {
        return nullptr;
    }
    m_borrowed->format = layout.format->av_format;
    m_borrowed->width = layout.width;
    m_borrowed->height = layout.height;
    for (int i = 0; i < layout.format->plane_count; ++i) {
        m_borrowed->data[i] = first + layout.planes[i].offset;
        m_borrowed->linesize[i] = layout.planes[i].stride;
    }
    return m_borrowed.get();
}

AVFrame* PictureSource::Pad(const PictureLayout& layout, const uint8_t* bytes) {
    AVFrame* padded =
        Writable(m_padded, layout.format->av_format, EvenSide(layout.width), EvenSide(layout.height));
    if (padded == nullptr) {
        return nullptr;
    }
    for (int i = 0; i < layout.format->plane_count; ++i) {
        const PicturePlane& plane = layout.planes[i];
        const uint8_t* from = bytes + plane.offset;
        for (int row = 0; row < plane.row_count; ++row, from += plane.stride) {
            std::memcpy(Row(*padded, i, row), from, static_cast<size_t>(plane.row_bytes));
        }
    }
    // Chroma planes already cover the added column and row.
    for (int row = 0; layout.width % 2 != 0 && row < layout.height; ++row) {
        RepeatLastPixel(Row(*padded, 0, row), *layout.format, layout.width);
    }
    if (layout.height % 2 != 0) {
        std::memcpy(Row(*padded, 0, layout.height), Row(*padded, 0, layout.height - 1),
                    static_cast<size_t>(av_image_get_linesize(layout.format->av_format, padded->width, 0)));
    }
    return padded;
}

AVFrame* PictureSource::Convert(const AVFrame& picture, AVPixelFormat format, bool fast, bool borrowed) {
    AVFrame* converted = Writable(m_converted, format, picture.width, picture.height);
    // The library's default is what we need: ITU-R BT.601, limited range.
    m_scaler.reset(sws_getCachedContext(m_scaler.release(), picture.width, picture.height,
                                        static_cast<AVPixelFormat>(picture.format), picture.width,
                                        picture.height, format, fast ? SWS_FAST_BILINEAR : SWS_BILINEAR,
                                        nullptr, nullptr, nullptr));
    if (converted == nullptr || m_scaler == nullptr) {
        return nullptr;
    }
    const auto scale = [&](const AVFrame& rows, int first, int count) {
        return sws_scale(m_scaler.get(), rows.data, rows.linesize, first, count, converted->data,
                         converted->linesize) >= 0;
    };
    if (!borrowed) {
        return scale(picture, 0, picture.height) ? converted : nullptr;
    }
    const int tail_begin = picture.height - kTailRows;
    const AVFrame* tail = CopyTail(picture, tail_begin);
    return tail != nullptr && scale(picture, 0, tail_begin) && scale(*tail, tail_begin, kTailRows) ? converted
                                                                                                   : nullptr;
}

AVFrame* PictureSource::CopyTail(const AVFrame& picture, int first) {
    const auto format = static_cast<AVPixelFormat>(picture.format);
    AVFrame* tail = Writable(m_tail, format, picture.width, kTailRows);
    for (int row = 0; tail != nullptr && row < kTailRows; ++row) {
        std::memcpy(Row(*tail, 0, row), Row(picture, 0, first + row),
                    static_cast<size_t>(av_image_get_linesize(format, picture.width, 0)));
    }
    return tail;
}

}  // namespace zumod
