#include "common/unix_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace zumod {

std::string DefaultSocketPath() {
    const char* session =
        std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe): no thread sets variables
    if (session != nullptr && *session == '/') {
        return std::string(session) + "/zu/camera";
    }
    return geteuid() == 0 ? "/run/zu/camera" : "";
}

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

Expected<void> CheckHostUser(int socket, std::optional<uid_t> also) {
    const uid_t user = PeerUser(socket);
    if (user == geteuid() || user == 0 || (also && user == *also)) {
        return {};
    }
    const std::string number = std::to_string(user);
    return Fail("the host belongs to user " + number + "; --host-uid " + number + " allows that");
}

}  // namespace zumod
