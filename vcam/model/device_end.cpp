#include "vcam/model/device_end.h"

#include <poll.h>
#include <sys/socket.h>

#include "vcam/preload/addresses.h"

namespace zumod::vcam {

bool DeviceEnd::Open(const FileIdentity& identity, UniqueFd& program_end) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        return false;
    }
    program_end.Reset(pair[0]);
    fd_.Reset(pair[1]);
    // Fills the way to the camera with bytes nobody reads: the program's end is then never writable, and
    // closing this end with bytes unread is what gives the program's end an error beside the hang-up.
    const int least = 1;
    setsockopt(program_end.Get(), SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    const char filling = 0;
    while (send(program_end.Get(), &filling, 1, MSG_DONTWAIT) == 1) {
    }
    sockaddr_un address{};
    const unsigned length = DescriptorAddress(identity, address);
    return bind(program_end.Get(), reinterpret_cast<const sockaddr*>(&address), length) == 0;
}

void DeviceEnd::Send(const Record& record) const {
    // There is room for far more records than there are buffers; a program that is gone is found out
    // elsewhere.
    send(fd_.Get(), &record, sizeof record, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void DeviceEnd::SendEventMark() const {
    const char mark = 1;
    send(fd_.Get(), &mark, 1, MSG_OOB | MSG_DONTWAIT | MSG_NOSIGNAL);
}

bool DeviceEnd::IsAbandoned() const {
    pollfd state{fd_.Get(), POLLRDHUP, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR | POLLRDHUP)) != 0;
}

}  // namespace zumod::vcam
