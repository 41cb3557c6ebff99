// State machine that detects a stalled or removed camera and decides when to close, look for and reopen it.
// Performs no I/O: each call reports an event and returns the actions to perform, in order.
//
// Streaming: if no frame arrives for half of the limit, the list of cameras is requested. If the camera is
// not in it, it is gone; if no frame arrives for the whole limit, it has stalled. Either way it is closed.
// Searching: the list is requested once per second until it contains the camera, perhaps under another id.
// Opening: a failed attempt leads back to searching. After a successful one the camera is streaming; it
// counts as back only once a frame has arrived.
//
// Cameras are recognised by name. Several may share a name; then ours is number m_namesake_index of
// m_namesake_count in the list. If there are fewer of them than in the list before, while ours sends nothing,
// ours is the missing one. It is back once there are more again. If others are missing then, which one is
// back cannot be known: it is opened, and the announcement says that it may be another one.
//
// Thread rule: one thread at a time. Each call passes the time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/message_reader.h"

namespace zumod::peer {

enum class CameraEvent { kStalled, kGone, kClosed, kBack };

struct WatchAction {
    enum Kind { kAskCameras, kOpen, kClose, kAnnounce };
    Kind kind;
    uint32_t id = 0;      // of kOpen and kClose
    CameraEvent event{};  // of kAnnounce
    std::string text;     // of kAnnounce

    bool operator==(const WatchAction&) const = default;
};

class CameraWatch {
public:
    using Actions = std::vector<WatchAction>;
    struct Limits {
        Clock::duration quiet = std::chrono::seconds(1);        // between two frames
        Clock::duration first_frame = std::chrono::seconds(3);  // after the camera was opened
        Clock::duration answer = std::chrono::seconds(10);
        // Without it a camera that is listed and sends nothing counts as streaming; the list is requested
        // once per second meanwhile.
        bool closes_stalled = true;
    };

    // `camera`, one of `listed`, has just been opened.
    CameraWatch(const std::vector<CameraEntry>& listed, const CameraEntry& camera, const Limits& limits,
                Clock::time_point now);

    // A frame for which IsOurs() is true.
    Actions OnFrame(Clock::time_point now);
    Actions OnState(const StateMessage& state, Clock::time_point now);
    Actions OnCameras(const std::vector<CameraEntry>& cameras, Clock::time_point now);
    // The camera is not open from now on, and nobody looks at the list: if a namesake is missing later, which
    // one it is cannot be known.
    void ForgetList();
    // The connection is lost, and with it every answer. The camera is searched for in the next one.
    void OnDisconnect(Clock::time_point now);
    // Fails if the host has not answered in time.
    Expected<Actions> OnTime(Clock::time_point now);

    // When to call OnTime() if nothing else happens.
    Clock::time_point NextTime() const;

    // Whether frames with this id come from the watched camera.
    bool IsOurs(uint32_t id) const { return m_phase != Phase::kSearching && id == m_camera.id; }
    bool IsAway() const { return m_phase != Phase::kStreaming; }
    bool IsListed(const std::vector<CameraEntry>& cameras) const { return Find(cameras) != nullptr; }
    // Whether what was opened may be another camera of this name.
    bool IsUncertain() const { return m_uncertain; }
    // With its current or last id.
    const CameraEntry& Camera() const { return m_camera; }

private:
    enum class Phase { kStreaming, kSearching, kOpening };

    Clock::duration QuietLimit() const { return m_frame_seen ? m_limits.quiet : m_limits.first_frame; }
    std::vector<const CameraEntry*> Namesakes(const std::vector<CameraEntry>& cameras) const;
    // Ours, or null if it is missing. Only while it sends nothing.
    const CameraEntry* Find(const std::vector<CameraEntry>& cameras) const;
    bool IsMissingAmong(size_t listed_count) const;
    // While streaming: when to request the list.
    Clock::time_point NextCheck() const;
    WatchAction AskCameras(Clock::time_point now);
    WatchAction Announce(CameraEvent event, const std::string& what);
    Actions GiveUp(CameraEvent event, const std::string& what, Clock::time_point now);
    Actions AnnounceReturn(Clock::time_point now);

    const Limits m_limits;
    CameraEntry m_camera;
    size_t m_namesake_index = 0;
    size_t m_namesake_count = 0;
    size_t m_listed_count = 0;  // the namesakes in the last list
    bool m_missing = false;     // ours is not one of them
    bool m_uncertain = false;   // what was opened may be another one

    Phase m_phase = Phase::kStreaming;
    Clock::time_point m_quiet_since;
    bool m_frame_seen = false;                   // since the camera was opened
    std::optional<Clock::time_point> m_checked;  // since the last frame: when the list was requested
    std::optional<Clock::time_point> m_asked_at;
    Clock::time_point m_next_search;
    std::optional<Clock::time_point> m_away_since;
    CameraEvent m_announced{};
};

}  // namespace zumod::peer
