// The byte stream to one peer: a socket, or a pair of pipes.
//
// Thread rule: Read belongs to one thread; Write and End are [any thread].
#pragma once

#include <atomic>
#include <mutex>

#include "common/unique_fd.h"
#include "zumod/channel_stream.h"

namespace zumod::host {

// Every wait on the peer also waits for the stream's own end, so that a peer that is stuck holds nobody: End
// makes a Read and a Write that wait, and all later ones, fail. The descriptors' flags are left as they are,
// because a pipe may be shared with other programs.
class PeerStream final : public IChannelStream, private CReference {
public:
    // Both directions on one socket.
    explicit PeerStream(UniqueFd socket);
    PeerStream(UniqueFd in, UniqueFd out);
    ~PeerStream() override = default;

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    int Read(void* data, unsigned long size, unsigned long* done) override;
    // Writes all of it, or fails and ends the stream: after part of a message nothing may follow.
    int Write(const void* data, unsigned long size, unsigned long* done) override;

    void End();

    // Whether nobody is at the other end any more, as far as that can be seen without reading.
    bool IsHungUp() const;

private:
    int In() const { return m_in.Get(); }
    int Out() const { return m_out ? m_out.Get() : m_in.Get(); }
    // Whether the descriptor is ready, before the stream has ended.
    bool WaitFor(int descriptor, short events) const;
    bool WriteAll(const char* bytes, unsigned long size);

    const UniqueFd m_in;
    const UniqueFd m_out;  // none: the same as m_in
    const bool m_in_is_socket;
    const bool m_out_is_socket;
    const UniqueFd m_end;  // becomes readable with the end, for good
    // Set by End on any thread, read by Read and Write; nothing else depends on it.
    std::atomic<bool> m_ended{false};
    std::mutex m_write_mutex;  // keeps the bytes of one Write together
};

}  // namespace zumod::host
