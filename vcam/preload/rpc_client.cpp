#include "vcam/preload/rpc_client.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>

#include "vcam/preload/addresses.h"
#include "vcam/preload/raw_system.h"

namespace zumod::vcam {
namespace {

template <class Call>
long RetryOnInterrupt(Call call) {
    long result = 0;
    do {
        result = call();
    } while (result == -EINTR);
    return result;
}

// Anybody can listen at an abstract address that is free. So only a server of the same user, or of the
// administrator, is believed.
bool IsServerTrusted(long socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (RawCall(SYS_getsockopt, socket, SOL_SOCKET, SO_PEERCRED, Word(&peer), Word(&size)) != 0) {
        return false;
    }
    return peer.uid == 0 || static_cast<long>(peer.uid) == RawCall(SYS_geteuid);
}

int TakeDescriptor(const msghdr& message) {
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
        return -1;
    }
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return fd;
}

int Exchange(int socket, const Request& request, const iovec* parts, int part_count, Reply& reply, int* fd,
             bool close_on_exec) {
    iovec all[1 + kMaxRequestParts];
    all[0] = {const_cast<Request*>(&request), sizeof request};
    for (int i = 0; i < part_count; ++i) {
        all[i + 1] = parts[i];
    }
    msghdr message{};
    message.msg_iov = all;
    message.msg_iovlen = static_cast<size_t>(part_count) + 1;
    const long sent =
        RetryOnInterrupt([&] { return RawCall(SYS_sendmsg, socket, Word(&message), MSG_NOSIGNAL); });
    if (sent < 0) {
        return sent == -EFAULT ? EFAULT : ENODEV;
    }
    all[0] = {&reply, sizeof reply};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const int flags = close_on_exec ? MSG_CMSG_CLOEXEC : 0;
    const long received =
        RetryOnInterrupt([&] { return RawCall(SYS_recvmsg, socket, Word(&message), flags); });
    if (received < static_cast<long>(sizeof reply)) {
        return received == -EFAULT ? EFAULT : ENODEV;
    }
    const int passed = TakeDescriptor(message);
    if (fd != nullptr) {
        *fd = passed;
    } else if (passed >= 0) {
        RawClose(passed);
    }
    return 0;
}

int CallForFile(void* context, const Request& request, const iovec* parts, int part_count, Reply& reply,
                int* fd) {
    return CallServer(static_cast<const char*>(context), request, parts, part_count, reply, fd);
}

}  // namespace

int ConnectServer(const char* server_name) {
    const long socket = RawCall(SYS_socket, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return static_cast<int>(socket);
    }
    sockaddr_un address;
    const unsigned length = ServerAddress(server_name, address);
    const long result = RetryOnInterrupt(
        [&] { return RawCall(SYS_connect, socket, Word(&address), static_cast<long>(length)); });
    if (result < 0 || !IsServerTrusted(socket)) {
        RawClose(static_cast<int>(socket));
        return result < 0 ? -ENODEV : -EACCES;
    }
    return static_cast<int>(socket);
}

int CallServer(const char* server_name, const Request& request, const iovec* parts, int part_count,
               Reply& reply, int* fd, bool close_on_exec) {
    if (fd != nullptr) {
        *fd = -1;
    }
    const int socket = ConnectServer(server_name);
    if (socket < 0) {
        return -socket;
    }
    const int failure = Exchange(socket, request, parts, part_count, reply, fd, close_on_exec);
    RawClose(socket);
    return failure;
}

Channel ServerChannel(const FileIdentity& identity) {
    return {const_cast<char*>(identity.server), &CallForFile};
}

}  // namespace zumod::vcam
