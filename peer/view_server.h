// The HTTP server of the page: sockets, and what is read from and written to them. What requests mean is for
// its caller.
//
// All of it runs in the main thread, inside Waiter::Wait(): there is no thread per connection, so nothing is
// shared and nothing can be blocked. A request that is complete and may be made (view_http.h) waits for
// TakeRequests(); the caller answers it, now or later. Callbacks of the waiter must not wait, but what a
// request asks of the host may have to.
//
// An answer is text, or a source (ViewSource) that is asked for its next piece when the socket has taken the
// one before. So what waits for a slow reader waits in the source, which knows what may be dropped; a
// connection holds one piece, and the system at most kSendBuffer bytes.
//
// Limits: kMostConnections at once, of which the oldest without a complete request makes place for a new one;
// kRequestTime for a request, kStuckTime for a reader that takes nothing, and the sizes of view_http.h. One
// request per connection.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "common/error.h"
#include "common/unique_fd.h"
#include "common/waiter.h"
#include "peer/view_http.h"

namespace zumod::peer {

// Bytes to send: `head`, then `body`, which `owner` keeps alive.
struct ViewPiece {
    std::string head;
    std::span<const uint8_t> body = {};
    std::shared_ptr<const void> owner = nullptr;
};

class ViewSource {
public:
    ViewSource() = default;
    ViewSource(const ViewSource&) = delete;
    ViewSource& operator=(const ViewSource&) = delete;
    // The connection is closed.
    virtual ~ViewSource() = default;

    // Nothing if there is none now, or no more.
    virtual std::optional<ViewPiece> Next() = 0;
    virtual bool IsOver() const = 0;
};

// A TCP socket that listens at 127.0.0.1. Port 0: any.
struct ViewListener {
    static Expected<ViewListener> Open(uint16_t port);

    UniqueFd socket;
    uint16_t port = 0;
};

class ViewServer {
public:
    static constexpr size_t kMostConnections = 64;
    static constexpr int kSendBuffer = 256 * 1024;
    static constexpr auto kRequestTime = std::chrono::seconds(10);
    static constexpr auto kStuckTime = std::chrono::seconds(30);

    using ConnectionId = uint64_t;
    struct Asked {
        ConnectionId id;
        HttpRequest request;
        HttpTarget target;
    };

    // `on_request`: TakeRequests() returns something now. Within Waiter::Wait().
    ViewServer(ViewListener listener, std::string token, Waiter& waiter, Waiter::Callback on_request);
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    std::vector<Asked> TakeRequests() { return std::exchange(m_asked, {}); }
    // A connection that is closed already ignores it.
    void Answer(ConnectionId id, HttpStatus status, const std::string& type, std::string body);
    // As {"error": TEXT}.
    void Refuse(ConnectionId id, HttpStatus status, const std::string& text);
    // Chunks until the source is over. With a size: as many bytes, saved as the file.
    void Answer(ConnectionId id, const std::string& type, std::unique_ptr<ViewSource> source,
                std::optional<size_t> size = std::nullopt, const std::string& file = {});
    // A source may have a piece now. Sends what the sockets take.
    void SendMore();

    // Applies the limits of time.
    void OnTime(Clock::time_point now);
    Clock::time_point NextTime() const;
    size_t Connections() const { return m_connections.size(); }

private:
    struct Connection {
        ConnectionId id = 0;
        UniqueFd socket;
        Waiter::Registration reading;
        Waiter::Registration writing;  // while the socket takes nothing
        std::string input;
        std::optional<HttpRequest> request;  // its head is complete
        bool is_asked = false;               // the request is complete
        bool is_chunked = false;
        bool is_last = false;  // nothing follows the current piece
        ViewPiece piece;
        std::string tail;  // behind the piece
        size_t sent = 0;   // of head, body and tail
        std::unique_ptr<ViewSource> source;
        Clock::time_point due;  // when it is closed unless something happens
    };

    void OnConnection();
    void OnReadable(Connection& connection);
    void OnInput(Connection& connection);
    void OnWholeRequest(Connection& connection);
    void Begin(Connection& connection, const HttpAnswerHead& head, std::string body);
    // Closes the connection if it is over. It does not exist any more then.
    void Send(Connection& connection);
    // Returns false if there is nothing to send now.
    bool NextPiece(Connection& connection);
    void Close(Connection& connection);
    Connection* Find(ConnectionId id);

    const UniqueFd m_listener;
    const HttpAccess m_access;
    Waiter& m_waiter;
    const Waiter::Callback m_on_request;
    Waiter::Registration m_listening;
    ConnectionId m_last_id = 0;
    std::list<Connection> m_connections;  // oldest first
    std::vector<Asked> m_asked;
};

}  // namespace zumod::peer
