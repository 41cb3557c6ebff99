// The byte stream to one peer: a socket, or a pair of pipes.
//
// Thread rule: Read is called by one thread at a time; Write and End by any thread.
#pragma once

#include <atomic>

#include "common/error.h"
#include "common/mutex.h"
#include "common/unique_fd.h"
#include "zumod/channel_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// Read and Write block, as IChannelStream requires, so each waits in poll() by itself. Every such wait also
// waits for the stream's end: End makes all current and later calls fail, and a peer that is stuck blocks no
// thread. The flags of the descriptors stay unchanged, because other programs may share a pipe.
class PeerStream final : public CCounted_T<IChannelStream> {
public:
    // Both directions on one socket.
    explicit PeerStream(UniqueFd socket);
    PeerStream(UniqueFd in, UniqueFd out);
    ~PeerStream() override = default;

    // [main thread, before any other thread starts]. Takes standard input and output for the stream. From
    // here on stdout is redirected to stderr, so stray output from libraries cannot corrupt the channel.
    // Fails if either is closed or a terminal.
    static Expected<CRefPtr_T<PeerStream>> FromStandardStreams();

    int Read(void* data, unsigned long size, unsigned long* done) override;
    // Writes all bytes, or fails and ends the stream: nothing may follow a part of a message.
    int Write(const void* data, unsigned long size, unsigned long* done) override;

    void End();

    // Whether the peer has closed, as far as that can be seen without reading.
    bool IsHungUp() const;

private:
    int In() const { return m_in.Get(); }
    int Out() const { return m_out ? m_out.Get() : m_in.Get(); }
    // Waits until the descriptor is ready; false if the stream ends first.
    bool WaitFor(int descriptor, short events) const;
    bool WriteAll(const char* bytes, unsigned long size) ZU_REQUIRES(m_write_mutex);

    const UniqueFd m_in;
    const UniqueFd m_out;  // none: the same as m_in
    const bool m_in_is_socket;
    const bool m_out_is_socket;
    const UniqueFd m_end;  // an eventfd; readable once the stream has ended
    // Set by End on any thread, read by Read and Write; nothing else depends on it.
    std::atomic<bool> m_ended{false};
    Mutex m_write_mutex;  // keeps the bytes of one Write together
};

}  // namespace zumod::host
