// A host played by the test: a Unix socket where it accepts a peer, compares the peer's requests byte by byte
// and sends any bytes.
//
// Thread rule: one thread at a time. Every wait has a deadline; a wait that exceeds it is a failure of the
// test.
#pragma once

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

class ScriptedHost {
public:
    explicit ScriptedHost(const std::string& path) : m_listener(NewUnixSocket()) {
        const auto address = UnixAddress::FromPath(path);
        EXPECT_TRUE(address && address->Bind(m_listener) == 0) << path;
        EXPECT_EQ(listen(m_listener.Get(), 4), 0);
    }

    void Accept() {
        ASSERT_TRUE(IsReady(m_listener.Get(), POLLIN)) << "no peer connects";
        m_peer.Reset(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    // The same, and drops list requests before it: a peer sends them while no frame arrives.
    void ExpectAfterLists(const Bytes& request) {
        Bytes header(8);
        while (IsReady(m_peer.Get(), POLLIN) &&
               recv(m_peer.Get(), header.data(), header.size(), MSG_PEEK | MSG_DONTWAIT) == 8 &&
               header == kGetListBytes) {
            Expect(kGetListBytes);
        }
        Expect(request);
    }

    // Receives as many bytes as the request has, and compares them.
    void Expect(const Bytes& request) {
        Bytes received;
        while (received.size() < request.size()) {
            Bytes more(request.size() - received.size());
            ASSERT_TRUE(IsReady(m_peer.Get(), POLLIN)) << "no request";
            const ssize_t count = recv(m_peer.Get(), more.data(), more.size(), 0);
            ASSERT_GT(count, 0) << "the peer has closed";
            received.insert(received.end(), more.begin(), more.begin() + count);
        }
        EXPECT_EQ(received, request);
    }

    // Returns whether the peer accepted all bytes.
    bool Send(const Bytes& bytes) {
        size_t sent = 0;
        while (sent < bytes.size() && IsReady(m_peer.Get(), POLLOUT)) {
            const ssize_t count =
                send(m_peer.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0) {
                return false;
            }
            sent += static_cast<size_t>(count);
        }
        return sent == bytes.size();
    }

    // Whether the peer has read everything that was sent.
    bool AllTaken() const {
        int waiting = 0;
        return ioctl(m_peer.Get(), SIOCOUTQ, &waiting) == 0 && waiting == 0;
    }

    void Close() { m_peer.Reset(); }

    // Waits until the peer has closed; ignores what it sends before.
    void ExpectClosed() {
        Bytes passed_over(4096);
        for (;;) {
            ASSERT_TRUE(IsReady(m_peer.Get(), POLLIN)) << "the peer has not closed";
            if (recv(m_peer.Get(), passed_over.data(), passed_over.size(), 0) <= 0) {
                return;
            }
        }
    }

private:
    static bool IsReady(int descriptor, short events) {
        constexpr int kDeadlineMilliseconds = 30'000;
        pollfd wait{descriptor, events, 0};
        return poll(&wait, 1, kDeadlineMilliseconds) == 1;
    }

    UniqueFd m_listener;
    UniqueFd m_peer;
};

}  // namespace zumod::testing
