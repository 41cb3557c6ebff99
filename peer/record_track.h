// One camera of a recording: what was recorded of it, and when the next frame or the end is due.
//
// Thread rule: one thread at a time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/frame_sink.h"
#include "peer/host_calls.h"

namespace zumod::peer {

class RecordTrack {
public:
    // A frame is expected within every `limit`. The recording ends `seconds` after the first one.
    RecordTrack(std::unique_ptr<FrameSink> sink, Clock::duration limit,
                std::optional<Clock::duration> seconds)
        : m_sink(std::move(sink)), m_limit(limit), m_seconds(seconds) {}

    uint64_t Frames() const { return m_frames; }
    bool IsOver() const { return m_over; }
    std::string Name() const { return m_sink->Name(); }

    // The camera is open now.
    void Begin(const CameraEntry& camera) {
        m_label = CameraLabel(camera);
        m_sink->Begin(camera);
        Resume();
    }
    // The camera is away: completes the file. The next frame goes to another one, and none is due before
    // Resume().
    Expected<void> Pause() {
        m_frame_due = Clock::time_point::max();
        return m_sink->Split();
    }
    void Resume() { m_frame_due = Clock::now() + m_limit; }
    // When to call OnTime(): at the end, when a frame is late, or when frames should be on the disk.
    Clock::time_point Due() const { return std::min({m_frame_due, m_end, m_sink->FlushDue()}); }
    // For each frame, and again for the same frame after kNotNow.
    Expected<FrameSink::Result> OnFrame(const Frame& frame);
    Expected<void> OnTime();
    // That the camera sent no frame in time; empty if it did.
    std::string Lateness() const;
    // To be called once there is a frame, also after a failure.
    Expected<void> Finish() { return m_sink->Finish(); }

    // "FILE: 5.0 s, 150 frames, 1.2 MB"
    std::string Progress() const;
    // "FILE: 5.0 s, 150 frames, 30.0 frames per second, 0.47 Mbit/s"
    std::string Summary() const;

private:
    std::unique_ptr<FrameSink> m_sink;
    Clock::duration m_limit;
    std::optional<Clock::duration> m_seconds;
    std::string m_label;  // the camera's
    Clock::time_point m_frame_due = Clock::time_point::max();
    Clock::time_point m_end = Clock::time_point::max();
    Clock::time_point m_first;
    Clock::time_point m_last;
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
    bool m_skipped = false;  // the last frame that arrived
    bool m_over = false;     // the time of the recording has passed
};

}  // namespace zumod::peer
