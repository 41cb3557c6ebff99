#include "host/serve.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <latch>
#include <list>
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
// How many sessions may end in the background. The end of a further one delays the next peer.
constexpr size_t kMostEnding = 4;
constexpr size_t kInputSize = size_t{64} * 1024;
constexpr char kSessionEnded[] = "ended: the camera module has no memory, thread or descriptor left";
constexpr auto kRefusalTime = std::chrono::seconds(10);
constexpr char kCannotAsk[] = "this host cannot ask its owner";
constexpr char kRefusedBefore[] = "the owner of this host has not agreed less than 10 seconds ago";
constexpr char kNothingLeft[] = "the host has no thread or descriptor left for a peer";

// A probe (connect, then close) is already gone.
bool HasLeft(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

std::string PeerText(PeerId id) {
    return "[host] peer " + std::to_string(id);
}

// A source of lines that no other line of a peer can fill; see line_limit.h.
std::string SessionText(PeerId id) {
    return "[session] peer " + std::to_string(id);
}

// The process that connected to this socket; its number is 0 if it is not known.
ucred ProcessOf(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer : ucred{};
}

std::string CameraText(const Broker::Event& event) {
    return "camera " + std::to_string(event.request.id) +
           (event.camera.name.empty() ? "" : " (" + event.camera.name + ")");
}

std::string FiguresText(uint64_t frames, uint64_t bytes) {
    return std::to_string(frames) + " frames, " + std::to_string(bytes) + " bytes";
}

CameraUse UseOf(const Broker::Event& event, const ucred& process) {
    CameraUse use;
    use.peer = event.peer;
    use.pid = process.pid;
    use.user = process.uid;
    use.camera = event.request.id;
    use.width = event.request.width;
    use.height = event.request.height;
    use.fps = event.request.fps;
    event.camera.name.copy(use.name, sizeof use.name - 1);
    event.camera.file.copy(use.file, sizeof use.file - 1);
    return use;
}

// One plugin and its thread, from the first peer to the last. While one ends, the next may run. No camera,
// queued frame or property of earlier peers reaches later ones. Run, ExitInstance and the release of the
// plugin happen on the session's thread, in this order; another thread can only end the stream.
class Session {
public:
    // Null if the system has no descriptor or no thread for it.
    static std::unique_ptr<Session> Start(const HostParts& parts, const PeerLimits& limits) {
        auto session = std::unique_ptr<Session>(new Session(parts, limits));  // the constructor is private
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

    // Ends the stream and waits until Run has returned: no other session may run before that, because they
    // share the gate. Then the thread ends by itself. Returns whether a camera may still be open.
    bool EndRun() {
        m_stream->End();
        m_run_over.wait();
        return m_stream->Query([](const Broker& broker) { return broker.MayHaveOpenCamera(); });
    }

    // Readable once everything that belongs to the session is closed.
    int Done() const { return m_done.Get(); }

private:
    Session(const HostParts& parts, const PeerLimits& limits)
        : m_module(parts.module),
          m_stream(new PluginStream(limits, &parts.gate)),
          m_done(eventfd(0, EFD_CLOEXEC)) {}

    void Serve() {
        if (const CRefPtr_T<IClientCameraPlugin> plugin = CreatePlugin()) {
            plugin->SetChannelStream(m_stream.Get());
            plugin->Run();
            m_run_over.count_down();
            // A frame that waits for space would block ExitInstance.
            m_stream->End();
            plugin->ExitInstance();
        } else {
            m_run_over.count_down();  // The peers are told.
        }
        eventfd_write(m_done.Get(), 1);
    }

    CRefPtr_T<IClientCameraPlugin> CreatePlugin() const {
        try {
            return m_module.CreatePlugin();
        } catch (const std::bad_alloc&) {
            return {};
        }
    }

    CameraModule& m_module;
    const CRefPtr_T<PluginStream> m_stream;
    const UniqueFd m_done;  // an eventfd
    std::latch m_run_over{1};
    std::thread m_thread;
};

// The connections of all peers, and the session that they share.
class PeerServer {
public:
    PeerServer(const HostParts& parts, const PeerLimits& limits)
        : m_parts(parts), m_limits(limits), m_log(parts.log), m_waiter(parts.waiter) {
        if (m_parts.helper != nullptr) {
            m_replies = m_waiter.Watch(m_parts.helper->Descriptor(), POLLIN, [this] { ReceiveReplies(); });
        }
    }
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
            m_session = Session::Start(m_parts, m_limits);
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
        Peer& peer = m_peers[id];
        peer.process = ProcessOf(stream->In());
        peer.stream = std::move(stream);
        m_log.Write(kLogEvent,
                    PeerText(id) + " has connected" +
                        (peer.process.pid != 0 ? ": process " + std::to_string(peer.process.pid) : ""));
    }

    // Moves all bytes that can be moved now, and closes what is done.
    void Serve() {
        m_ending.remove_if([](const Ending& ending) { return ending.is_done; });
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
                stream.Update([id = id](Broker& broker) {
                    broker.EndPeer(id, kSessionEnded, "the session has ended", Clock::now());
                });
            }
            if (!SendOutput(id, peer) || IsDone(id) || HasLeftAQuestion(id, peer) || m_session_has_ended) {
                Remove(id, "closed");
            } else {
                WaitForPeer(id, peer);
            }
        }
        HandleEvents();
        WriteBrokerLog();
        if (m_peers.empty()) {
            EndSession();
        }
    }

    // Removes the peers that have closed their connection without their end being noticed yet.
    void RemoveHungUp() {
        for (auto next = m_peers.begin(); next != m_peers.end();) {
            const auto& [id, peer] = *next++;
            if (peer.stream->IsHungUp()) {
                Remove(id, "closed");
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
        ucred process{};
        bool is_described = false;  // the helper was asked what its process is
        Clock::time_point connected = Clock::now();
        uint64_t frames = 0;  // of the cameras that it has closed
        uint64_t bytes = 0;
        bool can_send = true;
        Waiter::Registration input;
        Waiter::Registration output;
        Waiter::Registration hang_up;
    };

    // A session without peers, whose thread ends by itself.
    struct Ending {
        std::unique_ptr<Session> session;
        bool is_done = false;
        Waiter::Registration done;
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

    bool IsAsked(PeerId id) const {
        return m_session->Stream().Query([id](const Broker& broker) { return broker.IsAsked(id); });
    }

    // Whether the peer closed its connection while its owner decides. Nobody would see the camera's frames.
    bool HasLeftAQuestion(PeerId id, const Peer& peer) const {
        return peer.stream->InIsSocket() && IsAsked(id) && peer.stream->IsHungUp();
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
        if (wants_input || !peer.stream->InIsSocket() || !IsAsked(id)) {
            peer.hang_up.reset();
        } else if (peer.hang_up == nullptr) {
            // Wait() returns then, and Serve removes the peer.
            peer.hang_up = m_waiter.Watch(peer.stream->In(), 0, [] {});
        }
        if (peer.can_send) {
            peer.output.reset();
        } else if (peer.output == nullptr) {
            // Wait() returns then, and Serve sends.
            peer.output = m_waiter.Watch(peer.stream->Out(), POLLOUT, [] {});
        }
    }

    // The reason, unless the broker has ended the peer for another one.
    void Remove(PeerId id, const std::string& reason) {
        const std::string earlier =
            m_session->Stream().Query([id](const Broker& broker) { return broker.EndReason(id); });
        m_session->Stream().Call([id](Broker& broker) { broker.RemovePeer(id); });
        HandleEvents();
        WriteBrokerLog();
        CancelQuestions(id);
        // Nothing of what comes now is hidden by what the peer has caused before.
        m_log.EndSource(SessionText(id));
        m_log.EndSource(PeerText(id));
        const Peer& peer = m_peers.at(id);
        m_log.Write(kLogEvent, PeerText(id) + " has left after " +
                                   SecondsText(Clock::now() - peer.connected) + ": " +
                                   FiguresText(peer.frames, peer.bytes) + " (" +
                                   (earlier.empty() ? reason : earlier) + ")");
        m_log.EndSource(PeerText(id));
        m_peers.erase(id);
    }

    void CancelQuestions(PeerId id) {
        std::erase_if(m_questions, [&](const auto& entry) {
            const bool is_meant = entry.second.peer == id;
            if (is_meant) {
                (void)m_parts.helper->Cancel(entry.first);
                // Otherwise a peer could make questions come and go without a pause.
                m_refusals[entry.second.file] = Clock::now() + kRefusalTime;
            }
            return is_meant;
        });
    }

    void WriteBrokerLog() {
        for (const Broker::LogLine& line :
             m_session->Stream().Update([](Broker& broker) { return broker.TakeLog(); })) {
            m_log.Write(line.level, line.text);
        }
    }

    // ---- What peers do with cameras

    void HandleEvents() {
        for (const Broker::Event& event :
             m_session->Stream().Update([](Broker& broker) { return broker.TakeEvents(); })) {
            const auto peer = m_peers.find(event.peer);
            if (peer != m_peers.end()) {
                Handle(event, peer->second);
            }
        }
    }

    void Handle(const Broker::Event& event, Peer& peer) {
        const std::string start = SessionText(event.peer);
        const std::string camera = CameraText(event);
        const CameraUse use = UseOf(event, peer.process);
        Describe(event.peer, peer);
        bool is_sent = m_parts.helper != nullptr;
        switch (event.kind) {
            case Broker::Event::Kind::kAsked:
                m_log.Write(kLogEvent, start + " asks for " + camera);
                if (WasRefused(event.camera.file)) {
                    Decide(event.peer, kRefusedBefore);
                    return;
                }
                is_sent = is_sent && m_parts.helper->Ask(++m_last_question, use);
                if (is_sent) {
                    m_questions[m_last_question] = {event.peer, event.camera.file};
                } else {
                    Decide(event.peer, kCannotAsk);
                }
                break;
            case Broker::Event::Kind::kOpened:
                m_log.Write(kLogEvent, start + " has opened " + camera + ": " + std::to_string(use.width) +
                                           "x" + std::to_string(use.height) + ", " + std::to_string(use.fps) +
                                           " frames per second");
                is_sent = is_sent && m_parts.helper->OnOpen(use);
                break;
            case Broker::Event::Kind::kClosed:
                peer.frames += event.frames;
                peer.bytes += event.bytes;
                m_log.Write(kLogEvent, start + " has closed " + camera + " after " + SecondsText(event.time) +
                                           ": " + FiguresText(event.frames, event.bytes));
                is_sent = is_sent && m_parts.helper->OnClose(use);
                break;
        }
        if (m_parts.helper != nullptr && !is_sent && m_replies != nullptr) {
            m_log.Write(kLogFailure, "[host] the helper process does not take a command");
        }
    }

    // Once, and only if the peer uses a camera. The log gets the answer, which nothing waits for.
    void Describe(PeerId id, Peer& peer) const {
        if (m_parts.helper != nullptr && peer.process.pid != 0 && !std::exchange(peer.is_described, true)) {
            (void)m_parts.helper->Describe(id, peer.process.pid);
        }
    }

    // Another peer, or the same one with a new connection, cannot repeat a question at once.
    bool WasRefused(const std::string& file) {
        const auto now = Clock::now();
        std::erase_if(m_refusals, [now](const auto& entry) { return entry.second <= now; });
        return m_refusals.contains(file);
    }

    void Decide(PeerId id, const std::string& refusal) {
        m_session->Stream().Call([&](Broker& broker) { broker.OnDecision(id, refusal, Clock::now()); });
    }

    void ReceiveReplies() {
        for (;;) {
            const auto reply = m_parts.helper->Receive();
            if (!reply) {
                m_log.Write(kLogFailure, "[host] " + reply.error().text + ": no command runs any more");
                m_replies.reset();
                for (const auto& [number, question] : std::exchange(m_questions, {})) {
                    Decide(question.peer, kCannotAsk);
                }
                return;
            }
            if (!*reply) {
                return;
            }
            Handle(**reply);
        }
    }

    void Handle(const HelperReply& reply) {
        const std::string text(reply.text, strnlen(reply.text, sizeof reply.text));
        if (reply.result == HelperResult::kSaid) {
            m_log.Write(kLogIgnored, "[host] " + text);
            return;
        }
        if (reply.result == HelperResult::kDescribed) {
            const auto peer = m_peers.find(reply.number);
            if (peer != m_peers.end() && !text.empty()) {
                m_log.Write(kLogEvent, SessionText(peer->first) + " is process " +
                                           std::to_string(peer->second.process.pid) + ": " + text);
            }
            return;
        }
        const auto found = m_questions.find(reply.number);
        if (found == m_questions.end()) {
            return;
        }
        const auto [peer, file] = std::move(found->second);
        m_questions.erase(found);
        if (reply.result == HelperResult::kAllowed) {
            Decide(peer, "");
            return;
        }
        m_log.Write(kLogEvent, SessionText(peer) + " is refused: " + text);
        if (reply.result == HelperResult::kNotAsked) {
            Decide(peer, kCannotAsk);
        } else {
            m_refusals[file] = Clock::now() + kRefusalTime;
            Decide(peer, "the owner of this host has not agreed");
        }
    }

    // ExitInstance takes up to half a second. The next peer need not wait for it, unless it closes a camera
    // that the peer may want to open. That is known once Run has returned: the plugin reads nothing more.
    void EndSession() {
        while (!m_peers.empty()) {
            Remove(m_peers.begin()->first, "the host ends");
        }
        m_plugin_ended.reset();
        m_plugin_wakes.reset();
        if (m_session != nullptr && m_ending.size() < kMostEnding && !m_session->EndRun()) {
            Ending& ending = m_ending.emplace_back();
            ending.session = std::move(m_session);
            ending.done =
                m_waiter.Watch(ending.session->Done(), POLLIN, [&ending] { ending.is_done = true; });
        }
        m_session.reset();
        m_session_has_ended = false;
    }

    const HostParts m_parts;
    const PeerLimits m_limits;
    HostLog& m_log;
    Waiter& m_waiter;
    DeviceWatch m_devices{m_waiter};
    std::unique_ptr<Session> m_session;
    bool m_session_has_ended = false;
    std::list<Ending> m_ending;
    Waiter::Registration m_plugin_ended;
    Waiter::Registration m_plugin_wakes;
    std::map<PeerId, Peer> m_peers;
    PeerId m_last_id = 0;
    struct Question {
        PeerId peer;
        std::string file;  // of the camera
    };
    Waiter::Registration m_replies;            // none without a helper
    std::map<uint64_t, Question> m_questions;  // that the helper has not answered, by number
    uint64_t m_last_question = 0;
    std::map<std::string, Clock::time_point> m_refusals;  // their ends, by the camera's file
    std::array<uint8_t, kInputSize> m_input{};
};

class PeerAcceptor {
public:
    PeerAcceptor(const Listener& listener, const ServeLimits& limits, const HostParts& parts)
        : m_listener(listener),
          m_limit(limits.peers),
          m_log(parts.log),
          m_waiter(parts.waiter),
          m_server(parts, limits.each) {}
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

void ServePeers(const Listener& listener, const ServeLimits& limits, const HostParts& parts) {
    PeerAcceptor(listener, limits, parts).Run();
}

Expected<void> ServeOnePeer(std::unique_ptr<PeerStream> stream, const ServeLimits& limits,
                            const HostParts& parts) {
    PeerServer server(parts, limits.each);
    if (!server.EnsureSession()) {
        return Fail(kNothingLeft);
    }
    server.Add(std::move(stream));
    do {
        server.Serve();
    } while (server.Count() != 0 && parts.waiter.Wait(server.NextTime()).has_value());
    return {};
}

}  // namespace zumod::host
