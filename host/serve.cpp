#include "host/serve.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "host/device_watch.h"
#include "host/plugin_stream.h"
#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr Clock::time_point kNever = Clock::time_point::max();
constexpr auto kPause = std::chrono::milliseconds(100);
constexpr size_t kInputSize = size_t{64} * 1024;
constexpr char kSessionEnded[] = "ended: the camera module has no memory, thread or descriptor left";
constexpr char kNothingLeft[] = "the host has no thread or descriptor left for a peer";

// A probe (connect, then close) is already gone.
bool HasLeft(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

std::string PeerText(PeerId id) {
    return "[host] peer " + std::to_string(id);
}

// One plugin and its thread, from the first peer to the last: no camera, queued frame or property of earlier
// peers reaches later ones. Run, ExitInstance and the release of the plugin happen on the session's thread,
// in this order; another thread can only end the stream.
class Session {
public:
    // Null if the system has no descriptor or no thread for it.
    static std::unique_ptr<Session> Start(CameraModule& module, const PeerLimits& limits) {
        auto session = std::unique_ptr<Session>(new Session(module, limits));  // the constructor is private
        if (!session->m_done || !session->m_stream->IsValid()) {
            return nullptr;
        }
        try {
            session->m_thread = std::thread([started = session.get()] { started->Serve(); });
        } catch (const std::system_error&) {
            return nullptr;
        }
        return session;
    }
    // Ends the stream and waits until every camera is closed.
    ~Session() {
        m_stream->End();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    PluginStream& Stream() const { return *m_stream; }

    // Readable once everything that belongs to the session is closed.
    int Done() const { return m_done.Get(); }

private:
    Session(CameraModule& module, const PeerLimits& limits)
        : m_module(module), m_stream(new PluginStream(limits)), m_done(eventfd(0, EFD_CLOEXEC)) {}

    void Serve() {
        try {
            if (const CRefPtr_T<IClientCameraPlugin> plugin = m_module.CreatePlugin()) {
                plugin->SetChannelStream(m_stream.Get());
                plugin->Run();
                // A frame that waits for space would block ExitInstance.
                m_stream->End();
                plugin->ExitInstance();
            }
        } catch (const std::bad_alloc&) {
            // No plugin could be created: nothing that Run calls here throws. The peers are told.
        }
        eventfd_write(m_done.Get(), 1);
    }

    CameraModule& m_module;
    const CRefPtr_T<PluginStream> m_stream;
    const UniqueFd m_done;  // an eventfd
    std::thread m_thread;
};

// The connections of all peers, and the session that they share.
class PeerServer {
public:
    PeerServer(CameraModule& module, const PeerLimits& limits, HostLog& log, Waiter& waiter)
        : m_module(module), m_limits(limits), m_log(log), m_waiter(waiter) {}
    PeerServer(const PeerServer&) = delete;
    PeerServer& operator=(const PeerServer&) = delete;
    ~PeerServer() { EndSession(); }

    size_t Count() const { return m_peers.size(); }

    // Returns whether there is a session for a further peer.
    bool EnsureSession() {
        if (m_session_has_ended) {
            Serve();
        }
        if (m_session == nullptr) {
            m_session = Session::Start(m_module, m_limits);
            if (m_session == nullptr) {
                return false;
            }
            m_plugin_ended =
                m_waiter.Watch(m_session->Done(), POLLIN, [this] { m_session_has_ended = true; });
            m_plugin_wakes = m_waiter.Watch(m_session->Stream().Wake(), POLLIN,
                                            [this] { m_session->Stream().ClearWake(); });
        }
        return true;
    }

    // After EnsureSession has returned true.
    void Add(std::unique_ptr<PeerStream> stream) {
        const PeerId id = ++m_last_id;
        m_session->Stream().Call([id](Broker& broker) { broker.AddPeer(id, Clock::now()); });
        m_peers[id].stream = std::move(stream);
        m_log.Write(kLogEvent, PeerText(id) + " has connected");
    }

    // Moves all bytes that can be moved now, and closes what is done.
    void Serve() {
        if (m_session == nullptr) {
            return;
        }
        PluginStream& stream = m_session->Stream();
        CloseMissingCameras(stream);
        if (stream.Update([](Broker& broker) { return broker.OnTime(Clock::now()); })) {
            stream.WakePlugin();
        }
        for (auto next = m_peers.begin(); next != m_peers.end();) {
            auto& [id, peer] = *next++;
            if (m_session_has_ended) {
                stream.Update([id = id](Broker& broker) { broker.EndPeer(id, kSessionEnded, Clock::now()); });
            }
            if (!SendOutput(id, peer) || IsDone(id) || m_session_has_ended) {
                Remove(id);
            } else {
                WaitForPeer(id, peer);
            }
        }
        for (const Broker::LogLine& line : stream.Update([](Broker& broker) { return broker.TakeLog(); })) {
            m_log.Write(line.level, line.text);
        }
        if (m_peers.empty()) {
            EndSession();
        }
    }

    // Removes the peers that have closed their connection without their end being noticed yet.
    void RemoveHungUp() {
        for (auto next = m_peers.begin(); next != m_peers.end();) {
            const auto& [id, peer] = *next++;
            if (peer.stream->IsHungUp()) {
                Remove(id);
            }
        }
    }

    // When Serve must be called if nothing happens.
    Clock::time_point NextTime() const {
        if (m_session == nullptr) {
            return kNever;
        }
        return m_session->Stream().Query([this](const Broker& broker) {
            return std::min(broker.NextTime(), broker.HasOpenCamera() ? m_devices.NextTime() : kNever);
        });
    }

private:
    struct Peer {
        std::unique_ptr<PeerStream> stream;
        bool can_send = true;
        Waiter::Registration input;
        Waiter::Registration output;
    };

    void CloseMissingCameras(PluginStream& stream) {
        const auto now = Clock::now();
        if (now < m_devices.NextTime()) {
            return;
        }
        const auto open = stream.Query([](const Broker& broker) { return broker.OpenDevices(); });
        for (const uint32_t camera : m_devices.FindGone(open, now)) {
            stream.Call([&](Broker& broker) { broker.OnDeviceGone(camera, now); });
        }
    }

    bool IsDone(PeerId id) const {
        return m_session->Stream().Query(
            [id](const Broker& broker) { return broker.IsDone(id, Clock::now()); });
    }

    // False if the connection is broken.
    bool SendOutput(PeerId id, Peer& peer) const {
        PluginStream& stream = m_session->Stream();
        peer.can_send = true;
        while (peer.can_send) {
            const auto output = stream.Query([id](const Broker& broker) { return broker.NextOutput(id); });
            if (output.rest.empty()) {
                return true;
            }
            const auto sent = peer.stream->Send(output.rest);
            if (!sent) {
                return false;
            }
            peer.can_send = *sent == output.rest.size();
            stream.Call([&](Broker& broker) { broker.OnSent(id, *sent, Clock::now()); });
        }
        return true;
    }

    void ReceiveInput(PeerId id, const PeerStream& peer) {
        PluginStream& stream = m_session->Stream();
        const size_t space = stream.Query([id](const Broker& broker) { return broker.InputSpace(id); });
        if (space == 0) {
            return;
        }
        const std::span<uint8_t> bytes(m_input.data(), std::min(space, m_input.size()));
        const auto count = peer.Receive(bytes);
        stream.Call([&](Broker& broker) {
            if (count) {
                broker.OnInput(id, bytes.first(*count));
            } else {
                broker.OnInputEnd(id);
            }
        });
    }

    // Registers the connection for what can be done with it, and only for that.
    void WaitForPeer(PeerId id, Peer& peer) {
        const bool wants_input =
            m_session->Stream().Query([id](const Broker& broker) { return broker.InputSpace(id); }) != 0;
        if (!wants_input) {
            peer.input.reset();
        } else if (peer.input == nullptr) {
            peer.input = m_waiter.Watch(peer.stream->In(), POLLIN,
                                        [this, id, &stream = *peer.stream] { ReceiveInput(id, stream); });
        }
        if (peer.can_send) {
            peer.output.reset();
        } else if (peer.output == nullptr) {
            // Wait() returns then, and Serve sends.
            peer.output = m_waiter.Watch(peer.stream->Out(), POLLOUT, [] {});
        }
    }

    void Remove(PeerId id) {
        m_session->Stream().Call([id](Broker& broker) { broker.RemovePeer(id); });
        m_peers.erase(id);
        m_log.Write(kLogEvent, PeerText(id) + " has left");
    }

    void EndSession() {
        m_plugin_ended.reset();
        m_plugin_wakes.reset();
        m_session.reset();
        m_session_has_ended = false;
        m_peers.clear();
    }

    CameraModule& m_module;
    const PeerLimits m_limits;
    HostLog& m_log;
    Waiter& m_waiter;
    DeviceWatch m_devices{m_waiter};
    std::unique_ptr<Session> m_session;
    bool m_session_has_ended = false;
    Waiter::Registration m_plugin_ended;
    Waiter::Registration m_plugin_wakes;
    std::map<PeerId, Peer> m_peers;
    PeerId m_last_id = 0;
    std::array<uint8_t, kInputSize> m_input{};
};

class PeerAcceptor {
public:
    PeerAcceptor(const Listener& listener, const ServeLimits& limits, CameraModule& module, HostLog& log,
                 Waiter& waiter)
        : m_listener(listener),
          m_limit(limits.peers),
          m_log(log),
          m_waiter(waiter),
          m_server(module, limits.each, log, waiter) {}
    PeerAcceptor(const PeerAcceptor&) = delete;
    PeerAcceptor& operator=(const PeerAcceptor&) = delete;

    void Run() {
        do {
            if (!m_peer_waits && Clock::now() >= m_retry) {
                m_peer_waits = m_waiter.Watch(m_listener.Descriptor(), POLLIN, [this] { AcceptPeer(); });
                m_retry = kNever;
            }
            m_server.Serve();
        } while (m_waiter.Wait(std::min(m_retry, m_server.NextTime())).has_value());  // until a signal
    }

private:
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
        if (m_server.Count() == m_limit) {
            m_server.RemoveHungUp();
        }
        if (m_server.Count() == m_limit) {
            m_log.Write(kLogIgnored, "[host] turned a peer away: " + std::to_string(m_limit) + " are served");
            SendHostNotice(peer.Get(), m_limit == 1
                                           ? "busy: another peer is being served"
                                           : "busy: " + std::to_string(m_limit) + " peers are being served");
            return;
        }
        if (!m_server.EnsureSession()) {
            m_log.Write(kLogFailure, "[host] refused a peer: " + std::string(kNothingLeft));
            SendHostNotice(peer.Get(), "refused: " + std::string(kNothingLeft));
            return;
        }
        m_server.Add(std::make_unique<PeerStream>(std::move(peer)));
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
    const size_t m_limit;
    HostLog& m_log;
    Waiter& m_waiter;
    PeerServer m_server;
    Waiter::Registration m_peer_waits;
    Clock::time_point m_retry{};  // when to accept peers again, while m_peer_waits is not registered
};

}  // namespace

void ServePeers(const Listener& listener, const ServeLimits& limits, CameraModule& module, HostLog& log,
                Waiter& waiter) {
    PeerAcceptor(listener, limits, module, log, waiter).Run();
}

Expected<void> ServeOnePeer(std::unique_ptr<PeerStream> stream, const ServeLimits& limits,
                            CameraModule& module, HostLog& log, Waiter& waiter) {
    PeerServer server(module, limits.each, log, waiter);
    if (!server.EnsureSession()) {
        return Fail(kNothingLeft);
    }
    server.Add(std::move(stream));
    do {
        server.Serve();
    } while (server.Count() != 0 && waiter.Wait(server.NextTime()).has_value());
    return {};
}

}  // namespace zumod::host
