// Sees to it that a camera that stalls or goes away is noticed, closed, looked for and opened again. It
// decides; whoever owns it does: every call tells it what happened and returns what is to be done, in order.
//
// Thread rule: one thread at a time. No clock of its own: each call brings the time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/message_reader.h"

namespace zumod::peer {

enum class CameraEvent { kStalled, kGone, kClosed, kBack };

struct WatchAction {
    enum Kind { kAskCameras, kOpen, kClose, kTell };
    Kind kind;
    uint32_t id = 0;      // of kOpen and kClose
    CameraEvent event{};  // of kTell, as is the text
    std::string text;

    bool operator==(const WatchAction&) const = default;
};

class CameraWatch {
public:
    using Actions = std::vector<WatchAction>;
    struct Limits {
        Clock::duration quiet = std::chrono::seconds(1);        // between two frames
        Clock::duration first_frame = std::chrono::seconds(3);  // after the camera was opened
        Clock::duration answer = std::chrono::seconds(10);
    };

    // `camera`, one of `listed`, has just been opened.
    CameraWatch(const std::vector<CameraEntry>& listed, const CameraEntry& camera, const Limits& limits,
                Clock::time_point now);

    // A frame that Takes is true for.
    Actions OnFrame(Clock::time_point now);
    Actions OnState(const StateMessage& state, Clock::time_point now);
    Actions OnCameras(const std::vector<CameraEntry>& cameras, Clock::time_point now);
    // Throws PeerError when the host has not answered in time.
    Actions OnTime(Clock::time_point now);

    // When OnTime has something to do, if nothing else happens.
    Clock::time_point NextTime() const;

    // Whether frames with this id are the camera's.
    bool Takes(uint32_t id) const { return m_phase != Phase::kLooking && id == m_camera.id; }
    bool IsAway() const { return m_phase != Phase::kStreaming; }
    // With the id it has, or had last.
    const CameraEntry& Camera() const { return m_camera; }

private:
    enum class Phase { kStreaming, kLooking, kOpening };

    Clock::duration QuietLimit() const { return m_frame_seen ? m_limits.quiet : m_limits.first_frame; }
    const CameraEntry* Find(const std::vector<CameraEntry>& cameras) const;
    WatchAction AskCameras(Clock::time_point now);
    WatchAction Tell(CameraEvent event, const std::string& what);
    Actions Lose(CameraEvent event, const std::string& what, Clock::time_point now);
    Actions TellOfReturn(Clock::time_point now);

    const Limits m_limits;
    CameraEntry m_camera;
    // Several cameras may have one name: ours was this one of so many.
    size_t m_place = 0;
    size_t m_of = 0;

    Phase m_phase = Phase::kStreaming;
    Clock::time_point m_quiet_since;
    bool m_frame_seen = false;  // since the camera was opened
    bool m_checked = false;     // that it is still listed, since the last frame
    std::optional<Clock::time_point> m_asked_at;
    Clock::time_point m_next_look;
    std::optional<Clock::time_point> m_away_since;
    CameraEvent m_told{};
};

}  // namespace zumod::peer
