#include "peer/view_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

namespace zumod::peer {
namespace {

constexpr size_t kReadSize = 4096;
constexpr int kBacklog = 64;
constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::string ChunkHead(size_t size) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%zx\r\n", size);
    return text.data();
}

std::span<const uint8_t> BytesOf(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

Expected<ViewListener> ViewListener::Open(uint16_t port) {
    ViewListener listener{UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), 0};
    const int on = 1;
    const int buffer = ViewServer::kSendBuffer;
    const int descriptor = listener.socket.Get();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const general = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    // A port that was given is free again as soon as this program has ended.
    (void)setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Connections inherit both.
    (void)setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    (void)setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!listener.socket || bind(descriptor, general, size) != 0 || listen(descriptor, kBacklog) != 0 ||
        getsockname(descriptor, general, &size) != 0) {
        return Fail("cannot listen at 127.0.0.1:" + std::to_string(port) + ": " + ErrnoText(errno));
    }
    listener.port = ntohs(address.sin_port);
    return listener;
}

ViewServer::ViewServer(ViewListener listener, std::string token, Waiter& waiter, Waiter::Callback on_request)
    : m_listener(std::move(listener.socket)),
      m_access{listener.port, std::move(token)},
      m_waiter(waiter),
      m_on_request(std::move(on_request)),
      m_listening(waiter.Watch(m_listener.Get(), POLLIN, [this] { OnConnection(); })) {}

void ViewServer::OnConnection() {
    UniqueFd socket(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
        return;
    }
    if (m_connections.size() == kMostConnections) {
        const auto idle =
            std::ranges::find_if(m_connections, [](const Connection& each) { return !each.is_asked; });
        if (idle == m_connections.end()) {
            return;
        }
        m_connections.erase(idle);
    }
    Connection& connection = m_connections.emplace_back();
    connection.id = ++m_last_id;
    connection.socket = std::move(socket);
    connection.due = Clock::now() + kRequestTime;
    connection.reading =
        m_waiter.Watch(connection.socket.Get(), POLLIN, [this, &connection] { OnReadable(connection); });
}

