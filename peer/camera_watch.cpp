#include "peer/camera_watch.h"

#include <algorithm>
#include <utility>

#include "peer/host_calls.h"
#include "peer/peer_error.h"

namespace zumod::peer {
namespace {

constexpr auto kLookEvery = std::chrono::seconds(1);

}  // namespace

CameraWatch::CameraWatch(const std::vector<CameraEntry>& listed, const CameraEntry& camera,
                         const Limits& limits, Clock::time_point now)
    : m_limits(limits), m_camera(camera), m_quiet_since(now) {
    for (const CameraEntry& each : listed) {
        if (each.name == camera.name) {
            m_place = each.id == camera.id ? m_of : m_place;
            ++m_of;
        }
    }
}

CameraWatch::Actions CameraWatch::OnFrame(Clock::time_point now) {
    m_quiet_since = now;
    m_checked = false;
    const bool first = !std::exchange(m_frame_seen, true);
    return first && m_phase == Phase::kStreaming ? TellOfReturn(now) : Actions{};
}

CameraWatch::Actions CameraWatch::OnState(const StateMessage& state, Clock::time_point now) {
    if (state.id != m_camera.id) {
        return {};
    }
    if (m_phase == Phase::kStreaming && state.state != kCameraOpen) {
        return Lose(CameraEvent::kClosed, "was closed by the host", now);
    }
    if (m_phase != Phase::kOpening || state.state == kCameraClosed) {
        return {};
    }
    m_asked_at.reset();
    if (state.state == kCameraFailed) {
        m_phase = Phase::kLooking;
        m_next_look = now + kLookEvery;
        return {};
    }
    m_phase = Phase::kStreaming;
    m_quiet_since = now;
    m_checked = false;
    return m_frame_seen ? TellOfReturn(now) : Actions{};
}

CameraWatch::Actions CameraWatch::OnCameras(const std::vector<CameraEntry>& cameras, Clock::time_point now) {
    if (m_phase == Phase::kOpening) {
        return {};
    }
    m_asked_at.reset();
    const CameraEntry* const found = Find(cameras);
    if (m_phase == Phase::kStreaming) {
        const bool quiet = now - m_quiet_since >= QuietLimit() / 2;
        return quiet && found == nullptr ? Lose(CameraEvent::kGone, "is gone", now) : Actions{};
    }
    // The answer to a question from before the camera was given up comes too early to open it.
    const bool too_early = now < m_next_look;
    m_next_look = too_early ? m_next_look : now + kLookEvery;
    if (found == nullptr) {
        return m_told == CameraEvent::kGone ? Actions{} : Actions{Tell(CameraEvent::kGone, "is gone")};
    }
    if (too_early) {
        return {};
    }
    m_phase = Phase::kOpening;
    m_camera = *found;
    m_frame_seen = false;
    m_asked_at = now;
    return {{WatchAction::kOpen, m_camera.id, {}, {}}};
}

CameraWatch::Actions CameraWatch::OnTime(Clock::time_point now) {
    if (m_asked_at && now - *m_asked_at >= m_limits.answer) {
        throw PeerError(
            "the host did not answer within " + SecondsText(m_limits.answer) + ": " +
            (m_phase == Phase::kOpening ? "open " + CameraLabel(m_camera) : "camera list request"));
    }
    const auto quiet = now - m_quiet_since;
    if (m_phase == Phase::kStreaming && quiet >= QuietLimit()) {
        return Lose(CameraEvent::kStalled, "stalled: no frame for " + SecondsText(QuietLimit()), now);
    }
    const bool to_check = m_phase == Phase::kStreaming && quiet >= QuietLimit() / 2 && !m_checked;
    const bool to_look = m_phase == Phase::kLooking && now >= m_next_look;
    if (m_asked_at || !(to_check || to_look)) {
        return {};
    }
    m_checked = to_check;
    return {AskCameras(now)};
}

Clock::time_point CameraWatch::NextTime() const {
    Clock::time_point next = m_asked_at ? *m_asked_at + m_limits.answer : Clock::time_point::max();
    if (m_phase == Phase::kStreaming) {
        const bool waits_for_the_end = m_checked || m_asked_at;
        next = std::min(next, m_quiet_since + (waits_for_the_end ? QuietLimit() : QuietLimit() / 2));
    } else if (m_phase == Phase::kLooking && !m_asked_at) {
        next = m_next_look;
    }
    return next;
}

const CameraEntry* CameraWatch::Find(const std::vector<CameraEntry>& cameras) const {
    const CameraEntry* found = nullptr;
    size_t count = 0;
    for (const CameraEntry& each : cameras) {
        if (each.name == m_camera.name) {
            found = count == m_place ? &each : found;
            ++count;
        }
    }
    // With one of them missing it is ours: its frames have ended.
    return count >= m_of ? found : nullptr;
}

WatchAction CameraWatch::AskCameras(Clock::time_point now) {
    m_asked_at = now;
    return {WatchAction::kAskCameras, 0, {}, {}};
}

WatchAction CameraWatch::Tell(CameraEvent event, const std::string& what) {
    m_told = event;
    return {WatchAction::kTell, 0, event, CameraLabel(m_camera) + " " + what};
}

CameraWatch::Actions CameraWatch::Lose(CameraEvent event, const std::string& what, Clock::time_point now) {
    Actions actions;
    // A camera that was opened again and gave no frame has not been back.
    if (!m_away_since) {
        actions.push_back(Tell(event, what));
        m_away_since = m_quiet_since;
    }
    actions.push_back({WatchAction::kClose, m_camera.id, {}, {}});
    m_phase = Phase::kLooking;
    m_next_look = now + kLookEvery;
    m_checked = false;
    return actions;
}

CameraWatch::Actions CameraWatch::TellOfReturn(Clock::time_point now) {
    if (!m_away_since) {
        return {};
    }
    const auto away = now - *std::exchange(m_away_since, std::nullopt);
    return {Tell(CameraEvent::kBack, "is back after " + SecondsText(away))};
}

}  // namespace zumod::peer
