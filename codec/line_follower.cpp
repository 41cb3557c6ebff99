#include "codec/line_follower.h"

#include <algorithm>
#include <cmath>

namespace zumod {
namespace {

constexpr LineFollower::Duration kPause = std::chrono::seconds(10);
constexpr LineFollower::Duration kFirstTrialAfter = std::chrono::seconds(4);
constexpr LineFollower::Duration kLastTrialAfter = std::chrono::seconds(64);
constexpr double kOverloaded = 1.25;
constexpr double kFaster = 0.8;
constexpr double kEffect = 0.75;

}  // namespace

void LineFollower::OnPicture(Duration now) {
    if (m_last.count() < 0 || now - m_last > kPause) {
        Reset(now);
        return;
    }
    m_intervals.at(static_cast<size_t>(m_count++)) = now - m_last;
    m_last = now;
    if (m_count == kWindow) {
        const Duration window = now - m_begin;
        m_begin = now;
        m_count = 0;
        OnWindow(window);
    }
}

void LineFollower::Reset(Duration now) {
    *this = LineFollower();
    m_last = m_begin = now;
    m_trial_after = kFirstTrialAfter;
}

void LineFollower::OnWindow(Duration window) {
    const double interval = static_cast<double>(window.count()) / kWindow;
    if (m_camera <= 0) {
        std::ranges::sort(m_intervals);
        m_camera = static_cast<double>(m_intervals[kWindow / 2].count());
        return;
    }
    if (m_ignores_window) {
        m_ignores_window = false;
        return;
    }
    const double overload = interval / m_camera;
    if (overload < kOverloaded) {
        OnCalm(interval, window);
    } else {
        OnGaps(interval, overload);
    }
}

void LineFollower::OnCalm(double interval, Duration window) {
    m_camera = interval < kFaster * m_camera ? interval : m_camera + (interval - m_camera) / 4;
    m_tries_fewer = false;
    m_calm += window;
    if (m_calm < m_trial_after) {
        return;
    }
    m_calm = {};
    if (m_tries_more) {
        m_trial_after = kFirstTrialAfter;  // the last trial was right
    }
    m_tries_more = m_halvings > 0;
    m_halvings = std::max(m_halvings - 1, 0);
}

void LineFollower::OnGaps(double interval, double overload) {
    m_calm = {};
    if (m_tries_fewer && overload > kEffect * m_overload_before) {
        m_tries_fewer = false;
        m_halvings = m_halvings_before;
        m_camera = interval;
        return;
    }
    if (m_tries_more) {
        m_tries_more = false;
        m_trial_after = std::min(2 * m_trial_after, kLastTrialAfter);
    }
    m_tries_fewer = true;
    m_ignores_window = true;
    m_overload_before = overload;
    m_halvings_before = m_halvings;
    const int needed = std::max(static_cast<int>(std::lround(std::log2(overload))), 1);
    m_halvings = std::min(m_halvings + needed, kMostHalvings);
}

}  // namespace zumod
