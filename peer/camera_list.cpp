#include "peer/camera_list.h"

#include <algorithm>
#include <cstring>

namespace zumod::peer {
namespace {

constexpr size_t kCountWraps = 256;

template <class Record>
Record ReadAt(std::span<const uint8_t> bytes, size_t offset) {
    Record record;
    std::memcpy(&record, bytes.data() + offset, sizeof record);
    return record;
}

template <size_t kSize>
bool AllZero(const uint8_t (&bytes)[kSize]) {
    return std::all_of(std::begin(bytes), std::end(bytes), [](uint8_t byte) { return byte == 0; });
}

bool LooksLikeRecord(const CameraRecord& record) {
    return record.zero_1 == 0 && AllZero(record.zero_2) && AllZero(record.zero_3) && AllZero(record.zero_4);
}

std::string TextOf(const char (&field)[kCameraNameSize]) {
    return {field, strnlen(field, sizeof field)};
}

CameraEntry EntryAt(std::span<const uint8_t> body, size_t offset, size_t size_count) {
    const auto record = ReadAt<CameraRecord>(body, offset);
    CameraEntry entry{record.id, record.in_use != 0, TextOf(record.name), TextOf(record.display_name), {}};
    offset += sizeof record;
    for (size_t i = 0; i < size_count; ++i, offset += sizeof(ResolutionPair)) {
        const auto pair = ReadAt<ResolutionPair>(body, offset);
        entry.sizes.push_back({pair.width, pair.height});
    }
    return entry;
}

// Finds how many sizes each record has, so that the last one ends with the message.
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
        const auto record = ReadAt<CameraRecord>(m_body, offset);
        if (!LooksLikeRecord(record)) {
            return false;
        }
        offset += sizeof record;
        for (size_t count = record.resolution_count; count <= kMostSizes; count += kCountWraps) {
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

    // A place that led nowhere for a camera leads nowhere again: this keeps the search short for any bytes.
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
    std::vector<std::vector<size_t>> m_tried;  // by camera, ascending
};

}  // namespace

std::optional<std::vector<CameraEntry>> ParseCameraList(std::span<const uint8_t> body, std::string& error) {
    if (body.size() < sizeof(uint32_t)) {
        error = "a camera list of " + std::to_string(body.size()) + " bytes";
        return std::nullopt;
    }
    const auto cameras = ReadAt<uint32_t>(body, 0);
    if (cameras > kMostCameras) {
        error = "a camera list of " + std::to_string(cameras) + " cameras";
        return std::nullopt;
    }
    SizeCounts counts(body, cameras);
    if (!counts.Find()) {
        error =
            "a camera list whose records and sizes do not fill its " + std::to_string(body.size()) + " bytes";
        return std::nullopt;
    }
    std::vector<CameraEntry> entries;
    size_t offset = sizeof(uint32_t);
    for (const size_t count : counts.Counts()) {
        entries.push_back(EntryAt(body, offset, count));
        offset += sizeof(CameraRecord) + count * sizeof(ResolutionPair);
    }
    return entries;
}

}  // namespace zumod::peer
