#include "host/peer_stream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
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

constexpr int kFailed = -1;

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

bool IsTemporary(int error) {
    return error == EINTR || error == EAGAIN;
}

}  // namespace

PeerStream::PeerStream(UniqueFd socket) : PeerStream(std::move(socket), UniqueFd()) {}

PeerStream::PeerStream(UniqueFd in, UniqueFd out)
    : m_in(std::move(in)),
      m_out(std::move(out)),
      m_in_is_socket(IsSocket(In())),
      m_out_is_socket(IsSocket(Out())),
      m_end(eventfd(0, EFD_CLOEXEC)) {}

Expected<CRefPtr_T<PeerStream>> PeerStream::FromStandardStreams() {
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
    return CRefPtr_T<PeerStream>(new PeerStream(std::move(*in), std::move(*out)));
}

int PeerStream::Read(void* data, unsigned long size, unsigned long* done) {
    // A socket is tried first; only an empty one is waited for.
    for (bool wait = !m_in_is_socket; !m_ended.load() && (!wait || WaitFor(In(), POLLIN)); wait = true) {
        const ssize_t count = m_in_is_socket ? recv(In(), data, size, MSG_DONTWAIT) : read(In(), data, size);
        if (count > 0) {
            *done = static_cast<unsigned long>(count);
            return 0;
        }
        if (count == 0 || !IsTemporary(errno)) {
            break;
        }
    }
    return kFailed;
}

int PeerStream::Write(const void* data, unsigned long size, unsigned long* done) {
    const MutexLock lock(m_write_mutex);
    if (!WriteAll(static_cast<const char*>(data), size)) {
        End();
        return kFailed;
    }
    *done = size;
    return 0;
}

bool PeerStream::WriteAll(const char* bytes, unsigned long size) {
    bool wait = !m_out_is_socket;
    while (size != 0) {
        if (m_ended.load() || (wait && !WaitFor(Out(), POLLOUT))) {
            return false;
        }
        // A pipe that is ready takes PIPE_BUF bytes without blocking, with or without O_NONBLOCK.
        const ssize_t count = m_out_is_socket ? send(Out(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                              : write(Out(), bytes, std::min<unsigned long>(size, PIPE_BUF));
        if (count < 0 && !IsTemporary(errno)) {
            return false;
        }
        wait = !m_out_is_socket || count < 0;
        const auto written = static_cast<unsigned long>(std::max<ssize_t>(count, 0));
        bytes += written;
        size -= written;
    }
    return true;
}

void PeerStream::End() {
    m_ended.store(true);
    eventfd_write(m_end.Get(), 1);
}

bool PeerStream::IsHungUp() const {
    pollfd watched{In(), 0, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & (POLLHUP | POLLERR)) != 0;
}

bool PeerStream::WaitFor(int descriptor, short events) const {
    pollfd watched[] = {{descriptor, events, 0}, {m_end.Get(), POLLIN, 0}};
    while (poll(watched, 2, -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return watched[1].revents == 0;
}

}  // namespace zumod::host
