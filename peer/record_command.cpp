#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "peer/commands.h"
#include "peer/record_track.h"

namespace zumod::peer {
namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(500);

// A line on standard error that is overwritten again and again; nothing if that is not a terminal.
class ProgressLine {
public:
    ~ProgressLine() { Clear(); }
    // `make_text` is called when a new line is due.
    template <class MakeText>
    void Show(MakeText make_text) {
        const auto now = Clock::now();
        if (!m_enabled || now < m_next) {
            return;
        }
        m_next = now + kProgressInterval;
        m_shown = true;
        std::fprintf(stderr, "\r\033[K%s", make_text().c_str());
    }
    void Clear() {
        if (m_shown) {
            std::fputs("\r\033[K", stderr);
        }
        m_shown = false;
    }

private:
    const bool m_enabled = isatty(STDERR_FILENO) == 1;
    bool m_shown = false;
    Clock::time_point m_next;
};

class Recording {
public:
    explicit Recording(const CommandContext& context) : m_context(context) {}

    // Creates the files first: one that cannot be written is reported before a camera is opened. The cameras
    // are closed when it returns.
    Expected<void> Run() {
        const PeerOptions& options = m_context.options;
        for (const RecordTarget& target : options.targets) {
            auto sink = MakeFrameSink(target.path, options, m_context.output);
            if (!sink) {
                return Fail(sink.error());
            }
            m_tracks.emplace_back(std::move(*sink), options.limit, options.seconds);
        }
        return m_context.Connect().and_then([this](Session&& session) { return RecordFrom(session); });
    }

    uint64_t Frames() const {
        uint64_t frames = 0;
        for (const RecordTrack& track : m_tracks) {
            frames += track.Frames();
        }
        return frames;
    }

    // Finishes every track that has a frame, also after one of them fails. The error names all failures.
    Expected<void> Finish() {
        std::string failures;
        for (RecordTrack& track : m_tracks) {
            if (track.Frames() == 0) {
                continue;
            }
            if (const auto finished = track.Finish(); !finished) {
                failures += (failures.empty() ? "" : "; ") + finished.error().text;
            }
        }
        if (!failures.empty()) {
            return Fail(failures);
        }
        return {};
    }

    // "the 5 frames before that are in FILE", and the same for further files.
    std::string RecordedText() const {
        std::string text;
        for (const RecordTrack& track : m_tracks) {
            if (track.Frames() > 0) {
                text += (text.empty() ? "the " : ", the ") + std::to_string(track.Frames()) +
                        " frames before that are in " + track.Name();
            }
        }
        return text;
    }

    void PrintSummary() {
        m_progress.Clear();
        if (m_context.options.path == "-") {
            return;
        }
        for (const RecordTrack& track : m_tracks) {
            std::printf("%s\n", track.Summary().c_str());
        }
    }

private:
    Expected<void> RecordFrom(Session& session) {
        const auto listed = AskCameras(session);
        if (!listed) {
            return Fail(listed.error());
        }
        const PeerOptions& options = m_context.options;
        for (const RecordTarget& target : options.targets) {
            auto camera = FindCamera(*listed, target.camera);
            if (!camera) {
                return Fail(camera.error());
            }
            if (std::ranges::find(m_cameras, camera->id, &CameraEntry::id) != m_cameras.end()) {
                return Fail(CameraLabel(*camera) + " is given twice");
            }
            m_cameras.push_back(std::move(*camera));
        }
        std::vector<OpenedCamera> opened;
        for (const CameraEntry& camera : m_cameras) {
            auto open = OpenedCamera::Open(session, camera, RequestedSize(options, camera), options.fps);
            if (!open) {
                return Fail(open.error());
            }
            opened.push_back(std::move(*open));
        }
        for (size_t i = 0; i < m_tracks.size(); ++i) {
            m_tracks[i].Begin(m_cameras[i]);
        }
        return RecordUntilTheEnd(session);
    }

    Expected<void> RecordUntilTheEnd(Session& session) {
        for (;;) {
            const auto due = NextDue();
            if (!due) {
                return Fail(due.error());
            }
            if (!*due) {
                return {};
            }
            const auto frame = NextFrame(session, m_cameras, **due);
            if (!frame) {
                return Fail(frame.error());
            }
            if (!*frame) {
                continue;
            }
            if (auto delivered = Deliver(**frame); !delivered) {
                return delivered;
            }
            m_progress.Show([this] { return ProgressText(); });
        }
    }

    // While the sink answers "not now", nothing is received: the host is held back and no frame is lost.
    Expected<void> Deliver(const Frame& frame) {
        const auto camera = std::ranges::find(m_cameras, frame.id, &CameraEntry::id);
        RecordTrack& track = m_tracks[static_cast<size_t>(camera - m_cameras.begin())];
        for (;;) {
            const auto result = track.OnFrame(frame);
            if (!result) {
                return Fail(result.error());
            }
            if (*result != FrameSink::Result::kNotNow) {
                return {};
            }
            if (const auto waited = m_context.waiter.Wait(Clock::time_point::max()); !waited) {
                return Fail(waited.error());
            }
        }
    }

    // The earliest time among the tracks that are not over; nothing if all are.
    Expected<std::optional<Clock::time_point>> NextDue() {
        std::optional<Clock::time_point> due;
        for (RecordTrack& track : m_tracks) {
            const auto over = track.OnTime();
            if (!over) {
                return Fail(over.error());
            }
            if (!*over) {
                due = due ? std::min(*due, track.Due()) : track.Due();
            }
        }
        return due;
    }

    std::string ProgressText() const {
        std::string text;
        for (const RecordTrack& track : m_tracks) {
            text += (text.empty() ? "" : "; ") + track.Progress();
        }
        return text;
    }

    const CommandContext& m_context;
    std::vector<RecordTrack> m_tracks;   // in the order of the targets
    std::vector<CameraEntry> m_cameras;  // in the same order
    ProgressLine m_progress;
};

}  // namespace

Expected<void> RecordCameras(const CommandContext& context) {
    // A file larger than the process may write is then a failed write, which leaves a recording that plays.
    std::signal(SIGXFSZ, SIG_IGN);
    Recording recording(context);
    auto recorded = recording.Run();
    if (!recorded && (recording.Frames() == 0 || recorded.error() == OutputClosed())) {
        return recorded;
    }
    auto finished = recording.Finish();
    if (!recorded && recorded.error() != Interrupted()) {
        const std::string rest = finished ? recording.RecordedText() : finished.error().text;
        return Fail(recorded.error().text + "; " + rest);
    }
    if (finished) {
        recording.PrintSummary();
    }
    return finished;
}

}  // namespace zumod::peer
