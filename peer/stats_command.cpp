#include <unistd.h>

#include <algorithm>

#include "common/picture_stamp.h"
#include "peer/camera_watch.h"
#include "peer/commands.h"
#include "peer/peer_error.h"
#include "peer/picture_decoder.h"
#include "peer/requests.h"
#include "peer/stats_text.h"
#include "peer/stream_meter.h"

namespace zumod::peer {
namespace {

constexpr auto kLineEvery = std::chrono::seconds(1);

// A camera that gives few frames is not stalled between two of them.
CameraWatch::Limits LimitsFor(const PeerOptions& options) {
    CameraWatch::Limits limits;
    limits.quiet = std::max<Clock::duration>(limits.quiet, std::chrono::milliseconds(2500) / options.fps);
    limits.answer = options.limit;
    return limits;
}

class Stats {
public:
    Stats(const Work& work, Session& session, PictureDecoder& decoder,
          const std::vector<CameraEntry>& cameras, const CameraEntry& camera)
        : m_work(work),
          m_session(session),
          m_decoder(decoder),
          m_asked_size(SizeFor(work.options, camera)),
          m_hold(session, camera, m_asked_size, work.options.fps),
          m_watch(cameras, camera, LimitsFor(work.options), Clock::now()),
          m_meter(Clock::now()) {}

    void Run() {
        const auto begin = Clock::now();
        const auto end = m_work.options.seconds ? begin + *m_work.options.seconds : Clock::time_point::max();
        auto next_line = begin + kLineEvery;
        // The line that is due at the end is printed too.
        for (auto now = begin; now < end;) {
            auto arrived = m_session.Receive(std::min({m_watch.NextTime(), next_line, end}));
            if (arrived) {
                Take(*arrived);
            }
            now = Clock::now();
            Do(m_watch.OnTime(now));
            if (now >= next_line) {
                PrintFigures(now);
                next_line = std::max(next_line + kLineEvery, now);
            }
        }
    }

    void EndLine() {
        if (m_line_open) {
            m_work.output.Write("\n");
            m_line_open = false;
        }
    }

private:
    void Take(ReceivedMessage& arrived) {
        const auto now = Clock::now();
        if (const auto* state = std::get_if<StateMessage>(&arrived.message)) {
            Do(m_watch.OnState(*state, now));
        } else if (const auto* list = std::get_if<CameraListMessage>(&arrived.message)) {
            Do(m_watch.OnCameras(list->cameras, now));
        } else if (const auto* frame = std::get_if<FrameMessage>(&arrived.message)) {
            if (m_watch.Takes(frame->id) && !frame->bytes.empty()) {
                Do(m_watch.OnFrame(arrived.at));
                Measure(*frame);
            }
        }
    }

    void Measure(const FrameMessage& frame) {
        m_meter.AddFrame(frame.bytes.size());
        const bool decoded = m_decoder.Decode(frame.bytes, [&](const VideoDecodedPicture& picture) {
            const auto now = Clock::now();
            m_size = {static_cast<uint32_t>(picture.width), static_cast<uint32_t>(picture.height)};
            if (const auto stamp = ReadStamp(picture.planes[0], static_cast<size_t>(picture.strides[0]),
                                             m_size.width, m_size.height)) {
                m_meter.AddStamp(stamp->counter, Clock::time_point(std::chrono::microseconds(stamp->time_us)),
                                 now);
            }
        });
        if (!decoded) {
            m_meter.AddUndecoded();
        }
    }

    void Do(const CameraWatch::Actions& actions) {
        for (const WatchAction& action : actions) {
            switch (action.kind) {
                case WatchAction::kAskCameras:
                    m_session.Send(ListRequest());
                    break;
                case WatchAction::kOpen:
                    m_session.Send(OpenRequest(action.id, m_asked_size, m_work.options.fps));
                    m_hold.SetId(action.id);
                    m_decoder.Restart();
                    m_meter.NewStream();
                    break;
                case WatchAction::kClose:
                    m_session.Send(CloseRequest(action.id));
                    break;
                case WatchAction::kTell:
                    Tell(action);
                    break;
            }
        }
    }

    void Tell(const WatchAction& action) {
        if (action.event == CameraEvent::kBack) {
            // The next figures are of the time since.
            m_meter.Take(Clock::now());
        }
        if (m_work.options.json) {
            m_work.output.Write(EventJson(m_watch.Camera(), action.event, action.text));
            return;
        }
        m_work.output.Write((m_live ? "\r\033[K" : "") + action.text + "\n");
        m_line_open = false;
    }

    void PrintFigures(Clock::time_point now) {
        const StreamFigures figures = m_meter.Take(now);
        if (m_watch.IsAway()) {
            return;
        }
        if (m_work.options.json) {
            m_work.output.Write(FiguresJson(m_watch.Camera(), m_size, figures));
            return;
        }
        const std::string text = FiguresText(m_watch.Camera(), m_size, figures);
        m_work.output.Write(m_live ? "\r\033[K" + text : text + "\n");
        m_line_open = m_live;
    }

    const Work& m_work;
    Session& m_session;
    PictureDecoder& m_decoder;
    const PictureSize m_asked_size;
    CameraHold m_hold;
    CameraWatch m_watch;
    StreamMeter m_meter;
    PictureSize m_size;
    const bool m_live = !m_work.options.json && isatty(STDOUT_FILENO) == 1;
    bool m_line_open = false;  // the live line has no end yet
};

}  // namespace

void ShowStats(const Work& work) {
    PictureDecoder decoder(ModuleDirectory(work.options.modules), kVideoTargetI420);
    Session session = work.Connect();
    const std::vector<CameraEntry> cameras = AskCameras(session);
    const CameraEntry camera = FindCamera(cameras, work.options.id);
    Stats stats(work, session, decoder, cameras, camera);
    try {
        stats.Run();
    } catch (const Interrupted&) {
        // The usual end.
        stats.EndLine();
        return;
    } catch (...) {
        stats.EndLine();
        throw;
    }
    stats.EndLine();
}

}  // namespace zumod::peer
