#include "host/serve.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include "common/unix_socket.h"
#include "host/session.h"
#include "zumod/runtime.h"

namespace zumod::host {
namespace {

constexpr int kForever = -1;
constexpr int kPauseMilliseconds = 100;

bool IsReadable(int descriptor, int milliseconds) {
    pollfd watched{descriptor, POLLIN, 0};
    return poll(&watched, 1, milliseconds) == 1;
}

// A probe (connect, then close) is already gone.
bool HasLeft(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

class PeerAcceptor {
public:
    PeerAcceptor(const Listener& listener, CameraModule& module, HostLog& log, const StopSignals& signals)
        : m_listener(listener), m_module(module), m_log(log), m_signals(signals) {}

    void Run() {
        for (;;) {
            pollfd watched[] = {{m_signals.Descriptor(), POLLIN, 0},
                                {m_session ? m_session->Done() : -1, POLLIN, 0},
                                {m_listener.Descriptor(), POLLIN, 0}};
            if (poll(watched, 3, kForever) < 0) {
                continue;
            }
            if (watched[0].revents != 0) {
                return;
            }
            if (watched[1].revents != 0) {
                EndSession();
            }
            if (watched[2].revents != 0) {
                AcceptPeer();
            }
        }
    }

private:
    void EndSession() {
        m_session.reset();
        m_log.Write(kLogEvent, "[host] the peer has gone");
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
            SendHostNotice(peer.Get(), "refused: this host serves its own user alone");
            return;
        }
        // The previous peer may have left without the session noticing it yet: the next one need not try
        // twice.
        if (m_session && m_session->PeerHasLeft()) {
            EndSession();
        }
        if (m_session) {
            m_log.Write(kLogIgnored, "[host] sent a second peer away");
            SendHostNotice(peer.Get(), "busy: another peer is being served");
            return;
        }
        m_log.Write(kLogEvent, "[host] a peer has come");
        m_session.emplace(m_module, CRefPtr_T<PeerStream>(new PeerStream(std::move(peer))));
    }

    void OnAcceptFailure(int error) {
        if (error == EAGAIN || error == EINTR || error == ECONNABORTED) {
            return;
        }
        m_log.Write(kLogFailure, "[host] no peer can be taken: " + ErrnoText(error));
        // Most likely no descriptor is left. The peer stays in the queue until the next attempt.
        (void)IsReadable(m_signals.Descriptor(), kPauseMilliseconds);
    }

    const Listener& m_listener;
    CameraModule& m_module;
    HostLog& m_log;
    const StopSignals& m_signals;
    std::optional<Session> m_session;
};

}  // namespace

void ServePeers(const Listener& listener, CameraModule& module, HostLog& log, const StopSignals& signals) {
    PeerAcceptor(listener, module, log, signals).Run();
}

void ServeOnePeer(CRefPtr_T<PeerStream> stream, CameraModule& module, const StopSignals& signals) {
    const Session session(module, std::move(stream));
    pollfd watched[] = {{signals.Descriptor(), POLLIN, 0}, {session.Done(), POLLIN, 0}};
    while (poll(watched, 2, kForever) < 0) {
    }
}

}  // namespace zumod::host
