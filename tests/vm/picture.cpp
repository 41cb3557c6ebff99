#include "tests/vm/picture.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "tests/support/doubles/picture_pattern.h"

namespace zumod::testing {
namespace {

// The text begins 16 pixels from the top.
constexpr int kTextEnd = 32;

// The kernel's 8x16 font: rows 2 to 11, which contain every part of a digit. The most significant bit is
// the leftmost pixel.
constexpr int kFirstRow = 16 + 2;
constexpr int kDigitRows = 10;
constexpr std::array<std::array<uint8_t, kDigitRows>, 10> kDigits = {{
    {0x38, 0x6C, 0xC6, 0xC6, 0xD6, 0xD6, 0xC6, 0xC6, 0x6C, 0x38},
    {0x18, 0x38, 0x78, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x7E},
    {0x7C, 0xC6, 0x06, 0x0C, 0x18, 0x30, 0x60, 0xC0, 0xC6, 0xFE},
    {0x7C, 0xC6, 0x06, 0x06, 0x3C, 0x06, 0x06, 0x06, 0xC6, 0x7C},
    {0x0C, 0x1C, 0x3C, 0x6C, 0xCC, 0xFE, 0x0C, 0x0C, 0x0C, 0x1E},
    {0xFE, 0xC0, 0xC0, 0xC0, 0xFC, 0x06, 0x06, 0x06, 0xC6, 0x7C},
    {0x38, 0x60, 0xC0, 0xC0, 0xFC, 0xC6, 0xC6, 0xC6, 0xC6, 0x7C},
    {0xFE, 0xC6, 0x06, 0x06, 0x0C, 0x18, 0x30, 0x30, 0x30, 0x30},
    {0x7C, 0xC6, 0xC6, 0xC6, 0x7C, 0xC6, 0xC6, 0xC6, 0xC6, 0x7C},
    {0x7C, 0xC6, 0xC6, 0xC6, 0x7E, 0x06, 0x06, 0x06, 0x0C, 0x78},
}};
constexpr int kMostWrongPixels = 6;

std::optional<int> DigitAt(const Picture& picture, int left) {
    int best = 0;
    int fewest = kDigitRows * 8;
    for (int digit = 0; digit < 10; ++digit) {
        int wrong = 0;
        for (int row = 0; row < kDigitRows; ++row) {
            const uint8_t bits = kDigits.at(static_cast<size_t>(digit)).at(static_cast<size_t>(row));
            for (int column = 0; column < 8; ++column) {
                const auto at = static_cast<size_t>((kFirstRow + row) * picture.width + left + column);
                const bool lit = picture.planes[0].at(at) > 128;
                wrong += lit != ((bits & (0x80 >> column)) != 0) ? 1 : 0;
            }
        }
        if (wrong < fewest) {
            fewest = wrong;
            best = digit;
        }
    }
    return fewest <= kMostWrongPixels ? std::optional(best) : std::nullopt;
}

// The position of three planes in the bytes, and the distance of their samples and rows.
struct Cut {
    size_t start;
    size_t step;
    size_t stride;
};

Picture Cut420(int width, int height, const std::vector<uint8_t>& bytes, const std::array<Cut, 3>& cuts) {
    Picture picture{width, height, {}};
    for (size_t plane = 0; plane < 3; ++plane) {
        const Cut& cut = cuts.at(plane);
        for (size_t y = 0; y < static_cast<size_t>(picture.PlaneHeight(plane)); ++y) {
            for (size_t x = 0; x < static_cast<size_t>(picture.PlaneWidth(plane)); ++x) {
                picture.planes.at(plane).push_back(bytes.at(cut.start + y * cut.stride + x * cut.step));
            }
        }
    }
    return picture;
}

// Two pixels in four bytes. The chroma of two rows is averaged.
Picture FromYuyv(int width, int height, const std::vector<uint8_t>& bytes) {
    Picture picture{width, height, {}};
    const auto stride = static_cast<size_t>(2 * width);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i % 2 == 0) {
            picture.planes[0].push_back(bytes[i]);
        } else if (i / stride % 2 == 0) {
            const int both = bytes[i] + bytes.at(i + stride) + 1;
            picture.planes.at(i % 4 == 1 ? 1 : 2).push_back(static_cast<uint8_t>(both / 2));
        }
    }
    return picture;
}

