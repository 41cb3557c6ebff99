#include "host/peer_stream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <utility>

#include "common/process_setup.h"

namespace zumod::host {
namespace {

bool IsSocket(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

// A copy of a standard descriptor.
Expected<UniqueFd> TakeStandard(int descriptor, const std::string& name) {
    if (isatty(descriptor) == 1) {
        return Fail(name + " is a terminal; --stdio needs a program at the other end");
    }
    UniqueFd copy(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!copy) {
        return Fail(name + " is closed");
    }
    return copy;
}

// Also if the other end has closed: then reading and writing return at once.
bool IsReady(int descriptor, short events) {
    pollfd watched{descriptor, events, 0};
    return poll(&watched, 1, 0) == 1;
}

bool IsTemporary(int error) {
    return error == EINTR || error == EAGAIN;
}

}  // namespace

PeerStream::PeerStream(UniqueFd socket) : PeerStream(std::move(socket), UniqueFd()) {}

PeerStream::PeerStream(UniqueFd in, UniqueFd out)
    : m_in(std::move(in)),
      m_out(std::move(out)),
      m_in_is_socket(IsSocket(In())),
      m_out_is_socket(IsSocket(Out())) {}

Expected<std::unique_ptr<PeerStream>> PeerStream::FromStandardStreams() {
    auto in = TakeStandard(STDIN_FILENO, "standard input");
    if (!in) {
        return Fail(in.error());
    }
    auto out = TakeStandard(STDOUT_FILENO, "standard output");
    if (!out) {
        return Fail(out.error());
    }
    close(STDIN_FILENO);
    FillStandardDescriptors();
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return std::make_unique<PeerStream>(std::move(*in), std::move(*out));
}

std::optional<size_t> PeerStream::Receive(std::span<uint8_t> bytes) const {
    if (!m_in_is_socket && !IsReady(In(), POLLIN)) {
        return 0;
    }
    const ssize_t count = m_in_is_socket ? recv(In(), bytes.data(), bytes.size(), MSG_DONTWAIT)
                                         : read(In(), bytes.data(), bytes.size());
    if (count > 0) {
        return static_cast<size_t>(count);
    }
    return count < 0 && IsTemporary(errno) ? std::optional<size_t>(0) : std::nullopt;
}

std::optional<size_t> PeerStream::Send(std::span<const uint8_t> bytes) const {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const auto rest = bytes.subspan(sent);
        if (!m_out_is_socket && !IsReady(Out(), POLLOUT)) {
            break;
        }
        // A pipe that is ready takes PIPE_BUF bytes without blocking, with or without O_NONBLOCK.
        const ssize_t count = m_out_is_socket
                                  ? send(Out(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                                  : write(Out(), rest.data(), std::min<size_t>(rest.size(), PIPE_BUF));
        if (count < 0) {
            if (!IsTemporary(errno)) {
                return std::nullopt;
            }
            break;
        }
        sent += static_cast<size_t>(count);
    }
    return sent;
}

bool PeerStream::IsHungUp() const {
    pollfd watched{In(), 0, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & (POLLHUP | POLLERR)) != 0;
}

}  // namespace zumod::host
