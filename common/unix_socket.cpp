#include "common/unix_socket.h"

#include <sys/socket.h>

#include <algorithm>

namespace zumod {

std::optional<UnixAddress> UnixAddress::FromPath(const std::string& path) {
    if (path.size() > kUnixPathLimit) {
        return std::nullopt;
    }
    UnixAddress result;
    result.m_address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), result.m_address.sun_path);
    return result;
}

int UnixAddress::Connect(const UniqueFd& socket) const {
    return connect(socket.Get(), reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address);
}

int UnixAddress::Bind(const UniqueFd& socket) const {
    return bind(socket.Get(), reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address);
}

UniqueFd NewUnixSocket(int flags) {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

uid_t PeerUser(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

}  // namespace zumod
