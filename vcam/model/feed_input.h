// The server's side of the memory through which another process feeds a camera (feed.h).
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "common/error.h"
#include "common/unique_fd.h"
#include "vcam/model/camera_config.h"
#include "vcam/model/feed.h"
#include "vcam/picture/planar_image.h"

namespace zumod::vcam {

class FeedInput {
public:
    // A slot can hold a picture of every listed size, and one of kMostLivePixels: the driver may accept a
    // size that is not listed, or a fault set it. Memory that no picture reaches costs nothing. Returns null,
    // with errno set, if there is no memory.
    static std::unique_ptr<FeedInput> Create(const CameraConfig& config);
    FeedInput(const FeedInput&) = delete;
    FeedInput& operator=(const FeedInput&) = delete;
    ~FeedInput();

    uint32_t SlotSize() const { return m_slot_size; }
    int Memory() const { return m_memory.Get(); }

    // The newest picture, or nothing if there is no new one. Fails if the feeder does not keep to the
    // protocol.
    Expected<std::optional<PlanarImage>> Take();

private:
    FeedInput() = default;

    UniqueFd m_memory;
    FeedMemory* m_header = nullptr;  // null: not mapped
    uint32_t m_slot_size = 0;
    uint32_t m_slot = FeedMemory::kFirstOfServer;
};

}  // namespace zumod::vcam
