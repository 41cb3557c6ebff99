// A channel stream over one end of a socket pair, as a host implements it.
//
// Thread rule: Read and Write are [any thread], also at the same time.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include "zumod/channel_stream.h"

namespace zumod::testing {

class SocketStream final : public CCounted_T<IChannelStream> {
public:
    // Owns the descriptor.
    explicit SocketStream(int fd) : m_fd(fd) {}
    ~SocketStream() override { close(m_fd); }

    int Read(void* data, unsigned long size, unsigned long* done) override {
        return Finish(recv(m_fd, data, size, 0), done);
    }
    int Write(const void* data, unsigned long size, unsigned long* done) override {
        return Finish(send(m_fd, data, size, MSG_NOSIGNAL), done);
    }

private:
    static int Finish(ssize_t count, unsigned long* done) {
        if (count <= 0) {
            return -1;
        }
        *done = static_cast<unsigned long>(count);
        return 0;
    }

    const int m_fd;
};

}  // namespace zumod::testing
