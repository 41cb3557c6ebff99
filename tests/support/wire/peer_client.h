// The peer's end of a camera channel, bytes by hand: what a test of a host speaks.
//
// Thread rule: one thread at a time. Every wait has a deadline; past it, a failure is recorded.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_fd.h"
#include "tests/support/watch/wait_until.h"

namespace zumod::testing {

struct PeerMessage {
    uint8_t type = 0;
    std::vector<uint8_t> body;
};

class PeerClient {
public:
    using Bytes = std::vector<uint8_t>;

    // One socket, or a pipe for each direction.
    explicit PeerClient(UniqueFd socket) : m_in(std::move(socket)) {}
    PeerClient(UniqueFd in, UniqueFd out) : m_in(std::move(in)), m_out(std::move(out)) {}

    // Connected to the Unix socket of this path, once somebody listens there.
    static PeerClient ConnectTo(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        UniqueFd connected;
        EXPECT_TRUE(WaitUntil([&] {
            connected.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            return connect(connected.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        })) << "nobody listens at "
            << path;
        return PeerClient(std::move(connected));
    }

    int Descriptor() const { return m_in.Get(); }

    // Whether all of it went out.
    bool Send(const Bytes& bytes) const {
        const int out = m_out ? m_out.Get() : m_in.Get();
        const ssize_t count = m_out ? write(out, bytes.data(), bytes.size())
                                    : send(out, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return count == static_cast<ssize_t>(bytes.size());
    }

    // The next message, or nothing when the other end has closed.
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

    // The next message of this type; frames and notices of others before it are passed over.
    std::optional<PeerMessage> ReceiveType(uint8_t type) const {
        for (;;) {
            auto message = Receive();
            if (!message || message->type == type) {
                return message;
            }
        }
    }

    // Whether the other end closes without another message, frames apart.
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

    // Passes over so many bytes; false at the end of the channel.
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
                ADD_FAILURE() << "nothing came in time";
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
    UniqueFd m_out;  // none: the same as m_in
};

}  // namespace zumod::testing
