#include "peer/record_track.h"

#include <cstdio>

namespace zumod::peer {

Expected<FrameSink::Result> RecordTrack::OnFrame(const Frame& frame) {
    using Result = FrameSink::Result;
    auto result = frame.at >= m_end ? Result::kSkipped : m_sink->Add(frame);
    m_skipped = result == Result::kSkipped;
    if (result != Result::kTaken) {
        return result;
    }
    if (m_frames == 0) {
        m_first = frame.at;
        m_end = m_seconds ? m_first + *m_seconds : m_end;
    }
    ++m_frames;
    m_bytes += frame.bytes.size();
    m_last = frame.at;
    // Not from frame.at: time blocked on standard output must not count against the camera.
    m_frame_due = Clock::now() + m_limit;
    return result;
}

Expected<void> RecordTrack::OnTime() {
    const auto now = Clock::now();
    m_over = now >= m_end;
    return now >= m_sink->FlushDue() ? m_sink->Flush() : Expected<void>();
}

std::string RecordTrack::Lateness() const {
    const bool late = !m_over && Clock::now() >= m_frame_due;
    return late ? m_label + " sent " + (m_skipped ? "no key frame" : "no frame") + " within " +
                      SecondsText(m_limit)
                : "";
}

std::string RecordTrack::Progress() const {
    char text[96];
    std::snprintf(text, sizeof text, ": %s, %llu frames, %.1f MB", SecondsText(m_last - m_first).c_str(),
                  static_cast<unsigned long long>(m_frames), static_cast<double>(m_bytes) / 1e6);
    return Name() + text;
}

std::string RecordTrack::Summary() const {
    const double span = std::chrono::duration<double>(m_last - m_first).count();
    const double count = static_cast<double>(m_frames);
    // The last frame counts as long as the others on average.
    const double length = m_frames > 1 ? span * count / (count - 1) : 0;
    char text[128];
    std::snprintf(text, sizeof text, ": %.1f s, %llu frame%s", length,
                  static_cast<unsigned long long>(m_frames), m_frames == 1 ? "" : "s");
    std::string summary = Name() + text;
    if (length > 0) {
        std::snprintf(text, sizeof text, ", %.1f frames per second, %.2f Mbit/s", count / length,
                      static_cast<double>(m_bytes) * 8 / length / 1e6);
        summary += text;
    }
    return summary;
}

}  // namespace zumod::peer
