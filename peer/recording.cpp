#include "peer/recording.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "common/terminal_text.h"

namespace zumod::peer {
namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(500);
constexpr auto kShortestPause = std::chrono::milliseconds(500);
constexpr auto kLongestPause = std::chrono::seconds(8);
// A stalled camera is reopened before its time limit for a frame ends.
constexpr auto kLeastLimit = std::chrono::seconds(5);
// How many messages are handled although something is due.
constexpr int kMostLate = 200;

CameraWatch::Limits LimitsFor(const PeerOptions& options) {
    CameraWatch::Limits limits = WatchLimits(options);
    limits.closes_stalled = options.reconnect;
    return limits;
}

std::string FramesText(const RecordTrack& track) {
    return "the " + std::to_string(track.Frames()) + " frames before that are in " + track.Name();
}

void Append(std::string& list, const std::string& text, const char* separator) {
    list += list.empty() ? "" : separator;
    list += text;
}

}  // namespace

Expected<void> Recording::Run() {
    auto recorded = CreateFiles().and_then([this] { return OpenCameras(); }).and_then([this] {
        return RecordUntilTheEnd();
    });
    for (Part& part : m_parts) {
        part.opened.reset();
    }
    m_session.reset();
    return recorded;
}

Expected<void> Recording::CreateFiles() {
    const PeerOptions& options = m_context.options;
    const auto limit =
        options.reconnect ? std::max<Clock::duration>(options.limit, kLeastLimit) : options.limit;
    for (const RecordTarget& target : options.targets) {
        auto sink = MakeFrameSink(target.path, options, m_context.output);
        if (!sink) {
            return Fail(sink.error());
        }
        m_parts.emplace_back(RecordTrack(std::move(*sink), limit, options.seconds));
    }
    return {};
}

Expected<void> Recording::OpenCameras() {
    auto session = m_context.Connect();
    if (!session) {
        return Fail(session.error());
    }
    m_session.emplace(std::move(*session));
    const auto listed = AskCameras(*m_session);
    if (!listed) {
        return Fail(listed.error());
    }
    const PeerOptions& options = m_context.options;
    std::vector<CameraEntry> cameras;
    for (const RecordTarget& target : options.targets) {
        auto camera = FindCamera(*listed, target.camera);
        if (!camera) {
            return Fail(camera.error());
        }
        if (std::ranges::find(cameras, camera->id, &CameraEntry::id) != cameras.end()) {
            return Fail(CameraLabel(*camera) + " is given twice");
        }
        cameras.push_back(std::move(*camera));
    }
    for (size_t i = 0; i < cameras.size(); ++i) {
        m_parts[i].size = RequestedSize(options, cameras[i]);
        auto opened = m_context.Open(*m_session, cameras[i], m_parts[i].size);
        if (!opened) {
            return Fail(opened.error());
        }
        m_parts[i].opened.emplace(std::move(*opened));
    }
    for (size_t i = 0; i < cameras.size(); ++i) {
        m_parts[i].track.Begin(cameras[i]);
        m_parts[i].watch.emplace(*listed, cameras[i], LimitsFor(options), Clock::now());
    }
    return {};
}

Expected<void> Recording::RecordUntilTheEnd() {
    for (;;) {
        auto served = ServeSession();
        if (served || !m_host_failed || !m_context.options.reconnect) {
            return served;
        }
        const auto connected = Reconnect(served.error().text);
        if (!connected) {
            return Fail(connected.error());
        }
        if (!*connected) {
            return {};
        }
    }
}

Expected<void> Recording::ServeSession() {
    int late = 0;
    while (const auto due = NextDue()) {
        // Never in the past: what has arrived is received first.
        auto received = m_session->Receive(std::max(*due, Clock::now() + std::chrono::milliseconds(1)));
        if (!received) {
            m_host_failed = received.error() != Interrupted();
            return Fail(received.error());
        }
        const bool is_message = received->has_value();
        if (is_message) {
            if (auto handled = OnMessage(std::move(**received)); !handled) {
                return handled;
            }
        }
        late = is_message && Clock::now() >= *due ? late + 1 : 0;
        if (!is_message || late > kMostLate) {
            late = 0;
            for (Part& part : m_parts) {
                if (auto done = OnTime(part); !done) {
                    return done;
                }
            }
        }
        ShowProgress();
    }
    return {};
}

