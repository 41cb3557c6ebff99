#include "peer/clock_recovery.h"

#include <algorithm>

namespace zumod::peer {

using Seconds = std::chrono::duration<double>;

Clock::time_point ClockRecovery::Next(Clock::time_point arrival) {
    if (!m_origin) {
        m_origin = arrival;
        StartLine(0, 1);
        return arrival;
    }
    const double at = Seconds(arrival - *m_origin).count();
    m_last_time = std::max(TimeOf(at), m_last_time + Seconds(kSmallestStep).count());
    m_last_arrival = at;
    return *m_origin + std::chrono::round<Clock::duration>(Seconds(m_last_time));
}

void ClockRecovery::StartLine(double at, double weight) {
    m_line = at;
    m_weight = weight;
}

double ClockRecovery::TimeOf(double arrival) {
    const double since_last = arrival - m_last_arrival;
    if (m_after_pause && since_last < m_period / 2) {
        // Of the burst: it says nothing about the period, and the line continues where the burst ends.
        StartLine(arrival, kRestartWeight);
        return arrival;
    }
    m_after_pause = false;
    const double error = arrival - (m_line + m_period);
    const double tolerance = std::max(kTolerance, kTolerancePeriods * m_period);
    if (error > tolerance) {
        m_period = ++m_late_in_a_row > 1 ? since_last : m_period;
        m_after_pause = true;
        StartLine(arrival, kRestartWeight);
        return arrival;
    }
    m_late_in_a_row = 0;
    // The gains of least squares with a straight line through this many frames.
    m_weight = std::min(m_weight + 1, kMemory);
    const double both = m_weight * (m_weight + 1);
    m_line += m_period + error * 2 * (2 * m_weight - 1) / both;
    m_line = std::max(m_line, arrival - tolerance);
    m_period = std::max(m_period + error * 6 / both, Seconds(kSmallestStep).count());
    return m_line;
}

}  // namespace zumod::peer
