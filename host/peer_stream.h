// The connection to one peer: a socket, or a pair of pipes. No operation waits.
//
// Thread rule: main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod::host {

// The flags of the descriptors stay unchanged, because other programs may share a pipe.
class PeerStream {
public:
    // Both directions on one socket.
    explicit PeerStream(UniqueFd socket);
    PeerStream(UniqueFd in, UniqueFd out);
    PeerStream(const PeerStream&) = delete;
    PeerStream& operator=(const PeerStream&) = delete;

    // [main thread, before any other thread starts]. Takes standard input and output for the stream. From
    // here on stdout is redirected to stderr, so stray output from libraries cannot corrupt the channel.
    // Fails if either is closed or a terminal.
    static Expected<std::unique_ptr<PeerStream>> FromStandardStreams();

    // To wait for; the same for a socket.
    int In() const { return m_in.Get(); }
    int Out() const { return m_out ? m_out.Get() : m_in.Get(); }

    // The number of bytes that were received, 0 if there are none now, or nothing if there will be none any
    // more.
    std::optional<size_t> Receive(std::span<uint8_t> bytes) const;
    // The number of bytes that were sent, 0 if none can be sent now, or nothing if none will be any more.
    std::optional<size_t> Send(std::span<const uint8_t> bytes) const;

    bool InIsSocket() const { return m_in_is_socket; }
    // Whether the peer has closed, as far as that can be seen without reading. Of a pipe: its input.
    bool IsHungUp() const;

private:
    const UniqueFd m_in;
    const UniqueFd m_out;  // none: the same as m_in
    const bool m_in_is_socket;
    const bool m_out_is_socket;
};

}  // namespace zumod::host
