#include "peer/camera_list.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "common/parse_number.h"

namespace zumod::peer {
namespace {

constexpr uint32_t kLongestSide = 16384;
constexpr PictureSize kLargestByDefault{1280, 720};
constexpr PictureSize kSizeIfNoneIsListed{640, 480};

std::optional<uint32_t> ParseSide(std::string_view text) {
    const auto side = ParseNumber<uint32_t>(text);
    return side && *side >= 1 && *side <= kLongestSide ? side : std::nullopt;
}

bool IsSmaller(PictureSize left, PictureSize right) {
    return uint64_t{left.width} * left.height < uint64_t{right.width} * right.height;
}

std::string TextOf(const char (&field)[kCameraNameSize]) {
    return {field, strnlen(field, sizeof field)};
}

CameraEntry EntryOf(CameraRecordBytes bytes) {
    const auto record = ReadRecord<CameraRecord>(bytes.data());
    CameraEntry entry{record.id, record.in_use != 0, TextOf(record.name), TextOf(record.display_name), {}};
    for (auto rest = bytes.subspan(sizeof record); !rest.empty();
         rest = rest.subspan(sizeof(ResolutionPair))) {
        const auto pair = ReadRecord<ResolutionPair>(rest.data());
        entry.sizes.push_back({pair.width, pair.height});
    }
    return entry;
}

}  // namespace

std::optional<PictureSize> ParseSize(const std::string& text) {
    const size_t cross = text.find_first_of("xX");
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
    const auto smallest = std::ranges::min_element(listed, IsSmaller);
    return smallest != listed.end() ? *smallest : kSizeIfNoneIsListed;
}

std::optional<PictureSize> SmallerSize(std::vector<PictureSize> listed, PictureSize than) {
    std::erase_if(listed, [than](PictureSize size) { return !IsSmaller(size, than); });
    return listed.empty() ? std::nullopt : std::optional(DefaultSize(listed));
}

Expected<std::vector<CameraEntry>> ParseCameraList(std::span<const uint8_t> body) {
    if (body.size() < sizeof(uint32_t)) {
        return Fail("a camera list of " + std::to_string(body.size()) + " bytes");
    }
    const auto cameras = ReadRecord<uint32_t>(body.data());
    if (cameras > kMostCameras) {
        return Fail("a camera list of " + std::to_string(cameras) + " cameras");
    }
    const auto records = SplitCameraList(body);
    if (!records) {
        return Fail("a camera list whose records and sizes do not fill its " + std::to_string(body.size()) +
                    " bytes");
    }
    std::vector<CameraEntry> entries;
    std::ranges::transform(*records, std::back_inserter(entries), EntryOf);
    return entries;
}

}  // namespace zumod::peer
