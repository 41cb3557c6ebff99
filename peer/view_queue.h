// What waits for one viewer of one camera: whole pictures, from a key picture on, within limits of memory and
// time.
//
// A viewer that reads too slowly must neither cost memory nor see the past. So a picture that would exceed
// kQueueBytes, or that comes while the first one in the queue is older than kQueueTime, is lost for this
// viewer, and with it every picture up to the next key picture. With that one everything older in the queue
// is lost, too: the viewer goes on with what is new. Other viewers lose nothing: the pictures are shared.
//
// Thread rule: one thread at a time. Each call passes the time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/waiter.h"

namespace zumod::peer {

struct ViewPicture {
    std::vector<uint8_t> bytes;  // Annex B; a key picture begins with its parameter sets
    bool is_key = false;
    uint64_t arrived_us = 0;  // of the Unix clock
    Clock::time_point arrived;
};
using SharedPicture = std::shared_ptr<const ViewPicture>;

class ViewQueue {
public:
    static constexpr size_t kQueueBytes = size_t{4} << 20;
    static constexpr auto kQueueTime = std::chrono::seconds(2);

    void Push(SharedPicture picture, Clock::time_point now);
    // Nothing if no picture waits.
    SharedPicture Pop();

    bool IsEmpty() const { return m_waiting.empty(); }
    // Pictures lost so far.
    uint32_t Lost() const { return m_lost; }
    size_t Bytes() const { return m_bytes; }
    // How long the first picture has waited.
    Clock::duration Delay(Clock::time_point now) const {
        return m_waiting.empty() ? Clock::duration::zero() : now - m_waiting.front().since;
    }

private:
    struct Waiting {
        SharedPicture picture;
        Clock::time_point since;
    };

    std::deque<Waiting> m_waiting;
    size_t m_bytes = 0;
    uint32_t m_lost = 0;
    bool m_needs_key = true;  // also at the beginning, where nothing counts as lost
    bool m_has_begun = false;
};

// The pictures of a camera since its last key picture, for a viewer that joins.
class ViewGroup {
public:
    static constexpr size_t kGroupBytes = size_t{2} << 20;
    static constexpr size_t kGroupPictures = 300;

    void Add(const SharedPicture& picture);
    void Clear() {
        m_pictures.clear();
        m_bytes = 0;
    }
    const std::vector<SharedPicture>& Pictures() const { return m_pictures; }

private:
    std::vector<SharedPicture> m_pictures;  // empty, too, if they exceeded a limit
    size_t m_bytes = 0;
};

// A record in front of a picture of this size, without the picture. `index`: of the camera in the request.
std::string PictureRecord(const ViewPicture& picture, uint16_t index, uint32_t lost);
// A whole record.
std::string StateRecord(const std::string& json);

}  // namespace zumod::peer
