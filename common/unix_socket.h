// Unix stream sockets: addresses and the user at the other end.
//
// Thread rule: values and system calls; any thread.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

#include <optional>
#include <string>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod {

// The longest path of a socket, in bytes.
inline constexpr size_t kUnixPathLimit = sizeof(sockaddr_un::sun_path) - 1;

// Where a host listens unless a path is given: zu/camera in the directory of the user's session, or in /run
// for root without a session. Empty if there is no such directory.
std::string DefaultSocketPath();

class UnixAddress {
public:
    // Nothing if the path is longer than kUnixPathLimit.
    static std::optional<UnixAddress> FromPath(const std::string& path);

    // As connect(2) and bind(2): 0, or -1 with errno.
    int Connect(const UniqueFd& socket) const;
    int Bind(const UniqueFd& socket) const;

private:
    UnixAddress() = default;

    sockaddr_un m_address{};
};

// A new stream socket, closed on exec. `flags` may be SOCK_NONBLOCK. None, with errno, if there is no
// descriptor left.
UniqueFd NewUnixSocket(int flags = 0);

// The effective user of the process that connected to, or listens at, the other end; -1 if it is not known.
uid_t PeerUser(int socket);

// Checks that the program that listens at the other end belongs to this user or root, or to `also`. Others
// could have put their socket in the place of the host's.
Expected<void> CheckHostUser(int socket, std::optional<uid_t> also);

}  // namespace zumod