Picture FromBgr(int width, int height, const std::vector<uint8_t>& bytes) {
    Picture picture{width, height, {}};
    const auto at = [&](int x, int y, size_t colour) {
        return static_cast<double>(bytes.at(static_cast<size_t>(4 * (y * width + x)) + colour));
    };
    const auto mean = [&](int x, int y, size_t colour) {
        return (at(x, y, colour) + at(x + 1, y, colour) + at(x, y + 1, colour) + at(x + 1, y + 1, colour)) /
               4;
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            picture.planes[0].push_back(
                ToByte(16 + 0.0979 * at(x, y, 0) + 0.5041 * at(x, y, 1) + 0.2568 * at(x, y, 2)));
            if (x % 2 == 0 && y % 2 == 0) {
                const double blue = mean(x, y, 0);
                const double green = mean(x, y, 1);
                const double red = mean(x, y, 2);
                picture.planes[1].push_back(ToByte(128 + 0.4392 * blue - 0.2910 * green - 0.1482 * red));
                picture.planes[2].push_back(ToByte(128 - 0.0714 * blue - 0.3678 * green + 0.4392 * red));
            }
        }
    }
    return picture;
}

}  // namespace

Picture CopyOf(const VideoDecodedPicture& decoded) {
    Picture picture{decoded.width, decoded.height, {}};
    for (size_t plane = 0; plane < 3; ++plane) {
        for (int y = 0; y < picture.PlaneHeight(plane); ++y) {
            const uint8_t* row = decoded.planes[plane] + std::ptrdiff_t{decoded.strides[plane]} * y;
            picture.planes.at(plane).insert(picture.planes.at(plane).end(), row,
                                            row + picture.PlaneWidth(plane));
        }
    }
    return picture;
}

Picture FromBytes(const std::string& format, int width, int height, const std::vector<uint8_t>& bytes) {
    const auto row = static_cast<size_t>(width);
    const size_t luma = row * static_cast<size_t>(height);
    if (format == "YU12") {
        return Cut420(width, height, bytes,
                      {{{0, 1, row}, {luma, 1, row / 2}, {luma + luma / 4, 1, row / 2}}});
    }
    if (format == "YV12") {
        return Cut420(width, height, bytes,
                      {{{0, 1, row}, {luma + luma / 4, 1, row / 2}, {luma, 1, row / 2}}});
    }
    if (format == "NV12") {
        return Cut420(width, height, bytes, {{{0, 1, row}, {luma, 2, row}, {luma + 1, 2, row}}});
    }
    if (format == "NV21") {
        return Cut420(width, height, bytes, {{{0, 1, row}, {luma + 1, 2, row}, {luma, 2, row}}});
    }
    if (format == "YUYV") {
        return FromYuyv(width, height, bytes);
    }
    if (format == "BGR4") {
        return FromBgr(width, height, bytes);
    }
    throw std::invalid_argument("no such format: " + format);
}

double Likeness(const Picture& one, const Picture& other) {
    if (one.width != other.width || one.height != other.height) {
        return 0;
    }
    double worst = 99;
    for (size_t plane = 0; plane < 3; ++plane) {
        Psnr likeness;
        const size_t start = static_cast<size_t>(one.PlaneWidth(plane)) *
                             static_cast<size_t>(plane == 0 ? kTextEnd : kTextEnd / 2);
        for (size_t i = start; i < one.planes.at(plane).size(); ++i) {
            likeness.Add(one.planes.at(plane)[i], other.planes.at(plane).at(i));
        }
        worst = std::min(worst, likeness.Value());
    }
    return worst;
}

std::optional<int> BurntInTime(const Picture& picture) {
    // After a margin of 16 pixels and a blank come hours, minutes, seconds and milliseconds with colons.
    constexpr int kLeft = 16 + 8;
    constexpr const char kShape[] = "00:00:00:000";
    int part = 0;
    int time = 0;
    for (int i = 0; kShape[i] != 0; ++i) {
        if (kShape[i] == ':') {
            time = (time + part) * (i == 8 ? 1000 : 60);
            part = 0;
            continue;
        }
        const auto digit = DigitAt(picture, kLeft + 8 * i);
        if (!digit) {
            return std::nullopt;
        }
        part = part * 10 + *digit;
    }
    return time + part;
}

}  // namespace zumod::testing
