#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "peer/commands.h"
#include "peer/peer_error.h"
#include "peer/record_track.h"

namespace zumod::peer {
namespace {

constexpr auto kProgressEvery = std::chrono::milliseconds(500);

// One line that is written again and again, on a terminal alone.
class Progress {
public:
    ~Progress() { Clear(); }
    // `Text` makes the line, when it is time for one.
    template <class Text>
    void Show(Text text) {
        const auto now = Clock::now();
        if (!m_shows || now < m_next) {
            return;
        }
        m_next = now + kProgressEvery;
        m_shown = true;
        std::fprintf(stderr, "\r\033[K%s", text().c_str());
    }
    void Clear() {
        if (m_shown) {
            std::fputs("\r\033[K", stderr);
        }
        m_shown = false;
    }

private:
    const bool m_shows = isatty(STDERR_FILENO) == 1;
    bool m_shown = false;
    Clock::time_point m_next;
};

// The sinks come first: what cannot be written is told before a camera is opened.
class Recorders {
public:
    explicit Recorders(const Work& work) : m_work(work), m_targets(work.options.more) {
        m_targets.insert(m_targets.begin(), {work.options.id, work.options.path});
        for (const Recording& target : m_targets) {
            m_sinks.push_back(MakeFrameSink(target.path, work.options, work.output));
        }
    }

    void Run() {
        Session session = m_work.Connect();
        const std::vector<CameraEntry> listed = AskCameras(session);
        std::vector<CameraEntry> cameras;
        for (size_t i = 0; i < m_targets.size(); ++i) {
            cameras.push_back(FindCamera(listed, m_targets[i].id));
            m_tracks.push_back(std::make_unique<RecordTrack>(cameras.back(), std::move(m_sinks[i]),
                                                             session.Limit(), m_work.options.seconds));
        }
        std::vector<std::unique_ptr<CameraHold>> holds;
        for (const auto& track : m_tracks) {
            holds.push_back(std::make_unique<CameraHold>(
                session, track->Camera(), SizeFor(m_work.options, track->Camera()), m_work.options.fps));
        }
        for (const auto& track : m_tracks) {
            track->Begin();
        }
        while (const auto due = NextDue()) {
            if (const auto frame = NextFrame(session, cameras, *due)) {
                Deliver(*frame);
                m_progress.Show([this] { return ProgressText(); });
            }
        }
    }

    uint64_t Frames() const {
        uint64_t frames = 0;
        for (const auto& track : m_tracks) {
            frames += track->Frames();
        }
        return frames;
    }

    // Of all tracks with a frame, also when one of them cannot be kept; that is thrown at the end.
    void Finish() {
        std::string failures;
        for (const auto& track : m_tracks) {
            if (track->Frames() == 0) {
                continue;
            }
            try {
                track->Finish();
            } catch (const PeerError& error) {
                failures += (failures.empty() ? "" : "; ") + std::string(error.what());
            }
        }
        if (!failures.empty()) {
            throw PeerError(failures);
        }
    }

    // "the 5 frames before that are in FILE", and so on for each file.
    std::string WhatIsKept() const {
        std::string text;
        for (const auto& track : m_tracks) {
            if (track->Frames() > 0) {
                text += (text.empty() ? "the " : ", the ") + std::to_string(track->Frames()) +
                        " frames before that are in " + track->Name();
            }
        }
        return text;
    }

    void PrintSummary() {
        m_progress.Clear();
        if (m_work.options.path == "-") {
            return;
        }
        for (const auto& track : m_tracks) {
            std::printf("%s\n", track->Summary().c_str());
        }
    }

private:
    // The earliest among the tracks that are not over; nothing when all are.
    std::optional<Clock::time_point> NextDue() const {
        std::optional<Clock::time_point> due;
        for (const auto& track : m_tracks) {
            if (!track->IsOver()) {
                due = due ? std::min(*due, track->Due()) : track->Due();
            }
        }
        return due;
    }

    // While the sink answers "not now", nothing is received: the host is held back and no frame is lost.
    void Deliver(const Frame& frame) {
        RecordTrack& track = **std::find_if(m_tracks.begin(), m_tracks.end(), [&](const auto& candidate) {
            return candidate->Camera().id == frame.id;
        });
        while (track.OnFrame(frame) == FrameSink::Result::kNotNow) {
            if (m_work.waiter.Wait(Clock::time_point::max()) == Waiter::Result::kSignal) {
                throw Interrupted();
            }
        }
    }

    std::string ProgressText() const {
        std::string text;
        for (const auto& track : m_tracks) {
            text += (text.empty() ? "" : "; ") + track->Progress();
        }
        return text;
    }

    const Work& m_work;
    std::vector<Recording> m_targets;
    std::vector<std::unique_ptr<FrameSink>> m_sinks;  // until they belong to a track
    std::vector<std::unique_ptr<RecordTrack>> m_tracks;
    Progress m_progress;
};

}  // namespace

void RecordCameras(const Work& work) {
    Recorders recorders(work);
    try {
        recorders.Run();
    } catch (const Interrupted&) {
        if (recorders.Frames() == 0) {
            throw;
        }
    } catch (const PeerError& error) {
        if (recorders.Frames() == 0) {
            throw;
        }
        std::string rest = recorders.WhatIsKept();
        try {
            recorders.Finish();
        } catch (const PeerError& also) {
            rest = also.what();
        }
        throw PeerError(std::string(error.what()) + "; " + rest);
    }
    recorders.Finish();
    recorders.PrintSummary();
}

}  // namespace zumod::peer
