#include "peer/camera_watch.h"

#include <algorithm>
#include <utility>

#include "peer/host_calls.h"

namespace zumod::peer {
namespace {

constexpr auto kSearchInterval = std::chrono::seconds(1);

}  // namespace

CameraWatch::CameraWatch(const std::vector<CameraEntry>& listed, const CameraEntry& camera,
                         const Limits& limits, Clock::time_point now)
    : m_limits(limits), m_camera(camera), m_quiet_since(now) {
    for (const CameraEntry& each : listed) {
        if (each.name == camera.name) {
            m_namesake_index = each.id == camera.id ? m_namesake_count : m_namesake_index;
            ++m_namesake_count;
        }
    }
    m_listed_count = m_namesake_count;
}

CameraWatch::Actions CameraWatch::OnFrame(Clock::time_point now) {
    m_quiet_since = now;
    m_checked.reset();
    if (m_phase == Phase::kStreaming) {
        m_asked_at.reset();  // the list: its answer is not needed any more
    }
    const bool first = !std::exchange(m_frame_seen, true);
    return first && m_phase == Phase::kStreaming ? AnnounceReturn(now) : Actions{};
}

CameraWatch::Actions CameraWatch::OnState(const StateMessage& state, Clock::time_point now) {
    if (state.id != m_camera.id) {
        return {};
    }
    if (m_phase == Phase::kStreaming && state.state != kCameraOpen) {
        return GiveUp(CameraEvent::kClosed, "was closed by the host", now);
    }
    if (m_phase != Phase::kOpening || state.state == kCameraClosed) {
        return {};
    }
    m_asked_at.reset();
    if (state.state == kCameraFailed) {
        m_phase = Phase::kSearching;
        m_next_search = now + kSearchInterval;
        return {};
    }
    m_phase = Phase::kStreaming;
    m_quiet_since = now;
    m_checked.reset();
    return m_frame_seen ? AnnounceReturn(now) : Actions{};
}

CameraWatch::Actions CameraWatch::OnCameras(const std::vector<CameraEntry>& cameras, Clock::time_point now) {
    if (m_phase == Phase::kOpening) {
        return {};
    }
    m_asked_at.reset();
    if (m_phase == Phase::kStreaming && now - m_quiet_since < QuietLimit() / 2) {
        return {};
    }
    const CameraEntry* const found = Find(cameras);
    const size_t listed_count = Namesakes(cameras).size();
    m_missing = IsMissingAmong(listed_count);
    m_listed_count = listed_count;
    if (m_phase == Phase::kStreaming) {
        return found == nullptr ? GiveUp(CameraEvent::kGone, "is gone", now) : Actions{};
    }
    // The list was requested before the camera was given up, so it does not show that the camera is back.
    const bool too_early = now < m_next_search;
    m_next_search = too_early ? m_next_search : now + kSearchInterval;
    if (found == nullptr) {
        return m_announced == CameraEvent::kGone ? Actions{}
                                                 : Actions{Announce(CameraEvent::kGone, "is gone")};
    }
    if (too_early) {
        return {};
    }
    m_phase = Phase::kOpening;
    m_camera = *found;
    m_uncertain = listed_count < m_namesake_count;
    m_frame_seen = false;
    m_asked_at = now;
    return {{WatchAction::kOpen, m_camera.id, {}, {}}};
}

void CameraWatch::ForgetList() {
    m_listed_count = 0;
    m_missing = false;
}

void CameraWatch::OnDisconnect(Clock::time_point now) {
    m_away_since = m_away_since.value_or(m_quiet_since);
    m_phase = Phase::kSearching;
    m_next_search = now;
    m_asked_at.reset();
    m_checked.reset();
}

Expected<CameraWatch::Actions> CameraWatch::OnTime(Clock::time_point now) {
    if (m_asked_at && now - *m_asked_at >= m_limits.answer) {
        return Fail("the host did not answer within " + SecondsText(m_limits.answer) + ": " +
                    (m_phase == Phase::kOpening ? "open " + CameraLabel(m_camera) : "camera list request"));
    }
    const auto quiet = now - m_quiet_since;
    if (m_limits.closes_stalled && m_phase == Phase::kStreaming && quiet >= QuietLimit()) {
        return GiveUp(CameraEvent::kStalled, "stalled: no frame for " + SecondsText(QuietLimit()), now);
    }
    const bool check_due = m_phase == Phase::kStreaming && now >= NextCheck();
    const bool search_due = m_phase == Phase::kSearching && now >= m_next_search;
    if (m_asked_at || !(check_due || search_due)) {
        return Actions{};
    }
    m_checked = check_due ? std::optional(now) : std::nullopt;
    return Actions{AskCameras(now)};
}

Clock::time_point CameraWatch::NextTime() const {
    Clock::time_point next = m_asked_at ? *m_asked_at + m_limits.answer : Clock::time_point::max();
    if (m_phase == Phase::kStreaming) {
        next = m_asked_at ? next : std::min(next, NextCheck());
        next = m_limits.closes_stalled ? std::min(next, m_quiet_since + QuietLimit()) : next;
    } else if (m_phase == Phase::kSearching && !m_asked_at) {
        next = m_next_search;
    }
    return next;
}

Clock::time_point CameraWatch::NextCheck() const {
    if (!m_checked) {
        return m_quiet_since + QuietLimit() / 2;
    }
    return m_limits.closes_stalled ? Clock::time_point::max() : *m_checked + kSearchInterval;
}

std::vector<const CameraEntry*> CameraWatch::Namesakes(const std::vector<CameraEntry>& cameras) const {
    std::vector<const CameraEntry*> namesakes;
    for (const CameraEntry& each : cameras) {
        if (each.name == m_camera.name) {
            namesakes.push_back(&each);
        }
    }
    return namesakes;
}

const CameraEntry* CameraWatch::Find(const std::vector<CameraEntry>& cameras) const {
    const auto namesakes = Namesakes(cameras);
    if (namesakes.empty() || IsMissingAmong(namesakes.size())) {
        return nullptr;
    }
    return namesakes[std::min(m_namesake_index, namesakes.size() - 1)];
}

bool CameraWatch::IsMissingAmong(size_t listed_count) const {
    return listed_count < m_listed_count || (m_missing && listed_count == m_listed_count);
}

WatchAction CameraWatch::AskCameras(Clock::time_point now) {
    m_asked_at = now;
    return {WatchAction::kAskCameras, 0, {}, {}};
}

WatchAction CameraWatch::Announce(CameraEvent event, const std::string& what) {
    m_announced = event;
    return {WatchAction::kAnnounce, 0, event, CameraLabel(m_camera) + " " + what};
}

CameraWatch::Actions CameraWatch::GiveUp(CameraEvent event, const std::string& what, Clock::time_point now) {
    Actions actions;
    // A camera that was reopened and sent no frame was never back.
    if (!m_away_since) {
        actions.push_back(Announce(event, what));
        m_away_since = m_quiet_since;
    }
    actions.push_back({WatchAction::kClose, m_camera.id, {}, {}});
    m_phase = Phase::kSearching;
    m_next_search = now + kSearchInterval;
    m_checked.reset();
    return actions;
}

CameraWatch::Actions CameraWatch::AnnounceReturn(Clock::time_point now) {
    if (!m_away_since) {
        return {};
    }
    const auto away = now - *std::exchange(m_away_since, std::nullopt);
    return {Announce(CameraEvent::kBack, "is back after " + SecondsText(away) +
                                             (m_uncertain ? ", or another camera of this name" : ""))};
}

}  // namespace zumod::peer
