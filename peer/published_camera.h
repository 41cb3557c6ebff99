// State machine of a lent camera that programs of this machine can read: decides when to open, change and
// close the camera at the host, and what readers see while it is away. Performs no I/O and knows nothing of
// how the camera is offered (a node of a media server, a virtual device): each call reports an event and
// returns the actions to perform, in order.
//
// The light on the camera tells the truth: the camera is opened when the first reader comes and closed when
// no reader was there for Limits::hold. A program that changes its mind (a browser asks for permission, then
// for another size) therefore does not switch it off and on.
//
// While it is open, a CameraWatch finds out that it stalls or is gone and opens it again. From then until the
// next frame its readers are shown a card once per second: a picture that says so. A reader is never left
// without pictures, because some programs wait for the next one for ever.
//
// Some sizes cannot be opened (they exist only compressed, which the list does not say). Then smaller ones
// are tried at once, and the pictures are scaled to what readers want.
//
// A camera that cannot be opened (another program has it, its user said no) is not tried once per second,
// because somebody may be asked each time: the pause doubles from kShortestPause to kLongestPause. It is
// forgotten when the last reader has left.
//
// While nobody reads, the list of cameras is requested from time to time. A camera without a reader that was
// not listed for Limits::absence is withdrawn, so that no program offers it, and published again when it is
// listed again. As the constructor returns it counts as published.
//
// Several cameras may share a name. If fewer of them are listed than at first when a reader comes, which ones
// are left cannot be known. One of them is opened, with a report that it may be another one. Such a camera is
// withdrawn only if none of its name is listed.
//
// Thread rule: one thread at a time. Each call passes the time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_list.h"
#include "peer/camera_watch.h"
#include "peer/message_reader.h"

namespace zumod::peer {

// What readers want.
struct StreamFormat {
    PictureSize size;
    int fps = 30;

    bool operator==(const StreamFormat&) const = default;
};

struct PublishAction {
    enum Kind {
        kAskCameras,  // request the host's list
        kOpen,        // the camera at the host; its frames are a new stream
        kSetFormat,   // of the open camera
        kClose,       // the camera at the host
        kShowCard,    // to the readers
        kWithdraw,    // programs do not find the camera any more
        kPublish,     // programs find it again
        kReport       // tell the user
    };
    Kind kind;
    uint32_t id = 0;        // of kOpen, kSetFormat and kClose
    StreamFormat format{};  // of kOpen and kSetFormat
    std::string text{};     // of kReport

    bool operator==(const PublishAction&) const = default;
};

class PublishedCamera {
public:
    static constexpr auto kCardInterval = std::chrono::seconds(1);
    static constexpr auto kShortestPause = std::chrono::seconds(1);
    static constexpr auto kLongestPause = std::chrono::seconds(30);

    using Actions = std::vector<PublishAction>;
    struct Limits {
        CameraWatch::Limits watch{};
        Clock::duration hold = std::chrono::seconds(2);  // from the last reader until the camera is closed
        Clock::duration absence =
            std::chrono::seconds(10);  // without camera and reader until it is withdrawn
        Clock::duration list_interval = std::chrono::seconds(3);  // while nobody reads
    };

    // `camera` is one of `listed`. `format`: until a reader wants another one.
    PublishedCamera(const std::vector<CameraEntry>& listed, const CameraEntry& camera, StreamFormat format,
                    const Limits& limits, Clock::time_point now);

    // The first reader came, or the last one left.
    Actions OnReaders(bool any, Clock::time_point now);
    // May come before the reader itself.
    Actions OnFormat(StreamFormat format, Clock::time_point now);

    // A frame for which WantsFrames() is true.
    Actions OnFrame(Clock::time_point now);
    // `may_be_size`: since kOpen the host has given no other reason why the camera cannot be opened, so it
    // may be possible with a smaller size.
    Actions OnState(const StateMessage& state, Clock::time_point now, bool may_be_size = false);
    Actions OnCameras(const std::vector<CameraEntry>& cameras, Clock::time_point now);
    // The connection is lost. The camera is searched for in the next one.
    Actions OnDisconnect(Clock::time_point now);
    // Fails if the host has not answered in time.
    Expected<Actions> OnTime(Clock::time_point now);

    // When to call OnTime() if nothing else happens.
    Clock::time_point NextTime() const;

    // Whether frames with this id are those of this camera.
    bool WantsFrames(uint32_t id) const { return m_watch && m_watch->IsOurs(id); }
    bool HasReaders() const { return m_has_readers; }
    bool IsPublished() const { return m_published; }
    StreamFormat Format() const { return m_format; }
    // With its current or last id.
    const CameraEntry& Camera() const { return m_watch ? m_watch->Camera() : m_first_watch.Camera(); }

private:
    // Starts a watch that opens the camera at once if it is listed.
    Actions Start(Clock::time_point now);
    // Nobody reads any more.
    Actions Stop();
    // The host did not open the camera.
    Actions Pause(const std::string& what, Clock::time_point now);
    Actions Translate(const CameraWatch::Actions& actions, Clock::time_point now);
    Actions Lose(const std::string& text, Clock::time_point now);
    std::optional<Clock::time_point> RetryTime() const { return m_has_readers ? m_retry_time : std::nullopt; }
    // When to withdraw the camera; nothing if it is not due.
    std::optional<Clock::time_point> WithdrawTime() const;

    const Limits m_limits;
    CameraWatch m_first_watch;  // knows which of several cameras of one name is ours; not changed
    StreamFormat m_format;
    std::vector<CameraEntry> m_listed;  // as last received

    bool m_has_readers = false;
    bool m_published = true;
    std::optional<CameraWatch> m_watch;  // from the first reader until the hold after the last one is over
    std::optional<uint32_t> m_open_id;   // an open was requested, and no close
    PictureSize m_open_size;             // the last one that it was to be opened with
    int m_sizes_tried = 0;               // by the current open; 1 if there was nothing to report
    int m_format_requests = 0;           // since then, without those that were refused
    std::optional<Clock::time_point> m_close_time;  // after the last reader
    std::optional<Clock::time_point> m_retry_time;  // after a failed open
    Clock::duration m_pause{};                      // the last one; 0 without a failure
    std::optional<Clock::time_point> m_card_time;   // the next card; none while pictures come
    std::optional<Clock::time_point> m_absent_since;
    Clock::time_point m_unused_since;  // without a reader and closed
    std::optional<Clock::time_point> m_asked_at;
    Clock::time_point m_next_list;
};

}  // namespace zumod::peer
