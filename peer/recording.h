// The recording of one or several cameras at the same time, from the first request to the last frame.
//
// A camera or the whole host may go away while others are recorded. Each camera has a track (what was
// recorded) and a watch (whether it still sends; see camera_watch.h). All of them are served by one loop on
// one connection:
//
// - Without --reconnect a camera that is gone, that the host has closed, or that sends no frame within the
//   time limit is lost: its file is completed at once, and the others continue. The end of the connection
//   ends the recording.
// - With --reconnect a camera that is away (also one that has stalled) is closed, looked up every second, and
//   opened again. If the connection ends, another one is made, after a pause that doubles up to
//   kLongestPause; every watch then starts by looking its camera up. A file is completed when its camera goes
//   away; what follows goes into the next one.
//
// The id of a camera is its position in the host's list, so a camera that returns may be listed under an id
// that another camera of the recording was opened with. Its frames could not be told apart: it is not opened
// until its id is free.
//
// This program may itself have been blocked, by a disk for example. Therefore no time limit counts before the
// messages that have arrived meanwhile are handled, up to kMostLate of them.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/camera_watch.h"
#include "peer/commands.h"
#include "peer/record_track.h"

namespace zumod::peer {

class Recording {
public:
    explicit Recording(const CommandContext& context) : m_context(context) {}

    // Creates the files first: one that cannot be written is reported before a camera is opened. The cameras
    // are closed when it returns. A lost camera is not a failure.
    Expected<void> Run();

    // Completes the files that have a frame, also after one of them fails. The error names all failures.
    Expected<void> Finish();

    uint64_t Frames() const;
    // "the 5 frames before that are in FILE", and the same for further files.
    std::string RecordedText() const;
    // Which cameras were lost or away; empty if none was.
    std::string LossText() const;
    // One line for each camera that is not lost.
    Expected<void> PrintSummary();
    // To be called at the end, before anything is printed elsewhere.
    void EndProgress();

private:
    struct Part {
        explicit Part(RecordTrack made) : track(std::move(made)) {}

        RecordTrack track;
        std::optional<CameraWatch> watch;  // once the camera was opened
        std::optional<OpenedCamera> opened;
        PictureSize size;    // requested
        std::string reason;  // why the camera is away
        std::string loss;    // of a lost camera: why, and what is recorded
        bool away = false;
        unsigned times_away = 0;

        bool IsActive() const { return loss.empty() && !track.IsOver(); }
    };

    Expected<void> CreateFiles();
    Expected<void> OpenCameras();
    Expected<void> RecordUntilTheEnd();

    // One connection. Fails with m_host_failed set if only the connection is lost.
    Expected<void> ServeSession();
    // Waits, then connects again. Returns false if the recording is over by then.
    Expected<bool> Reconnect(std::string reason);
    Expected<void> Send(const std::vector<uint8_t>& request);

    bool IsActive() const;
    // The next time at which something is due for an active part; nothing if there is none.
    std::optional<Clock::time_point> NextDue() const;
    Expected<void> OnTime(Part& part);
    Expected<void> OnMessage(ReceivedMessage received);
    Expected<void> OnFrame(Part& part, const Frame& frame);
    Expected<void> Perform(Part& part, const CameraWatch::Actions& actions);
    Expected<void> Perform(Part& part, const WatchAction& action);
    Expected<void> Announce(Part& part, const WatchAction& action);
    Expected<void> Leave(Part& part);
    Expected<void> Lose(Part& part, const std::string& reason);

    void Say(const std::string& text);
    void ShowProgress();

    const CommandContext& m_context;
    std::optional<Session> m_session;
    std::deque<Part>
        m_parts;  // in the order of the command line; their cameras close before the session ends

    bool m_host_failed = false;
    std::string m_said;         // the last failure of the host that was printed; empty once a camera is back
    Clock::duration m_pause{};  // before the last attempt to connect; 0 once a camera is back

    bool m_line_shown = false;  // on a terminal
    Clock::time_point m_next_line;
};

}  // namespace zumod::peer
