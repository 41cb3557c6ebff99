// Recovers the regular times at which a camera took its frames from the times at which they arrived.
//
// Frames arrive late by a delay that varies with the processors and the network, typically by 1 to 55 ms. The
// recovered times are those of a straight line through the arrivals: frame k is at base + k * period. Both
// parameters are estimated by recursive least squares. The first frames count fully, so that the rate of a
// camera that does not send at the requested one is learned at once; later the memory is
// limited to the last kMemory frames or so, so that a slow drift of the camera's clock is followed.
//
// Two things are not jitter. After a pause (a frame that is later than the line by more than the tolerance)
// the line starts again at the arrival of that frame, and its period is kept; after two such frames in a row
// the period is what the last two arrivals say. Frames that were held back and arrive in a burst behind a
// pause are placed one behind another with the smallest step, because their real times are unknown.
//
// Guarantees: the times rise strictly, by at least kSmallestStep, and a time is never further behind its
// arrival than the tolerance. It is further ahead only where many frames arrive at once.
//
// Thread rule: one thread at a time. Pure: the times are passed in.
#pragma once

#include <optional>

#include "common/waiter.h"

namespace zumod::peer {

class ClockRecovery {
public:
    static constexpr auto kSmallestStep = std::chrono::milliseconds(1);

    // `fps`: the requested rate, which decides what is a pause until two frames have arrived.
    explicit ClockRecovery(int fps) : m_period(1.0 / fps) {}

    // The recovered time of the next frame.
    Clock::time_point Next(Clock::time_point arrival);

private:
    static constexpr double kMemory = 64;        // frames
    static constexpr double kRestartWeight = 3;  // frames that the period counts for after a pause
    static constexpr double kTolerance = 0.1;    // seconds, or kTolerancePeriods if that is longer
    static constexpr double kTolerancePeriods = 1.5;

    double TimeOf(double arrival);
    void StartLine(double at, double weight);

    std::optional<Clock::time_point> m_origin;  // the first arrival; the doubles are seconds from then on
    double m_period;
    double m_line = 0;  // the line at the last frame
    double m_last_arrival = 0;
    double m_last_time = 0;  // recovered
    double m_weight = 0;     // frames that the line counts for
    int m_late_in_a_row = 0;
    bool m_after_pause = false;  // a burst may follow
};

}  // namespace zumod::peer
