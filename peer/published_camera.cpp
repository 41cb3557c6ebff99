#include "peer/published_camera.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "peer/host_calls.h"

namespace zumod::peer {
namespace {

void Append(PublishedCamera::Actions& actions, PublishedCamera::Actions more) {
    actions.insert(actions.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

PublishAction Report(std::string text) {
    return {.kind = PublishAction::kReport, .text = std::move(text)};
}

}  // namespace

PublishedCamera::PublishedCamera(const std::vector<CameraEntry>& listed, const CameraEntry& camera,
                                 StreamFormat format, const Limits& limits, Clock::time_point now)
    : m_limits(limits),
      m_first_watch(listed, camera, limits.watch, now),
      m_format(format),
      m_listed(listed),
      m_unused_since(now),
      m_next_list(now + limits.list_interval) {
    m_first_watch.ForgetList();
}

PublishedCamera::Actions PublishedCamera::OnReaders(bool any, Clock::time_point now) {
    if (any == m_has_readers) {
        return {};
    }
    m_has_readers = any;
    if (!any) {
        m_close_time = now + m_limits.hold;
        return {};
    }
    m_close_time.reset();
    if (m_card_time) {
        m_card_time = now;
    }
    return m_watch || m_retry_time ? Actions{} : Start(now);
}

PublishedCamera::Actions PublishedCamera::OnFormat(StreamFormat format, Clock::time_point /*now*/) {
    if (format == m_format) {
        return {};
    }
    m_format = format;
    if (!m_open_id) {
        return {};  // a camera that is being searched for is opened with the new format
    }
    ++m_format_requests;
    return {{.kind = PublishAction::kSetFormat, .id = *m_open_id, .format = m_format}};
}

PublishedCamera::Actions PublishedCamera::OnFrame(Clock::time_point now) {
    m_absent_since.reset();
    m_pause = {};
    return Translate(m_watch->OnFrame(now), now);
}

PublishedCamera::Actions PublishedCamera::OnState(const StateMessage& state, Clock::time_point now,
                                                  bool may_be_size) {
    if (!m_watch || m_open_id != state.id) {
        return {};
    }
    if (state.state == kCameraFailed && !m_watch->IsAway() && m_format_requests > 0) {
        // The camera stays open. Its pictures are scaled to what readers want.
        --m_format_requests;
        return {Report(CameraLabel(Camera()) + " keeps its format: the host refused another one")};
    }
    if (state.state == kCameraFailed && m_watch->IsAway()) {
        const auto smaller = SmallerSize(Camera().sizes, m_open_size);
        if (may_be_size && smaller && m_sizes_tried < kMostSizesTried) {
            ++m_sizes_tried;
            m_open_size = *smaller;
            return {{.kind = PublishAction::kOpen, .id = state.id, .format = {*smaller, m_format.fps}}};
        }
        m_open_id.reset();
        return Pause("could not be opened", now);
    }
    Actions actions = Translate(m_watch->OnState(state, now), now);
    if (state.state == kCameraOpen && m_sizes_tried > 1) {
        m_sizes_tried = 1;
        actions.push_back(Report(CameraLabel(Camera()) + " is open at " + SizeText(m_open_size) +
                                 ", because larger sizes could not be opened"));
    }
    return actions;
}

PublishedCamera::Actions PublishedCamera::OnCameras(const std::vector<CameraEntry>& cameras,
                                                    Clock::time_point now) {
    m_listed = cameras;
    m_asked_at.reset();
    m_next_list = now + m_limits.list_interval;
    Actions actions;
    if (!m_first_watch.IsListed(cameras)) {
        m_absent_since = m_absent_since.value_or(now);
    } else {
        m_absent_since.reset();
        if (!std::exchange(m_published, true)) {
            actions.push_back({.kind = PublishAction::kPublish});
        }
    }
    if (m_watch) {
        Append(actions, Translate(m_watch->OnCameras(cameras, now), now));
    }
    return actions;
}

PublishedCamera::Actions PublishedCamera::OnDisconnect(Clock::time_point now) {
    m_absent_since = m_absent_since.value_or(now);
    m_listed.clear();
    m_asked_at.reset();
    m_next_list = now;
    m_open_id.reset();
    if (!m_watch) {
        return {};
    }
    m_watch->OnDisconnect(now);
    return Lose({}, now);
}

Expected<PublishedCamera::Actions> PublishedCamera::OnTime(Clock::time_point now) {
    Actions actions;
    if (m_close_time && now >= *m_close_time) {
        m_unused_since = now;
        Append(actions, Stop());
    }
    if (m_watch) {
        auto watched = m_watch->OnTime(now);
        const bool is_opening = m_open_id && m_watch->IsAway();
        if (!watched && !is_opening) {
            return Fail(watched.error());
        }
        if (watched) {
            Append(actions, Translate(*watched, now));
        } else {
            actions.push_back({.kind = PublishAction::kClose, .id = *std::exchange(m_open_id, std::nullopt)});
            Append(actions, Pause("was not opened within " + SecondsText(m_limits.watch.answer), now));
        }
    } else if (RetryTime() && now >= *m_retry_time) {
        Append(actions, Start(now));
    } else if (m_asked_at && now - *m_asked_at >= m_limits.watch.answer) {
        return Fail("the host did not answer within " + SecondsText(m_limits.watch.answer) +
                    ": camera list request");
    } else if (!m_asked_at && now >= m_next_list) {
        m_asked_at = now;
        actions.push_back({.kind = PublishAction::kAskCameras});
    }
    if (m_card_time && m_has_readers && now >= *m_card_time) {
        m_card_time = now + kCardInterval;
        actions.push_back({.kind = PublishAction::kShowCard});
    }
    if (const auto withdraw = WithdrawTime(); withdraw && now >= *withdraw) {
        m_published = false;
        actions.push_back({.kind = PublishAction::kWithdraw});
    }
    return actions;
}

Clock::time_point PublishedCamera::NextTime() const {
    auto next = Clock::time_point::max();
    const auto add = [&](const std::optional<Clock::time_point>& time) {
        next = std::min(next, time.value_or(Clock::time_point::max()));
    };
    add(m_close_time);
    add(WithdrawTime());
    add(m_has_readers ? m_card_time : std::nullopt);
    if (m_watch) {
        add(m_watch->NextTime());
    } else {
        add(RetryTime() ? m_retry_time : m_asked_at ? *m_asked_at + m_limits.watch.answer : m_next_list);
    }
    return next;
}

PublishedCamera::Actions PublishedCamera::Start(Clock::time_point now) {
    m_retry_time.reset();
    m_asked_at.reset();
    m_watch.emplace(m_first_watch);
    m_watch->OnDisconnect(now);
    // With the last list: asking for another one would delay the first picture.
    return Translate(m_watch->OnCameras(m_listed, now), now);
}

PublishedCamera::Actions PublishedCamera::Stop() {
    Actions actions;
    if (const auto id = std::exchange(m_open_id, std::nullopt)) {
        actions.push_back({.kind = PublishAction::kClose, .id = *id});
    }
    m_close_time.reset();
    m_watch.reset();
    m_retry_time.reset();
    m_pause = {};
    m_card_time.reset();
    return actions;
}

PublishedCamera::Actions PublishedCamera::Pause(const std::string& what, Clock::time_point now) {
    const std::string text = CameraLabel(Camera()) + " " + what;
    m_watch.reset();
    m_pause = std::clamp<Clock::duration>(2 * m_pause, kShortestPause, kLongestPause);
    m_retry_time = now + m_pause;
    return Lose(text, now);
}

PublishedCamera::Actions PublishedCamera::Translate(const CameraWatch::Actions& watched,
                                                    Clock::time_point now) {
    Actions actions;
    for (const WatchAction& action : watched) {
        switch (action.kind) {
            case WatchAction::kAskCameras:
                actions.push_back({.kind = PublishAction::kAskCameras});
                break;
            case WatchAction::kOpen:
                m_open_id = action.id;
                m_open_size = m_format.size;
                m_sizes_tried = 1;
                m_format_requests = 0;
                actions.push_back({.kind = PublishAction::kOpen, .id = action.id, .format = m_format});
                break;
            case WatchAction::kClose:
                m_open_id.reset();
                actions.push_back({.kind = PublishAction::kClose, .id = action.id});
                // The watch announces only the loss of a camera that has sent a frame.
                if (!m_card_time) {
                    Append(actions, Lose(CameraLabel(Camera()) + " sends no frame", now));
                }
                break;
            case WatchAction::kAnnounce:
                if (action.event != CameraEvent::kBack) {
                    Append(actions, Lose(action.text, now));
                } else if (const bool was_away = std::exchange(m_card_time, std::nullopt).has_value();
                           was_away || m_watch->IsUncertain()) {
                    actions.push_back(
                        Report(CameraLabel(Camera()) + (was_away ? " is back" : " sends pictures") +
                               (m_watch->IsUncertain() ? ", or another camera of this name" : "")));
                }
                break;
        }
    }
    return actions;
}

PublishedCamera::Actions PublishedCamera::Lose(const std::string& text, Clock::time_point now) {
    Actions actions;
    if (!m_card_time && m_has_readers) {
        actions.push_back({.kind = PublishAction::kShowCard});
    }
    m_card_time = m_card_time.value_or(now + kCardInterval);
    if (!text.empty()) {
        actions.push_back(Report(text));
    }
    return actions;
}

std::optional<Clock::time_point> PublishedCamera::WithdrawTime() const {
    if (!m_published || !m_absent_since || m_has_readers || m_close_time) {
        return std::nullopt;
    }
    return std::max(*m_absent_since, m_unused_since) + m_limits.absence;
}

}  // namespace zumod::peer
