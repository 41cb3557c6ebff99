#include "vcam/model/live_feed.h"

#include <algorithm>
#include <utility>

namespace zumod::vcam {

void LiveFeed::BeginStream(Time now, Rate rate) {
    m_frame_time = std::chrono::nanoseconds(uint64_t{1000000000} * rate.denominator / rate.numerator);
    m_is_new = false;
    m_missed = 0;
    m_last_new = now - m_frame_time * 31 / 32;  // the first picture may come at once
    m_taken = now;
    m_repeat_at = now + m_frame_time;
}

void LiveFeed::Put(Picture picture, Time now, uint64_t count) {
    m_missed += (m_is_new ? 1 : 0) + count - 1;
    m_newest = std::move(picture);
    m_arrived = now;
    m_is_new = true;
}

LiveFeed::Time LiveFeed::Due() const {
    if (!m_is_new) {
        return m_repeat_at;
    }
    return m_arrived >= m_last_new + m_frame_time * 3 / 4 ? m_arrived : m_last_new + m_frame_time;
}

LiveFeed::Frame LiveFeed::Take(Time now) {
    if (m_is_new) {
        m_taken = Due();
        m_last_new = std::max(m_taken - m_frame_time / 4, m_last_new + m_frame_time * 31 / 32);
    } else {
        m_taken = now;
    }
    m_is_new = false;
    m_repeat_at = now + kRepeatFrames * m_frame_time;
    return {m_newest, std::exchange(m_missed, 0)};
}

}  // namespace zumod::vcam
