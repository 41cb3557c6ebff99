#include "vcam/model/open_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "vcam/preload/addresses.h"

namespace zumod::vcam {
namespace {

// Fills the socket towards the camera with bytes that are never read: the program's half is then never
// writable, and closing the camera's half with unread bytes in it makes the kernel report an error beside
// the hang-up.
void FillSocket(int program_end) {
    const int least = 1;
    setsockopt(program_end, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    const char filling = 0;
    while (send(program_end, &filling, 1, MSG_DONTWAIT) == 1) {
    }
}

}  // namespace

bool OpenFile::Open(const FileIdentity& identity, UniqueFd& program_end) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        return false;
    }
    program_end.Reset(pair[0]);
    m_fd.Reset(pair[1]);
    m_id = identity.file;
    m_flags = identity.flags;
    FillSocket(program_end.Get());
    sockaddr_un address{};
    const unsigned length = DescriptorAddress(identity, address);
    if (bind(program_end.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        return false;
    }
    const int status = fcntl(program_end.Get(), F_GETFL);
    fcntl(program_end.Get(), F_SETFL, status | static_cast<int>(m_flags & O_NONBLOCK));
    return true;
}

bool OpenFile::IsReadOnly() const {
    return (m_flags & O_ACCMODE) == O_RDONLY;
}

bool OpenFile::IsAbandoned() const {
    pollfd state{m_fd.Get(), POLLRDHUP, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR | POLLRDHUP)) != 0;
}

void OpenFile::Send(const Record& record) const {
    // The socket's buffer holds far more records than there are buffers. A failure means that the program is
    // gone; IsAbandoned reports that.
    send(m_fd.Get(), &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void OpenFile::SendMark() const {
    Record record{};
    record.magic = kWireMagic;
    record.kind = RecordKind::kMark;
    Send(record);
}

void OpenFile::SendEventMark() const {
    const char mark = 1;
    send(m_fd.Get(), &mark, 1, MSG_OOB | MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace zumod::vcam
