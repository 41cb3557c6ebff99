// The peer's end of a camera channel, for tests of a host.
//
// Thread rule: one thread at a time. Every wait has a deadline; a wait that exceeds it is a failure of the
// test.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "common/unix_socket.h"
#include "tests/support/watch/wait_until.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod::testing {

struct PeerMessage {
    uint8_t type = 0;
    Bytes body;
};

class PeerClient {
public:
    // One socket, or a pipe for each direction.
    explicit PeerClient(UniqueFd socket) : m_in(std::move(socket)) {}
    PeerClient(UniqueFd in, UniqueFd out) : m_in(std::move(in)), m_out(std::move(out)) {}

    // Connected to the Unix socket at this path, once a host listens there.
    static PeerClient ConnectTo(const std::string& path) {
        const auto address = UnixAddress::FromPath(path);
        UniqueFd connected;
        EXPECT_TRUE(address && WaitUntil([&] {
                        connected = NewUnixSocket();
                        return address->Connect(connected) == 0;
                    }))
            << "no host listens at " << path;
        return PeerClient(std::move(connected));
    }

    int Descriptor() const { return m_in.Get(); }

    // Returns whether all bytes were sent.
    bool Send(const Bytes& bytes) const {
        const int out = m_out ? m_out.Get() : m_in.Get();
        const ssize_t count = m_out ? write(out, bytes.data(), bytes.size())
                                    : send(out, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return count == static_cast<ssize_t>(bytes.size());
    }

    // Ends both directions.
    void Hang() const { shutdown(m_in.Get(), SHUT_RDWR); }

    // The next message; none if the other end has closed.
    std::optional<PeerMessage> Receive() const {
        uint8_t header[8];
        if (!ReceiveAll(header, sizeof header)) {
            return std::nullopt;
        }
        EXPECT_EQ(header[5] | header[6] | header[7], 0) << "reserved bytes";
        uint32_t length = 0;
        std::memcpy(&length, header, sizeof length);
        PeerMessage message{header[4], Bytes(length)};
        if (!ReceiveAll(message.body.data(), length)) {
            return std::nullopt;
        }
        return message;
    }

    // The next message of this type. Skips others.
    std::optional<PeerMessage> ReceiveType(uint8_t type) const {
        for (;;) {
            auto message = Receive();
            if (!message || message->type == type) {
                return message;
            }
        }
    }

    // Skips frames. Returns whether the other end closes before it sends any other message.
    bool IsClosed() const {
        for (;;) {
            const auto message = Receive();
            if (!message) {
                return true;
            }
            if (message->type != 7) {
                return false;
            }
        }
    }

    // The next bytes, of any message. Fails the test if the other end has closed.
    Bytes ReceiveBytes(size_t size) const {
        Bytes bytes(size);
        EXPECT_TRUE(ReceiveAll(bytes.data(), size)) << "the channel was closed";
        return bytes;
    }
    // Skips this many bytes. Returns false at the end of the channel.
    bool Skip(size_t size) const {
        Bytes bytes(size);
        return ReceiveAll(bytes.data(), size);
    }

private:
    bool ReceiveAll(uint8_t* bytes, size_t size) const {
        constexpr int kDeadlineMilliseconds = 30'000;
        while (size != 0) {
            pollfd watched{m_in.Get(), POLLIN, 0};
            if (poll(&watched, 1, kDeadlineMilliseconds) != 1) {
                ADD_FAILURE() << "nothing was received in time";
                return false;
            }
            const ssize_t count = read(m_in.Get(), bytes, size);
            if (count <= 0) {
                return false;
            }
            bytes += count;
            size -= static_cast<size_t>(count);
        }
        return true;
    }

    UniqueFd m_in;
    UniqueFd m_out;  // if none, m_in is used for both directions
};

}  // namespace zumod::testing
