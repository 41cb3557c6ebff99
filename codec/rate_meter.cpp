#include "codec/rate_meter.h"

#include <algorithm>
#include <cmath>

namespace zumod {
namespace {

constexpr RateMeter::Duration kLongestInterval = std::chrono::seconds(2);
constexpr RateMeter::Duration kWindow = std::chrono::seconds(1);
constexpr int kLeastIntervals = 4;
constexpr int kWindowsThatAgree = 4;
constexpr double kTolerance = 0.05;
constexpr double kHighestRate = 250;
constexpr double kRoundedToHalves = 10;

bool IsNear(double rate, double other) {
    return std::abs(rate - other) <= kTolerance * other;
}

int Rounded(double rate) {
    const double step = rate >= kRoundedToHalves ? 5 : 1;
    return static_cast<int>(step * std::round(10 * rate / step));
}

}  // namespace

void RateMeter::OnPicture(Duration now) {
    if (m_last.count() < 0 || now - m_last > kLongestInterval) {
        m_last = m_begin = now;
        m_count = m_agreeing = 0;
        return;
    }
    m_last = now;
    ++m_count;
    const Duration window = now - m_begin;
    if (window >= kWindow && m_count >= kLeastIntervals) {
        OnWindow(m_count / std::chrono::duration<double>(window).count());
        m_begin = now;
        m_count = 0;
    }
}

void RateMeter::OnWindow(double rate) {
    if (m_agreeing > 0 && !IsNear(rate, m_mean)) {
        m_agreeing = 0;
    }
    m_agreeing = std::min(m_agreeing + 1, kWindowsThatAgree);
    m_mean = m_agreeing == 1 ? rate : m_mean + (rate - m_mean) / m_agreeing;
    if (m_agreeing == kWindowsThatAgree && m_mean <= kHighestRate && !IsNear(m_mean, m_tenths / 10.0)) {
        m_tenths = Rounded(m_mean);
        m_agreeing = 0;
    }
}

}  // namespace zumod
