// The due times of a stream's frames: exact multiples of the frame time after the start, so that nothing
// drifts.
//
// Thread rule: a value.
#pragma once

#include <chrono>
#include <cstdint>

#include "vcam/model/camera_config.h"

namespace zumod::vcam {

class FrameClock {
public:
    using Time = std::chrono::steady_clock::time_point;

    FrameClock() = default;
    FrameClock(Time start, Rate rate) : m_start(start), m_rate(rate) {}

    // Frame 0 is due one frame time after the start.
    Time Due(uint64_t frame) const {
        const auto offset = static_cast<Wide>(frame + 1) * kSecond * m_rate.denominator / m_rate.numerator;
        return m_start + std::chrono::nanoseconds(static_cast<int64_t>(offset));
    }

    // The first frame that is not due yet.
    uint64_t FirstAfter(Time now) const {
        const auto passed = std::chrono::nanoseconds(now - m_start).count();
        if (passed < 0) {
            return 0;
        }
        return static_cast<uint64_t>(static_cast<Wide>(passed) * m_rate.numerator /
                                     (static_cast<Wide>(kSecond) * m_rate.denominator));
    }

private:
    __extension__ using Wide = unsigned __int128;
    static constexpr uint64_t kSecond = 1000000000;

    Time m_start;
    Rate m_rate;
};

}  // namespace zumod::vcam