Expected<bool> Recording::Reconnect(std::string reason) {
    for (Part& part : m_parts) {
        part.opened->Forget();
        part.watch->OnDisconnect(Clock::now());
        if (auto left = Leave(part); !left) {
            return Fail(left.error());
        }
    }
    m_session.reset();
    for (;;) {
        if (reason != m_said) {
            m_said = reason;
            Say(reason + "; trying to connect again");
        }
        m_pause = std::clamp<Clock::duration>(2 * m_pause, kShortestPause, kLongestPause);
        const auto next = Clock::now() + m_pause;
        while (Clock::now() < next) {
            auto due = next;
            for (Part& part : m_parts) {
                if (auto done = part.track.OnTime(); !done) {
                    return Fail(done.error());
                }
                due = part.IsActive() ? std::min(due, part.track.Due()) : due;
            }
            if (!IsActive()) {
                return false;
            }
            if (const auto waited = m_context.waiter.Wait(due); !waited) {
                return Fail(waited.error());
            }
        }
        auto session = m_context.ConnectOnce();
        if (session) {
            m_session.emplace(std::move(*session));
            m_host_failed = false;
            return true;
        }
        if (session.error() == Interrupted()) {
            return Fail(session.error());
        }
        reason = session.error().text;
    }
}

Expected<void> Recording::Send(const std::vector<uint8_t>& request) {
    auto sent = m_session->Send(request);
    m_host_failed = !sent && sent.error() != Interrupted();
    return sent;
}

bool Recording::IsActive() const {
    return std::ranges::any_of(m_parts, &Part::IsActive);
}

std::optional<Clock::time_point> Recording::NextDue() const {
    std::optional<Clock::time_point> due;
    for (const Part& part : m_parts) {
        if (part.IsActive()) {
            const auto next = std::min(part.track.Due(), part.watch->NextTime());
            due = std::min(due.value_or(next), next);
        }
    }
    return due;
}

Expected<void> Recording::OnTime(Part& part) {
    if (!part.IsActive()) {
        return {};
    }
    if (auto done = part.track.OnTime(); !done || part.track.IsOver()) {
        return done;
    }
    if (const std::string lateness = part.track.Lateness(); !lateness.empty()) {
        return Lose(part, lateness);
    }
    const auto actions = part.watch->OnTime(Clock::now());
    if (!actions) {
        m_host_failed = true;
        return Fail(actions.error());
    }
    return Perform(part, *actions);
}

Expected<void> Recording::OnMessage(ReceivedMessage received) {
    const auto now = Clock::now();
    auto* frame = std::get_if<FrameMessage>(&received.message);
    for (Part& part : m_parts) {
        Expected<void> done;
        if (!part.IsActive()) {
            continue;
        }
        if (const auto* state = std::get_if<StateMessage>(&received.message)) {
            done = Perform(part, part.watch->OnState(*state, now));
        } else if (const auto* list = std::get_if<CameraListMessage>(&received.message)) {
            done = Perform(part, part.watch->OnCameras(list->cameras, now));
        } else if (frame != nullptr && !frame->bytes.empty() && part.watch->IsOurs(frame->id)) {
            return OnFrame(part, {frame->id, std::move(frame->bytes), received.at});
        }
        if (!done) {
            return done;
        }
    }
    return {};
}

// While the sink answers "not now", nothing is received: the host is held back and no frame is lost.
Expected<void> Recording::OnFrame(Part& part, const Frame& frame) {
    for (;;) {
        const auto result = part.track.OnFrame(frame);
        if (!result) {
            return Fail(result.error());
        }
        if (*result != FrameSink::Result::kNotNow) {
            // Not from frame.at: the time blocked on standard output must not count against the camera.
            return Perform(part, part.watch->OnFrame(Clock::now()));
        }
        if (const auto waited = m_context.waiter.Wait(Clock::time_point::max()); !waited) {
            return Fail(waited.error());
        }
    }
}

Expected<void> Recording::Perform(Part& part, const CameraWatch::Actions& actions) {
    for (const WatchAction& action : actions) {
        if (auto done = Perform(part, action); !done) {
            return done;
        }
    }
    return {};
}

