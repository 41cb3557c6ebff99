// A meter of one stream: counts what arrives, and measures the latency by the stamps in the pictures.
//
// Thread rule: one thread at a time. The caller passes the time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "common/waiter.h"

namespace zumod::peer {

struct StreamFigures {
    double seconds = 0;  // length of the interval measured
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t undecoded = 0;
    // From the time in a picture until it was decoded. Nothing if no picture has a time of this machine.
    std::optional<double> median_latency_ms;
    std::optional<double> greatest_latency_ms;
    // Pictures that are missing according to the counter in them. Nothing if no picture has a counter.
    std::optional<uint64_t> dropped;

    double FramesPerSecond() const { return seconds > 0 ? static_cast<double>(frames) / seconds : 0; }
    double BitsPerSecond() const { return seconds > 0 ? 8 * static_cast<double>(bytes) / seconds : 0; }
};

class StreamMeter {
public:
    explicit StreamMeter(Clock::time_point now) : m_since(now) {}

    void AddFrame(size_t bytes);
    void AddUndecoded() { ++m_figures.undecoded; }
    // The counter and the time in a picture that was decoded at `decoded`.
    void AddStamp(uint32_t counter, Clock::time_point shown, Clock::time_point decoded);
    // The counter starts again.
    void NewStream() { m_last_counter.reset(); }

    // Ends the interval: returns its figures and starts the next one.
    StreamFigures EndInterval(Clock::time_point now);

private:
    Clock::time_point m_since;
    StreamFigures m_figures;
    std::vector<double> m_latencies_ms;
    std::optional<uint32_t> m_last_counter;
};

}  // namespace zumod::peer
