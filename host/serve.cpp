#include "host/serve.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr Clock::time_point kNever = Clock::time_point::max();
constexpr auto kPause = std::chrono::milliseconds(100);

// A probe (connect, then close) is already gone.
bool HasLeft(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// One peer that is served. Its plugin is created for it and destroyed with the session: no camera, queued
// frame or property of one peer reaches the next. Run, ExitInstance and the release of the plugin happen on
// the session's thread, in this order; another thread can only end the stream.
class Session {
public:
    Session(CameraModule& module, CRefPtr_T<PeerStream> stream)
        : m_module(module),
          m_stream(std::move(stream)),
          m_done(eventfd(0, EFD_CLOEXEC)),
          m_thread([this] { Serve(); }) {}
    // Ends the stream and waits until every camera is closed.
    ~Session() {
        m_stream->End();
        m_thread.join();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Readable once everything that belongs to the session is closed.
    int Done() const { return m_done.Get(); }

    // Whether the peer has left, even if the session has not noticed it yet.
    bool PeerHasLeft() const { return m_leaving.load() || m_stream->IsHungUp(); }

private:
    void Serve() {
        if (const CRefPtr_T<IClientCameraPlugin> plugin = m_module.CreatePlugin()) {
            plugin->SetChannelStream(m_stream.Get());
            plugin->Run();
            m_leaving.store(true);
            // A peer that only stopped sending may block a frame that is being written, and ExitInstance
            // waits for it.
            m_stream->End();
            plugin->ExitInstance();
        }
        eventfd_write(m_done.Get(), 1);
    }

    CameraModule& m_module;
    const CRefPtr_T<PeerStream> m_stream;
    const UniqueFd m_done;  // an eventfd
    // Set by the session's thread when Run has returned; nothing else depends on it.
    std::atomic<bool> m_leaving{false};
    std::thread m_thread;
};

class PeerAcceptor {
public:
    PeerAcceptor(const Listener& listener, CameraModule& module, HostLog& log, Waiter& waiter)
        : m_listener(listener), m_module(module), m_log(log), m_waiter(waiter) {}
    PeerAcceptor(const PeerAcceptor&) = delete;
    PeerAcceptor& operator=(const PeerAcceptor&) = delete;

    void Run() {
        do {
            if (!m_peer_waits && Clock::now() >= m_retry) {
                m_peer_waits = m_waiter.Watch(m_listener.Descriptor(), POLLIN, [this] { AcceptPeer(); });
                m_retry = kNever;
            }
        } while (m_waiter.Wait(m_retry).has_value());  // until a signal
    }

private:
    void EndSession() {
        m_session_is_done.reset();
        m_session.reset();
        m_log.Write(kLogEvent, "[host] the peer has left");
    }

    void AcceptPeer() {
        UniqueFd peer = m_listener.Accept();
        if (!peer) {
            OnAcceptFailure(errno);
            return;
        }
        if (HasLeft(peer.Get())) {
            return;
        }
        if (const uid_t user = PeerUser(peer.Get()); user != geteuid()) {
            m_log.Write(kLogIgnored, "[host] refused a peer of user " + std::to_string(user));
            SendHostNotice(peer.Get(), "refused: this host serves only its own user");
            return;
        }
        // The previous peer may have left without the session noticing it yet: the next one need not try
        // twice.
        if (m_session && m_session->PeerHasLeft()) {
            EndSession();
        }
        if (m_session) {
            m_log.Write(kLogIgnored, "[host] turned a second peer away");
            SendHostNotice(peer.Get(), "busy: another peer is being served");
            return;
        }
        m_log.Write(kLogEvent, "[host] a peer has connected");
        m_session.emplace(m_module, CRefPtr_T<PeerStream>(new PeerStream(std::move(peer))));
        m_session_is_done = m_waiter.Watch(m_session->Done(), POLLIN, [this] { EndSession(); });
    }

    void OnAcceptFailure(int error) {
        if (error == EAGAIN || error == EINTR || error == ECONNABORTED) {
            return;
        }
        m_log.Write(kLogFailure, "[host] no peer can be accepted: " + ErrnoText(error));
        // Most likely no descriptor is left. The peer stays in the socket's queue until the next attempt.
        m_peer_waits.reset();
        m_retry = Clock::now() + kPause;
    }

    const Listener& m_listener;
    CameraModule& m_module;
    HostLog& m_log;
    Waiter& m_waiter;
    std::optional<Session> m_session;
    Waiter::Registration m_session_is_done;
    Waiter::Registration m_peer_waits;
    Clock::time_point m_retry{};  // when to accept peers again, while m_peer_waits is not registered
};

}  // namespace

void ServePeers(const Listener& listener, CameraModule& module, HostLog& log, Waiter& waiter) {
    PeerAcceptor(listener, module, log, waiter).Run();
}

void ServeOnePeer(CRefPtr_T<PeerStream> stream, CameraModule& module, Waiter& waiter) {
    const Session session(module, std::move(stream));
    waiter.WaitFor(session.Done(), POLLIN, kNever);
}

}  // namespace zumod::host
