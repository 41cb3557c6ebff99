// A picture for every pixel layout, to send through a codec and compare afterwards: a soft colour gradient
// that is different at each side, with edges in the luma that show a sheared row.
//
// Thread rule: plain values.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "zumod/codec.h"
#include "zumod/codec_decode.h"

namespace zumod::testing {

inline constexpr uint32_t kNv12 = VideoFormatCode("NV12");
inline constexpr uint32_t kNv21 = VideoFormatCode("NV21");
inline constexpr uint32_t kI420 = VideoFormatCode("I420");
inline constexpr uint32_t kYv12 = VideoFormatCode("YV12");
inline constexpr uint32_t kYuy2 = VideoFormatCode("YUY2");
inline constexpr uint32_t kBgr32 = 0;

struct Pattern {
    int width;
    int height;
    int shift = 0;  // pixels to the left, for a sequence of pictures

    // Of the pixel, or between pixels, at these coordinates.
    double Luma(double x, double y) const {
        const double soft = 90 + 60 * Across(x, width) + 20 * Across(y, height);
        const bool step = ((static_cast<int>(x) + shift) / 64 + static_cast<int>(y) / 64) % 2 != 0;
        return soft + (step ? 40 : 0);
    }
    double U(double x, double) const { return 80 + 90 * Across(x, width); }
    double V(double, double y) const { return 170 - 90 * Across(y, height); }
    // Blue, green, red.
    std::array<double, 3> Bgr(double x, double y) const {
        return {40 + 150 * Across(x, width), 60 + 130 * Across(y, height),
                200 - 120 * Across(x + y, width + height)};
    }

    static double Across(double at, int length) { return at / length; }
};

inline uint8_t ToByte(double value) {
    return static_cast<uint8_t>(std::clamp(std::lround(value), 0L, 255L));
}

// A picture as a driver fills it, and its record.
struct TestPicture {
    VideoInputFormat record;
    std::vector<uint8_t> bytes;
};

// As the camera module writes a record: the first plane's row, rounded up to a multiple of 4.
inline VideoInputFormat RecordFor(uint32_t format, int width, int height) {
    const int bits = format == 0 ? 32 : format == kYuy2 ? 16 : 8;
    return {width, height, ((width * bits + 7) / 8 + 3) / 4 * 4, bits, format};
}

// The pattern in rows of `stride` bytes, which need not be the stride in the record. Padding is not part
// of the picture.
inline TestPicture PaintWithStride(uint32_t format, const Pattern& pattern, int stride) {
    constexpr uint8_t kPadding = 0xEE;
    TestPicture picture{RecordFor(format, pattern.width, pattern.height), {}};
    const int columns = (pattern.width + 1) / 2;
    const int rows = (pattern.height + 1) / 2;
    const auto put_rows = [&](int count, int row_stride, int pixels, auto&& write_pixel) {
        for (int y = 0; y < count; ++y) {
            std::vector<uint8_t> row(static_cast<size_t>(row_stride), kPadding);
            for (int x = 0; x < pixels; ++x) {
                write_pixel(row, x, y);
            }
            picture.bytes.insert(picture.bytes.end(), row.begin(), row.end());
        }
    };
    const auto at = [](std::vector<uint8_t>& row, int index) -> uint8_t& {
        return row.at(static_cast<size_t>(index));
    };
    if (format == 0) {
        put_rows(pattern.height, stride, pattern.width, [&](auto& row, int x, int y) {
            for (int i = 0; i < 3; ++i) {
                at(row, 4 * x + i) = ToByte(pattern.Bgr(x, y).at(static_cast<size_t>(i)));
            }
        });
        return picture;
    }
    if (format == kYuy2) {
        put_rows(pattern.height, stride, columns, [&](auto& row, int x, int y) {
            at(row, 4 * x) = ToByte(pattern.Luma(2 * x, y));
            at(row, 4 * x + 1) = ToByte(pattern.U(2 * x + 0.5, y));
            // Beyond an odd width this byte is padding.
            at(row, 4 * x + 2) = 2 * x + 1 < pattern.width ? ToByte(pattern.Luma(2 * x + 1, y)) : kPadding;
            at(row, 4 * x + 3) = ToByte(pattern.V(2 * x + 0.5, y));
        });
        return picture;
    }
    put_rows(pattern.height, stride, pattern.width,
             [&](auto& row, int x, int y) { at(row, x) = ToByte(pattern.Luma(x, y)); });
    const auto u = [&](int x, int y) { return ToByte(pattern.U(2 * x + 0.5, 2 * y + 0.5)); };
    const auto v = [&](int x, int y) { return ToByte(pattern.V(2 * x + 0.5, 2 * y + 0.5)); };
    const int half_stride = (stride + 1) / 2;
    if (format == kNv12 || format == kNv21) {
        const bool u_first = format == kNv12;
        put_rows(rows, 2 * half_stride, columns, [&](auto& row, int x, int y) {
            at(row, 2 * x) = u_first ? u(x, y) : v(x, y);
            at(row, 2 * x + 1) = u_first ? v(x, y) : u(x, y);
        });
        return picture;
    }
    for (const bool is_u : {format == kI420, format != kI420}) {
        put_rows(rows, half_stride, columns,
                 [&](auto& row, int x, int y) { at(row, x) = is_u ? u(x, y) : v(x, y); });
    }
    return picture;
}

inline TestPicture Paint(uint32_t format, const Pattern& pattern) {
    return PaintWithStride(format, pattern, RecordFor(format, pattern.width, pattern.height).stride);
}

// The sum of the squared errors of samples.
class Psnr {
public:
    void Add(double expected, double actual) {
        m_squares += (expected - actual) * (expected - actual);
        ++m_count;
    }
    // Decibels; 99 for no difference.
    double Value() const { return m_squares > 0 ? 10 * std::log10(255.0 * 255.0 * m_count / m_squares) : 99; }

private:
    double m_squares = 0;
    double m_count = 0;
};

// How similar a decoded picture is to the pattern: the worst of the three planes. Compares only the
// pattern's size, not what a codec added to make the sides even.
inline double PsnrOf(const VideoDecodedPicture& picture, const Pattern& pattern) {
    std::array<Psnr, 3> colours;
    const auto sample = [&](int plane, int x, int y) {
        return picture.planes[plane][static_cast<std::ptrdiff_t>(y) * picture.strides[plane] + x];
    };
    const auto rounded = [](double value) { return static_cast<double>(ToByte(value)); };
    for (int y = 0; y < pattern.height; ++y) {
        for (int x = 0; x < pattern.width; ++x) {
            if (picture.format == 0) {
                for (size_t i = 0; i < 3; ++i) {
                    colours.at(i).Add(rounded(pattern.Bgr(x, y).at(i)),
                                      sample(0, 4 * x + static_cast<int>(i), y));
                }
                continue;
            }
            colours[0].Add(rounded(pattern.Luma(x, y)), sample(0, x, y));
            if (x % 2 != 0 || y % 2 != 0) {
                continue;
            }
            const bool planar = picture.format == kI420;
            colours[1].Add(rounded(pattern.U(x + 0.5, y + 0.5)), sample(1, planar ? x / 2 : x, y / 2));
            colours[2].Add(rounded(pattern.V(x + 0.5, y + 0.5)),
                           planar ? sample(2, x / 2, y / 2) : sample(1, x + 1, y / 2));
        }
    }
    return std::min({colours[0].Value(), colours[1].Value(), colours[2].Value()});
}

}  // namespace zumod::testing
