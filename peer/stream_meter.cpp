#include "peer/stream_meter.h"

#include <algorithm>
#include <utility>

namespace zumod::peer {
namespace {

// An age that is greater, or negative, comes from the clock of another machine.
constexpr auto kGreatestAge = std::chrono::minutes(1);

}  // namespace

void StreamMeter::AddFrame(size_t bytes) {
    ++m_figures.frames;
    m_figures.bytes += bytes;
}

void StreamMeter::AddStamp(uint32_t counter, Clock::time_point shown, Clock::time_point decoded) {
    const uint64_t gap = m_last_counter && counter > *m_last_counter ? counter - *m_last_counter - 1 : 0;
    m_figures.dropped = m_figures.dropped.value_or(0) + gap;
    m_last_counter = counter;
    const auto age = decoded - shown;
    if (age >= Clock::duration::zero() && age < kGreatestAge) {
        m_latencies_ms.push_back(std::chrono::duration<double, std::milli>(age).count());
    }
}

StreamFigures StreamMeter::EndInterval(Clock::time_point now) {
    StreamFigures figures = std::exchange(m_figures, {});
    figures.seconds = std::chrono::duration<double>(now - std::exchange(m_since, now)).count();
    std::vector<double> latencies = std::exchange(m_latencies_ms, {});
    if (!latencies.empty()) {
        std::sort(latencies.begin(), latencies.end());
        figures.greatest_latency_ms = latencies.back();
        const size_t middle = latencies.size() / 2;
        figures.median_latency_ms =
            latencies.size() % 2 == 1 ? latencies[middle] : (latencies[middle - 1] + latencies[middle]) / 2;
    }
    return figures;
}

}  // namespace zumod::peer
