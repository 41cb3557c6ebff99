#include "host/serve.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "host/host_notice.h"
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

// Whoever only looked whether somebody listens has closed again without a word.
bool HasLeft(int socket) {
    char byte = 0;
    return recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

class Reception {
public:
    Reception(const Listener& listener, CameraModule& module, HostLog& log, int signals)
        : m_listener(listener), m_module(module), m_log(log), m_signals(signals) {}

    void Loop() {
        for (;;) {
            pollfd watched[] = {{m_signals, POLLIN, 0},
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
                Welcome();
            }
        }
    }

private:
    void EndSession() {
        m_session.reset();
        m_log.Write(kLogEvent, "[host] the peer has gone");
    }

    void Welcome() {
        UniqueFd peer = m_listener.Accept();
        if (!peer) {
            if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                m_log.Write(kLogFailure,
                            "[host] no peer can be taken: " + std::generic_category().message(errno));
                // Most likely there are no descriptors left; the peer waits, and so does the next try.
                (void)IsReadable(m_signals, kPauseMilliseconds);
            }
            return;
        }
        if (HasLeft(peer.Get())) {
            return;
        }
        if (const uid_t user = UserAtTheOtherEnd(peer.Get()); user != geteuid()) {
            m_log.Write(kLogIgnored, "[host] refused a peer of user " + std::to_string(user));
            SendHostNotice(peer.Get(), "refused: this host serves its own user alone");
            return;
        }
        // A peer that left before this one came must not make it wait for another try.
        if (m_session && m_session->PeerIsGone()) {
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

    const Listener& m_listener;
    CameraModule& m_module;
    HostLog& m_log;
    const int m_signals;
    std::optional<Session> m_session;
};

}  // namespace

void ServePeers(const Listener& listener, CameraModule& module, HostLog& log, int signals) {
    Reception(listener, module, log, signals).Loop();
}

void ServeOnePeer(CRefPtr_T<PeerStream> stream, CameraModule& module, int signals) {
    const Session session(module, std::move(stream));
    pollfd watched[] = {{signals, POLLIN, 0}, {session.Done(), POLLIN, 0}};
    while (poll(watched, 2, kForever) < 0) {
    }
}

}  // namespace zumod::host
