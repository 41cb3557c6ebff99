#include "peer/stats_command.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "common/picture_stamp.h"
#include "peer/commands.h"
#include "peer/json_text.h"
#include "peer/picture_decoder.h"
#include "peer/requests.h"

namespace zumod::peer {
namespace {

constexpr auto kLineInterval = std::chrono::seconds(1);
constexpr char kClearLine[] = "\r\033[K";

std::string Number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

const char* EventName(CameraEvent event) {
    switch (event) {
        case CameraEvent::kStalled:
            return "stalled";
        case CameraEvent::kGone:
            return "gone";
        case CameraEvent::kClosed:
            return "closed";
        case CameraEvent::kBack:
            return "back";
    }
    return "";
}

// With a low frame rate, the time between two frames is not a stall.
CameraWatch::Limits LimitsFor(const PeerOptions& options) {
    CameraWatch::Limits limits;
    limits.quiet = std::max<Clock::duration>(limits.quiet, std::chrono::milliseconds(2500) / options.fps);
    limits.answer = options.limit;
    return limits;
}

class Stats {
public:
    // `opened` is the camera, opened with this size.
    Stats(const CommandContext& context, Session& session, PictureDecoder& decoder, OpenedCamera& opened,
          PictureSize requested_size, const std::vector<CameraEntry>& cameras, const CameraEntry& camera)
        : m_context(context),
          m_session(session),
          m_decoder(decoder),
          m_opened(opened),
          m_requested_size(requested_size),
          m_watch(cameras, camera, LimitsFor(context.options), Clock::now()),
          m_meter(Clock::now()) {}

    Expected<void> Run() {
        const auto begin = Clock::now();
        const auto& seconds = m_context.options.seconds;
        const auto end = seconds ? begin + *seconds : Clock::time_point::max();
        auto next_line = begin + kLineInterval;
        // The line that is due at the end is printed, too.
        for (auto now = begin; now < end;) {
            const auto received = m_session.Receive(std::min({m_watch.NextTime(), next_line, end}));
            if (!received) {
                return tl::make_unexpected(received.error());
            }
            if (*received) {
                if (const auto done = OnMessage(**received); !done) {
                    return done;
                }
            }
            now = Clock::now();
            const auto done =
                m_watch.OnTime(now).and_then([this](const auto& actions) { return Perform(actions); });
            if (!done) {
                return done;
            }
            if (now >= next_line) {
                if (const auto printed = PrintFigures(now); !printed) {
                    return printed;
                }
                next_line = std::max(next_line + kLineInterval, now);
            }
        }
        return {};
    }

