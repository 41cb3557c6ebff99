// One camera of a recording: what has come of it, and what is due.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/waiter.h"
#include "peer/frame_sink.h"
#include "peer/host_calls.h"

namespace zumod::peer {

class RecordTrack {
public:
    // A frame is expected within every `limit`; the recording ends `seconds` after the first one.
    RecordTrack(CameraEntry camera, std::unique_ptr<FrameSink> sink, Clock::duration limit,
                std::optional<Clock::duration> seconds)
        : m_camera(std::move(camera)), m_sink(std::move(sink)), m_limit(limit), m_seconds(seconds) {}

    const CameraEntry& Camera() const { return m_camera; }
    uint64_t Frames() const { return m_frames; }
    std::string Name() const { return m_sink->Name(); }

    // The camera is open now.
    void Begin() { m_no_frame_until = Clock::now() + m_limit; }
    // When there is something to look at: the end, or a frame that is missing.
    Clock::time_point Due() const { return std::min(m_no_frame_until, m_end); }
    // For each frame, again after kNotNow.
    FrameSink::Result OnFrame(const Frame& frame);
    // Throws PeerError when the camera has fallen silent.
    bool IsOver() const;
    // To be called once there is a frame, also after a failure.
    void Finish() { m_sink->Finish(); }

    // "FILE: 5.0 s, 150 frames, 1.2 MB"
    std::string Progress() const;
    // "FILE: 5.0 s, 150 frames, 30.0 frames a second, 0.47 Mbit/s"
    std::string Summary() const;

private:
    const CameraEntry m_camera;
    const std::unique_ptr<FrameSink> m_sink;
    const Clock::duration m_limit;
    const std::optional<Clock::duration> m_seconds;
    Clock::time_point m_no_frame_until = Clock::time_point::max();
    Clock::time_point m_end = Clock::time_point::max();
    Clock::time_point m_first;
    Clock::time_point m_last;
    uint64_t m_frames = 0;
    uint64_t m_bytes = 0;
    bool m_refused = false;  // the last frame that came
};

}  // namespace zumod::peer
