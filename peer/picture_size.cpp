#include "peer/picture_size.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace zumod::peer {
namespace {

constexpr uint32_t kLongestSide = 16384;
constexpr PictureSize kLargestByDefault{1280, 720};
constexpr PictureSize kWhenNoneIsListed{640, 480};

std::optional<uint32_t> ParseSide(std::string_view text) {
    uint32_t side = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), side);
    if (error != std::errc() || end != text.data() + text.size() || side < 1 || side > kLongestSide) {
        return std::nullopt;
    }
    return side;
}

bool IsSmaller(PictureSize left, PictureSize right) {
    return uint64_t{left.width} * left.height < uint64_t{right.width} * right.height;
}

}  // namespace

std::optional<PictureSize> ParseSize(const std::string& text) {
    const size_t cross = text.find('x');
    if (cross == std::string::npos) {
        return std::nullopt;
    }
    const auto width = ParseSide(std::string_view(text).substr(0, cross));
    const auto height = ParseSide(std::string_view(text).substr(cross + 1));
    if (!width || !height) {
        return std::nullopt;
    }
    return PictureSize{*width, *height};
}

std::string SizeText(PictureSize size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

PictureSize DefaultSize(const std::vector<PictureSize>& listed) {
    std::optional<PictureSize> largest_that_fits;
    for (const PictureSize size : listed) {
        const bool fits = size.width <= kLargestByDefault.width && size.height <= kLargestByDefault.height;
        if (fits && (!largest_that_fits || IsSmaller(*largest_that_fits, size))) {
            largest_that_fits = size;
        }
    }
    if (largest_that_fits) {
        return *largest_that_fits;
    }
    const auto smallest = std::min_element(listed.begin(), listed.end(), IsSmaller);
    return smallest != listed.end() ? *smallest : kWhenNoneIsListed;
}

}  // namespace zumod::peer