Expected<void> Recording::Perform(Part& part, const WatchAction& action) {
    switch (action.kind) {
        case WatchAction::kAskCameras:
            return Send(ListRequest());
        case WatchAction::kOpen: {
            const bool in_use = std::ranges::any_of(m_parts, [&](const Part& other) {
                return &other != &part && other.IsActive() && other.watch->IsOurs(action.id);
            });
            if (in_use) {
                return Perform(part, part.watch->OnState({kCameraFailed, action.id}, Clock::now()));
            }
            part.opened->Reopened(*m_session, action.id);
            return Send(OpenRequest(action.id, part.size, m_context.options.fps));
        }
        case WatchAction::kClose:
            return m_context.options.reconnect ? Send(CloseRequest(action.id)) : Lose(part, part.reason);
        case WatchAction::kAnnounce:
            return Announce(part, action);
    }
    return {};
}

Expected<void> Recording::Announce(Part& part, const WatchAction& action) {
    part.reason = action.text;
    if (!m_context.options.reconnect) {
        return {};
    }
    Say(action.text);
    if (action.event != CameraEvent::kBack) {
        return Leave(part);
    }
    part.away = false;
    part.track.Resume();
    m_said.clear();
    m_pause = {};
    return {};
}

// The camera is away for some time: its file is completed.
Expected<void> Recording::Leave(Part& part) {
    if (!part.IsActive()) {
        return {};
    }
    if (!std::exchange(part.away, true)) {
        ++part.times_away;
    }
    // Also if it was away: a frame may have come before the camera counts as back.
    return part.track.Pause();
}

// The camera is not recorded any more: its file is completed, and the others continue.
Expected<void> Recording::Lose(Part& part, const std::string& reason) {
    part.loss = reason;
    if (part.track.Frames() > 0) {
        const auto finished = part.track.Finish();
        part.loss += "; " + (finished ? FramesText(part.track) : finished.error().text);
    }
    if (!IsActive()) {
        return {};
    }
    Say(part.loss);
    part.opened->Forget();
    return Send(CloseRequest(part.watch->Camera().id));
}

Expected<void> Recording::Finish() {
    std::string failures;
    for (Part& part : m_parts) {
        if (!part.loss.empty() || part.track.Frames() == 0) {
            continue;
        }
        if (const auto finished = part.track.Finish(); !finished) {
            Append(failures, finished.error().text, "; ");
        }
    }
    return failures.empty() ? Expected<void>() : Fail(failures);
}

uint64_t Recording::Frames() const {
    uint64_t frames = 0;
    for (const Part& part : m_parts) {
        frames += part.track.Frames();
    }
    return frames;
}

std::string Recording::RecordedText() const {
    std::string text;
    for (const Part& part : m_parts) {
        if (part.loss.empty() && part.track.Frames() > 0) {
            Append(text, FramesText(part.track), ", ");
        }
    }
    return text;
}

std::string Recording::LossText() const {
    std::string text;
    for (const Part& part : m_parts) {
        if (!part.loss.empty()) {
            Append(text, part.loss, "; ");
        } else if (part.times_away > 0) {
            Append(text,
                   CameraLabel(part.watch->Camera()) + " was away " +
                       (part.times_away == 1 ? "once" : std::to_string(part.times_away) + " times"),
                   "; ");
        }
    }
    return text;
}

void Recording::Say(const std::string& text) {
    m_line_shown = false;
    m_context.Say(text);
}

// A line that is overwritten again and again; nothing if standard error is not a terminal.
void Recording::ShowProgress() {
    const auto now = Clock::now();
    if (!m_context.messages.IsTerminal() || now < m_next_line) {
        return;
    }
    m_next_line = now + kProgressInterval;
    m_line_shown = true;
    std::string text;
    for (const Part& part : m_parts) {
        Append(text, part.track.Progress(), "; ");
    }
    // A line that is longer than the terminal's could not be overwritten.
    const size_t columns = TerminalColumns(STDERR_FILENO).value_or(kUsualColumns);
    m_context.messages.Offer(kClearLine + Shortened(text, columns - std::min<size_t>(columns, 1)));
}

Expected<void> Recording::PrintSummary() {
    std::string summary;
    for (const Part& part : m_parts) {
        summary += part.loss.empty() && part.track.Frames() > 0 ? part.track.Summary() + "\n" : "";
    }
    return m_context.options.path == "-" ? Expected<void>() : m_context.output.Print(summary);
}

void Recording::EndProgress() {
    if (std::exchange(m_line_shown, false)) {
        m_context.messages.Offer(kClearLine);
    }
}

}  // namespace zumod::peer
