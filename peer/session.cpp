#include "peer/session.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <span>
#include <utility>

#include "common/safe_text.h"

namespace zumod::peer {

Expected<void> Session::Send(const std::vector<uint8_t>& bytes) {
    const auto deadline = Clock::now() + m_limit;
    std::span<const uint8_t> rest(bytes);
    while (!rest.empty()) {
        const ssize_t count = write(m_connection.Output(), rest.data(), rest.size());
        if (count >= 0) {
            rest = rest.subspan(static_cast<size_t>(count));
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            // The host is gone.
            return {};
        }
        const auto ready = m_waiter.WaitFor(m_connection.Output(), POLLOUT, deadline);
        if (!ready) {
            return Fail(ready.error());
        }
        if (!*ready) {
            return Fail("the host took no request within " + SecondsText(m_limit));
        }
    }
    return {};
}

Expected<std::optional<ReceivedMessage>> Session::Receive(Clock::time_point deadline) {
    if (!m_messages.empty()) {
        // A caller that is slow on every message must notice a signal before the last one.
        if (const auto looked = m_waiter.Wait(Clock::time_point()); !looked) {
            return Fail(looked.error());
        }
    }
    const auto registration = m_waiter.Watch(m_connection.Input(), POLLIN, [this] { OnReadable(); });
    for (;;) {
        while (m_messages.empty()) {
            if (!m_failure.empty()) {
                return Fail(EndOfMessages());
            }
            if (std::exchange(m_woken, false)) {
                return std::nullopt;
            }
            if (Clock::now() >= deadline) {
                ShowNotice();
                return std::nullopt;
            }
            if (const auto waited = m_waiter.Wait(deadline); !waited) {
                return Fail(waited.error());
            }
        }
        ReceivedMessage next = std::move(m_messages.front());
        m_messages.pop_front();
        ShowNotice();
        m_notice.clear();
        const auto* const notice = std::get_if<NoticeMessage>(&next.message);
        if (notice == nullptr) {
            return next;
        }
        ++m_notices;
        m_notice = "the host says: " + SafeText(notice->text);
    }
}

void Session::ShowNotice() {
    if (!m_notice.empty() && m_notice != m_shown_notice && m_notices_shown < kMostNotices) {
        ++m_notices_shown;
        m_shown_notice = m_notice;
        m_on_notice(m_notice);
    }
}

void Session::PutBack(std::vector<ReceivedMessage> messages) {
    m_messages.insert(m_messages.begin(), std::make_move_iterator(messages.begin()),
                      std::make_move_iterator(messages.end()));
}

void Session::OnReadable() {
    std::array<uint8_t, kReadSize> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into below
    const ssize_t count = read(m_connection.Input(), buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        m_closed = true;
        m_failure = "the host closed the connection";
        m_failure += m_reader.InMessage() ? " in the middle of a message" : "";
        ReplaceFailureByGreeting();
        return;
    }
    const auto kept = std::min(static_cast<size_t>(count), kGreetingSize - m_first_bytes.size());
    m_first_bytes.insert(m_first_bytes.end(), buffer.begin(), buffer.begin() + kept);
    const auto now = Clock::now();
    std::vector<Message> messages;
    const auto fed = m_reader.Feed(std::span(buffer).first(static_cast<size_t>(count)), messages);
    if (!fed) {
        m_failure = "the host sent " + fed.error().text;
        ReplaceFailureByGreeting();
    }
    for (Message& message : messages) {
        if (const auto* information = std::get_if<InformationMessage>(&message)) {
            Keep(*information);
            continue;
        }
        m_messages.push_back({std::move(message), now});
    }
}

void Session::PrintInformation() {
    for (const std::string& text : std::exchange(m_information, {})) {
        m_on_notice("the host says: " + SafeText(text));
    }
}

void Session::Keep(const InformationMessage& information) {
    if (m_information.size() < kMostInformation &&
        std::ranges::find(m_information, information.text) == m_information.end()) {
        m_information.push_back(information.text);
    }
}

void Session::ReplaceFailureByGreeting() {
    if (const std::string greeting = Greeting(m_first_bytes); !greeting.empty()) {
        m_failure = "what answered is not a camera host: " + greeting;
    }
}

// Includes how the command behind the connection ended.
Error Session::EndOfMessages() {
    if (!m_closed) {
        ShowNotice();
    } else {
        m_closed = false;
        if (!m_notice.empty()) {
            return {m_failure = std::exchange(m_notice, {})};
        }
        const std::string command = m_connection.End();
        m_failure += command.empty() ? "" : ": " + command;
    }
    return {m_failure};
}

}  // namespace zumod::peer