void ViewServer::OnReadable(Connection& connection) {
    std::array<char, kReadSize> bytes;  // NOLINT(cppcoreguidelines-pro-type-member-init): read into below
    const ssize_t count = recv(connection.socket.Get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    // After the request nothing may follow: one request per connection.
    if (count <= 0 || connection.is_asked) {
        Close(connection);
        return;
    }
    connection.input.append(bytes.data(), static_cast<size_t>(count));
    OnInput(connection);
}

void ViewServer::OnInput(Connection& connection) {
    if (!connection.request) {
        const size_t end = connection.input.find(kHeadEnd);
        if (end == std::string::npos ? connection.input.size() > kHttpHeadLimit : end > kHttpHeadLimit) {
            Begin(connection, {.status = HttpStatus::kHeadTooLarge, .size = 0}, {});
            return;
        }
        if (end == std::string::npos) {
            return;
        }
        const size_t size = end + kHeadEnd.size();
        HttpHead head = ParseHttpHead(std::string_view(connection.input).substr(0, size));
        if (head.status != HttpStatus::kOk) {
            Begin(connection, {.status = head.status, .size = 0}, {});
            return;
        }
        connection.input.erase(0, size);
        connection.request = std::move(head.request);
    }
    if (connection.input.size() > connection.request->body_size) {
        Begin(connection, {.status = HttpStatus::kBadRequest, .size = 0}, {});
    } else if (connection.input.size() == connection.request->body_size) {
        connection.request->body = std::exchange(connection.input, {});
        OnWholeRequest(connection);
    }
}

void ViewServer::OnWholeRequest(Connection& connection) {
    HttpTarget target = CheckHttpRequest(*connection.request, m_access);
    if (target.status != HttpStatus::kOk) {
        Begin(connection, {.status = target.status, .size = 0}, {});
        return;
    }
    connection.is_asked = true;
    connection.due = Clock::time_point::max();
    m_asked.push_back({connection.id, std::move(*connection.request), std::move(target)});
    m_on_request();
}

void ViewServer::Answer(ConnectionId id, HttpStatus status, const std::string& type, std::string body) {
    if (Connection* const connection = Find(id)) {
        const size_t size = body.size();
        Begin(*connection, {.status = status, .type = type, .size = size}, std::move(body));
    }
}

void ViewServer::Refuse(ConnectionId id, HttpStatus status, const std::string& text) {
    Answer(id, status, "application/json",
           nlohmann::json{{"error", text}}.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
}

void ViewServer::Answer(ConnectionId id, const std::string& type, std::unique_ptr<ViewSource> source,
                        std::optional<size_t> size, const std::string& file) {
    if (Connection* const connection = Find(id)) {
        connection->source = std::move(source);
        connection->is_chunked = !size;
        Begin(*connection, {.type = type, .size = size, .file = file}, {});
    }
}

void ViewServer::Begin(Connection& connection, const HttpAnswerHead& head, std::string body) {
    connection.is_asked = true;
    connection.piece = {HttpHeadText(head) + std::move(body), {}, nullptr};
    connection.is_last = connection.source == nullptr;
    connection.due = Clock::now() + kStuckTime;
    Send(connection);
}

bool ViewServer::NextPiece(Connection& connection) {
    if (connection.is_last) {
        return false;
    }
    connection.sent = 0;
    connection.tail.clear();
    connection.piece = {};
    auto next = connection.source->Next();
    if (next) {
        connection.piece = std::move(*next);
        if (connection.is_chunked) {
            connection.piece.head = ChunkHead(connection.piece.head.size() + connection.piece.body.size()) +
                                    connection.piece.head;
            connection.tail = "\r\n";
        }
        return true;
    }
    connection.is_last = connection.source->IsOver();
    if (connection.is_last && connection.is_chunked) {
        connection.piece.head = "0\r\n\r\n";
        return true;
    }
    return false;
}

void ViewServer::Send(Connection& connection) {
    for (;;) {
        std::array<iovec, 3> vectors{};
        size_t count = 0;
        size_t skip = connection.sent;
        size_t left = 0;
        for (const std::span<const uint8_t> part :
             {BytesOf(connection.piece.head), connection.piece.body, BytesOf(connection.tail)}) {
            const size_t skipped = std::min(skip, part.size());
            const auto rest = part.subspan(skipped);
            skip -= skipped;
            left += rest.size();
            if (!rest.empty()) {
                vectors[count++] = {const_cast<uint8_t*>(rest.data()), rest.size()};  // NOLINT: not written
            }
        }
        if (left == 0) {
            if (NextPiece(connection)) {
                continue;
            }
            if (connection.is_last) {
                Close(connection);
                return;
            }
            // Nothing is late while nothing waits.
            connection.writing.reset();
            connection.due = Clock::time_point::max();
            return;
        }
        msghdr message{};
        message.msg_iov = vectors.data();
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(connection.socket.Get(), &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent < 0 && errno == EAGAIN) {
            if (!connection.writing) {
                connection.due = Clock::now() + kStuckTime;
                connection.writing = m_waiter.Watch(connection.socket.Get(), POLLOUT,
                                                    [this, &connection] { Send(connection); });
            }
            return;
        }
        if (sent < 0) {
            Close(connection);
            return;
        }
        connection.sent += static_cast<size_t>(sent);
        connection.due = Clock::now() + kStuckTime;
    }
}

void ViewServer::SendMore() {
    for (auto each = m_connections.begin(); each != m_connections.end();) {
        Connection& connection = *each++;
        if (connection.source != nullptr && !connection.writing) {
            Send(connection);
        }
    }
}

// A failed request may have left input unread, which would make the system discard the answer, too: the other
// side gets the answer and the end of the stream first.
void ViewServer::Close(Connection& connection) {
    std::array<char, kReadSize> rest;  // NOLINT(cppcoreguidelines-pro-type-member-init): not looked at
    shutdown(connection.socket.Get(), SHUT_WR);
    (void)recv(connection.socket.Get(), rest.data(), rest.size(), MSG_DONTWAIT);
    std::erase_if(m_connections, [&](const Connection& each) { return &each == &connection; });
}

ViewServer::Connection* ViewServer::Find(ConnectionId id) {
    const auto found = std::ranges::find(m_connections, id, &Connection::id);
    return found != m_connections.end() ? &*found : nullptr;
}

void ViewServer::OnTime(Clock::time_point now) {
    std::erase_if(m_connections, [now](const Connection& each) { return each.due <= now; });
}

Clock::time_point ViewServer::NextTime() const {
    auto next = Clock::time_point::max();
    for (const Connection& connection : m_connections) {
        next = std::min(next, connection.due);
    }
    return next;
}

}  // namespace zumod::peer
