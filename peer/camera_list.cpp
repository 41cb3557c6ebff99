#include "peer/camera_list.h"

#include <algorithm>
#include <cstring>
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

constexpr size_t kCountWrapsAt = 256;

template <size_t kSize>
bool AllZero(const uint8_t (&bytes)[kSize]) {
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

bool LooksLikeRecord(const CameraRecord& record) {
    return record.zero_1 == 0 && AllZero(record.zero_2) && AllZero(record.zero_3) && AllZero(record.zero_4);
}

std::string TextOf(const char (&field)[kCameraNameSize]) {
    return {field, strnlen(field, sizeof field)};
}

CameraEntry EntryAt(const uint8_t* bytes, size_t size_count) {
    const auto record = ReadRecord<CameraRecord>(bytes);
    CameraEntry entry{record.id, record.in_use != 0, TextOf(record.name), TextOf(record.display_name), {}};
    bytes += sizeof record;
    for (size_t i = 0; i < size_count; ++i, bytes += sizeof(ResolutionPair)) {
        const auto pair = ReadRecord<ResolutionPair>(bytes);
        entry.sizes.push_back({pair.width, pair.height});
    }
    return entry;
}

// Finds a number of sizes for each record such that the last one ends with the message. A depth-first search:
// a camera may have its stated count, or 256 more, or 512 more, and so on, if the bytes after that many sizes
// look like the next record. Every (camera, offset) is tried once, which keeps the search short for any
// bytes.
class SizeCounts {
public:
    SizeCounts(std::span<const uint8_t> body, size_t cameras)
        : m_body(body), m_counts(cameras), m_tried(cameras) {}

    bool Find() { return FindFrom(0, sizeof(uint32_t)); }
    const std::vector<size_t>& Counts() const { return m_counts; }

private:
    bool FindFrom(size_t camera, size_t offset) {
        if (camera == m_counts.size()) {
            return offset == m_body.size();
        }
        if (m_body.size() - offset < sizeof(CameraRecord) || WasTried(camera, offset)) {
            return false;
        }
        const auto record = ReadRecord<CameraRecord>(m_body.data() + offset);
        if (!LooksLikeRecord(record)) {
            return false;
        }
        offset += sizeof record;
        for (size_t count = record.resolution_count; count <= kMostSizes; count += kCountWrapsAt) {
            if (m_body.size() - offset < count * sizeof(ResolutionPair)) {
                return false;
            }
            m_counts[camera] = count;
            if (FindFrom(camera + 1, offset + count * sizeof(ResolutionPair))) {
                return true;
            }
        }
        return false;
    }

    // Also notes that it is being tried now.
    bool WasTried(size_t camera, size_t offset) {
        auto& tried = m_tried[camera];
        if (std::binary_search(tried.begin(), tried.end(), offset)) {
            return true;
        }
        tried.insert(std::upper_bound(tried.begin(), tried.end(), offset), offset);
        return false;
    }

    const std::span<const uint8_t> m_body;
    std::vector<size_t> m_counts;
    std::vector<std::vector<size_t>> m_tried;  // offsets by camera, ascending
};

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

Expected<std::vector<CameraEntry>> ParseCameraList(std::span<const uint8_t> body) {
    if (body.size() < sizeof(uint32_t)) {
        return Fail("a camera list of " + std::to_string(body.size()) + " bytes");
    }
    const auto cameras = ReadRecord<uint32_t>(body.data());
    if (cameras > kMostCameras) {
        return Fail("a camera list of " + std::to_string(cameras) + " cameras");
    }
    SizeCounts counts(body, cameras);
    if (!counts.Find()) {
        return Fail("a camera list whose records and sizes do not fill its " + std::to_string(body.size()) +
                    " bytes");
    }
    std::vector<CameraEntry> entries;
    size_t offset = sizeof(uint32_t);
    for (const size_t count : counts.Counts()) {
        entries.push_back(EntryAt(body.data() + offset, count));
        offset += sizeof(CameraRecord) + count * sizeof(ResolutionPair);
    }
    return entries;
}

}  // namespace zumod::peer
