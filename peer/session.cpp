#include "peer/session.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>

#include "common/safe_text.h"
#include "peer/peer_error.h"

namespace zumod::peer {

void Session::Send(const std::vector<uint8_t>& bytes) {
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
            return;
        }
        pollfd waits[] = {{m_signals.Descriptor(), POLLIN, 0}, {m_connection.Output(), POLLOUT, 0}};
        const bool ready = PollUntil(waits, deadline);
        m_signals.Check();
        if (!ready && Clock::now() >= deadline) {
            throw PeerError("the host took no request within " + SecondsText(m_limit));
        }
    }
}

std::optional<Arrived> Session::Receive(Clock::time_point deadline) {
    while (m_messages.empty()) {
        if (!m_failure.empty()) {
            throw PeerError(m_failure);
        }
        if (Clock::now() >= deadline) {
            return std::nullopt;
        }
        pollfd waits[] = {{m_signals.Descriptor(), POLLIN, 0}, {m_connection.Input(), POLLIN, 0}};
        PollUntil(waits, deadline);
        // First: a terminal's interrupt also ends the command behind the channel.
        m_signals.Check();
        if (waits[1].revents != 0) {
            ReadSome();
        }
    }
    Arrived next = std::move(m_messages.front());
    m_messages.pop_front();
    if (const auto* notice = std::get_if<NoticeMessage>(&next.message)) {
        throw PeerError("the host says: " + SafeText(notice->text));
    }
    return next;
}

void Session::PutBack(std::vector<Arrived> messages) {
    m_messages.insert(m_messages.begin(), std::make_move_iterator(messages.begin()),
                      std::make_move_iterator(messages.end()));
}

void Session::ReadSome() {
    std::array<uint8_t, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into below
    const ssize_t count = read(m_connection.Input(), buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        m_failure = HowItClosed();
        return;
    }
    const auto now = Clock::now();
    std::vector<Message> messages;
    if (!m_reader.Feed(std::span(buffer).first(static_cast<size_t>(count)), messages)) {
        m_failure = "the host sent " + m_reader.Error();
    }
    for (Message& message : messages) {
        m_messages.push_back({std::move(message), now});
    }
}

std::string Session::HowItClosed() {
    std::string text = "the host closed the connection";
    if (m_reader.InMessage()) {
        text += " in the middle of a message";
    }
    const std::string command = m_connection.End();
    return command.empty() ? text : text + ": " + command;
}

}  // namespace zumod::peer
