#include "common/camera_records.h"

#include <algorithm>

namespace zumod {
namespace {

constexpr size_t kCountWrapsAt = 256;

template <size_t kSize>
bool AllZero(const uint8_t (&bytes)[kSize]) {
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

bool LooksLikeRecord(const CameraRecord& record) {
    return record.zero_1 == 0 && AllZero(record.zero_2) && AllZero(record.zero_3) && AllZero(record.zero_4);
}

// Finds a number of sizes for each record such that the last one ends with the message. A depth-first search:
// a camera may have its stated count, or 256 more, or 512 more, and so on, if the bytes after that many sizes
// look like the next record. Every (camera, offset) is tried once, which keeps the search short for any
// bytes.
class RecordSearch {
public:
    RecordSearch(std::span<const uint8_t> body, size_t cameras)
        : m_body(body), m_records(cameras), m_tried(cameras) {}

    bool Find() { return FindFrom(0, sizeof(uint32_t)); }
    std::vector<CameraRecordBytes>& Records() { return m_records; }

private:
    bool FindFrom(size_t camera, size_t offset) {
        if (camera == m_records.size()) {
            return offset == m_body.size();
        }
        const size_t rest = m_body.size() - offset;
        if (rest < sizeof(CameraRecord) || WasTried(camera, offset)) {
            return false;
        }
        const auto record = ReadRecord<CameraRecord>(m_body.data() + offset);
        if (!LooksLikeRecord(record)) {
            return false;
        }
        for (size_t count = record.resolution_count; count <= kMostSizes; count += kCountWrapsAt) {
            const size_t size = sizeof record + count * sizeof(ResolutionPair);
            if (rest < size) {
                return false;
            }
            m_records[camera] = m_body.subspan(offset, size);
            if (FindFrom(camera + 1, offset + size)) {
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
    std::vector<CameraRecordBytes> m_records;
    std::vector<std::vector<size_t>> m_tried;  // offsets by camera, ascending
};

}  // namespace

std::optional<std::vector<CameraRecordBytes>> SplitCameraList(std::span<const uint8_t> body) {
    const auto cameras = ReadRecord<uint32_t>(body.data());
    if (cameras > kMostCameras) {
        return std::nullopt;
    }
    RecordSearch search(body, cameras);
    if (!search.Find()) {
        return std::nullopt;
    }
    return std::move(search.Records());
}

}  // namespace zumod