    Expected<void> EndLine() {
        return std::exchange(m_line_open, false) ? m_context.output.Write("\n") : Expected<void>();
    }

private:
    Expected<void> OnMessage(const ReceivedMessage& received) {
        const auto now = Clock::now();
        if (const auto* state = std::get_if<StateMessage>(&received.message)) {
            return Perform(m_watch.OnState(*state, now));
        }
        if (const auto* list = std::get_if<CameraListMessage>(&received.message)) {
            return Perform(m_watch.OnCameras(list->cameras, now));
        }
        const auto* frame = std::get_if<FrameMessage>(&received.message);
        if (frame == nullptr || !m_watch.IsOurs(frame->id) || frame->bytes.empty()) {
            return {};
        }
        const auto done = Perform(m_watch.OnFrame(received.at));
        Measure(*frame);
        return done;
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

    Expected<void> Perform(const CameraWatch::Actions& actions) {
        for (const WatchAction& action : actions) {
            if (const auto done = Perform(action); !done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> Perform(const WatchAction& action) {
        switch (action.kind) {
            case WatchAction::kAskCameras:
                return m_session.Send(ListRequest());
            case WatchAction::kOpen:
                m_opened.SetId(action.id);
                m_meter.NewStream();
                return m_session.Send(OpenRequest(action.id, m_requested_size, m_context.options.fps))
                    .and_then([this] { return m_decoder.Restart(); });
            case WatchAction::kClose:
                return m_session.Send(CloseRequest(action.id));
            case WatchAction::kAnnounce:
                return Announce(action);
        }
        return {};
    }

    Expected<void> Announce(const WatchAction& action) {
        if (action.event == CameraEvent::kBack) {
            // The next figures do not include the time before.
            m_meter.EndInterval(Clock::now());
        }
        if (m_context.options.json) {
            return m_context.output.Write(EventJson(m_watch.Camera(), action.event, action.text));
        }
        m_line_open = false;
        return m_context.output.Write((m_live ? kClearLine : "") + action.text + "\n");
    }

    Expected<void> PrintFigures(Clock::time_point now) {
        const StreamFigures figures = m_meter.EndInterval(now);
        if (m_watch.IsAway()) {
            return {};
        }
        if (m_context.options.json) {
            return m_context.output.Write(FiguresJson(m_watch.Camera(), m_size, figures));
        }
        const std::string text = FiguresText(m_watch.Camera(), m_size, figures);
        m_line_open = m_live;
        return m_context.output.Write(m_live ? kClearLine + text : text + "\n");
    }

    const CommandContext& m_context;
    Session& m_session;
    PictureDecoder& m_decoder;
    OpenedCamera& m_opened;
    const PictureSize m_requested_size;
    CameraWatch m_watch;
    StreamMeter m_meter;
    PictureSize m_size;
    // On a terminal there is one line, which is overwritten.
    const bool m_live = !m_context.options.json && isatty(STDOUT_FILENO) == 1;
    bool m_line_open = false;
};

}  // namespace

std::string FiguresText(const CameraEntry& camera, PictureSize size, const StreamFigures& figures) {
    std::string text = CameraLabel(camera);
    if (size.width != 0) {
        text += " ";
        text += SizeText(size);
    }
    text += ": " + Number(figures.FramesPerSecond(), 1) + " frames/s, " +
            Number(figures.BitsPerSecond() / 1e6, 2) + " Mbit/s";
    if (figures.median_latency_ms) {
        text += ", latency " + Number(*figures.median_latency_ms, 1) + " ms (max " +
                Number(*figures.greatest_latency_ms, 1) + " ms)";
    }
    if (figures.dropped) {
        text += ", " + std::to_string(*figures.dropped) + " dropped";
    }
    if (figures.undecoded != 0) {
        text += ", " + std::to_string(figures.undecoded) + " not decoded";
    }
    return text;
}

std::string FiguresJson(const CameraEntry& camera, PictureSize size, const StreamFigures& figures) {
    Json latency = nullptr;
    if (figures.median_latency_ms) {
        latency = {{"median", *figures.median_latency_ms}, {"max", *figures.greatest_latency_ms}};
    }
    return JsonLine({{"camera", camera.id},
                     {"name", camera.name},
                     {"width", size.width},
                     {"height", size.height},
                     {"seconds", figures.seconds},
                     {"frames", figures.frames},
                     {"fps", figures.FramesPerSecond()},
                     {"bit_rate", figures.BitsPerSecond()},
                     {"latency_ms", latency},
                     {"dropped", figures.dropped ? Json(*figures.dropped) : Json(nullptr)},
                     {"undecoded", figures.undecoded}});
}

std::string EventJson(const CameraEntry& camera, CameraEvent event, const std::string& text) {
    return JsonLine(
        {{"camera", camera.id}, {"name", camera.name}, {"event", EventName(event)}, {"text", text}});
}

Expected<void> ShowStats(const CommandContext& context) {
    const PeerOptions& options = context.options;
    auto decoder = PictureDecoder::Create(options.modules, kVideoTargetI420);
    if (!decoder) {
        return tl::make_unexpected(decoder.error());
    }
    auto session = context.Connect();
    if (!session) {
        return tl::make_unexpected(session.error());
    }
    const auto cameras = AskCameras(*session);
    if (!cameras) {
        return tl::make_unexpected(cameras.error());
    }
    const auto camera = FindCamera(*cameras, options.id);
    if (!camera) {
        return tl::make_unexpected(camera.error());
    }
    const PictureSize size = RequestedSize(options, *camera);
    auto opened = OpenedCamera::Open(*session, *camera, size, options.fps);
    if (!opened) {
        return tl::make_unexpected(opened.error());
    }
    Stats stats(context, *session, *decoder, *opened, size, *cameras, *camera);
    const auto ran = stats.Run();
    const auto ended = stats.EndLine();
    // A signal is the usual end.
    return ran || ran.error() == Interrupted() ? ended : ran;
}

}  // namespace zumod::peer
