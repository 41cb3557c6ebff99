#include <unistd.h>

#include <algorithm>
#include <string>

#include "common/picture_stamp.h"
#include "common/terminal_text.h"
#include "peer/commands.h"
#include "peer/printed_text.h"

namespace zumod::peer {
namespace {

constexpr auto kLineInterval = std::chrono::seconds(1);

class Stats {
public:
    Stats(const CommandContext& context, CameraView& view)
        : m_context(context),
          m_view(view),
          m_watch(view.listed, view.camera, WatchLimits(context.options), Clock::now()),
          m_meter(Clock::now()) {}

    Expected<void> Run() {
        const auto begin = Clock::now();
        const auto& seconds = m_context.options.seconds;
        const auto end = seconds ? begin + *seconds : Clock::time_point::max();
        auto next_line = begin + kLineInterval;
        // The line that is due at the end is printed, too.
        for (auto now = begin; now < end;) {
            const auto received = m_view.session.Receive(std::min({m_watch.NextTime(), next_line, end}));
            if (!received) {
                return Fail(received.error());
            }
            if (*received) {
                if (auto done = OnMessage(**received); !done) {
                    return done;
                }
            }
            now = Clock::now();
            auto done =
                m_watch.OnTime(now).and_then([this](const auto& actions) { return Perform(actions); });
            if (!done) {
                return done;
            }
            if (now >= next_line) {
                if (auto printed = PrintFigures(now); !printed) {
                    return printed;
                }
                next_line = std::max(next_line + kLineInterval, now);
            }
        }
        return {};
    }

    Expected<void> EndLine() {
        return std::exchange(m_line_open, false) ? m_context.output.Print("\n") : Expected<void>();
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
        return Perform(m_watch.OnFrame(received.at)).and_then([&] { return Measure(*frame); });
    }

    Expected<void> Measure(const FrameMessage& frame) {
        m_meter.AddFrame(frame.bytes.size());
        const auto decoded = m_view.decoder.Decode(frame.bytes, [&](const VideoDecodedPicture& picture) {
            const auto now = Clock::now();
            m_size = {static_cast<uint32_t>(picture.width), static_cast<uint32_t>(picture.height)};
            if (const auto stamp = ReadStamp(picture.planes[0], static_cast<size_t>(picture.strides[0]),
                                             m_size.width, m_size.height)) {
                m_meter.AddStamp(stamp->counter, Clock::time_point(std::chrono::microseconds(stamp->time_us)),
                                 now);
            }
        });
        return decoded.map([this](bool any) {
            if (!any) {
                m_meter.AddUndecoded();
            }
        });
    }

    Expected<void> Perform(const CameraWatch::Actions& actions) {
        for (const WatchAction& action : actions) {
            if (auto done = Perform(action); !done) {
                return done;
            }
        }
        return {};
    }

    Expected<void> Perform(const WatchAction& action) {
        switch (action.kind) {
            case WatchAction::kAskCameras:
                return m_view.session.Send(ListRequest());
            case WatchAction::kOpen:
                m_view.opened->Reopened(m_view.session, action.id);
                m_meter.NewStream();
                return m_view.session.Send(OpenRequest(action.id, m_view.size, m_context.options.fps))
                    .and_then([this] { return m_view.decoder.Restart(); });
            case WatchAction::kClose:
                return m_view.session.Send(CloseRequest(action.id));
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
            return m_context.output.Print(EventJson(m_watch.Camera(), action.event, action.text));
        }
        m_line_open = false;
        return m_context.output.Print((m_live ? kClearLine : "") + action.text + "\n");
    }

    Expected<void> PrintFigures(Clock::time_point now) {
        const StreamFigures figures = m_meter.EndInterval(now);
        if (m_watch.IsAway()) {
            return {};
        }
        if (m_context.options.json) {
            return m_context.output.Print(FiguresJson(m_watch.Camera(), m_size, figures));
        }
        m_line_open = m_live;
        if (!m_live) {
            return m_context.output.Print(FiguresText(m_watch.Camera(), m_size, figures) + "\n");
        }
        // A line that is longer than the terminal's could not be overwritten.
        const size_t columns = TerminalColumns(STDOUT_FILENO).value_or(kUsualColumns);
        return m_context.output.Print(kClearLine + FiguresLine(m_watch.Camera(), m_size, figures, columns));
    }

    const CommandContext& m_context;
    CameraView& m_view;
    CameraWatch m_watch;
    StreamMeter m_meter;
    PictureSize m_size;
    // On a terminal there is one line, which is overwritten.
    const bool m_live = !m_context.options.json && m_context.output.IsTerminal();
    bool m_line_open = false;
};

}  // namespace

Expected<void> ShowStats(const CommandContext& context) {
    const auto view = OpenView(context, kVideoTargetI420);
    if (!view) {
        return Fail(view.error());
    }
    Stats stats(context, **view);
    const auto ran = stats.Run();
    const auto ended = stats.EndLine();
    // A signal is the usual end.
    return ran || ran.error() == Interrupted() ? ended : ran;
}

}  // namespace zumod::peer
