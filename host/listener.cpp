#include "host/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "host/private_directory.h"

namespace zumod::host {
namespace {

constexpr int kBacklog = 16;
constexpr int kLockAttempts = 50;
constexpr useconds_t kLockPause = 100'000;  // microseconds

std::string ErrnoText() {
    return std::generic_category().message(errno);
}

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

// Held while a socket file is looked at and made or removed: two hosts that start together would otherwise
// both find a dead one, and the second would remove the first one's new one.
UniqueFd LockDirectory(const std::string& directory) {
    UniqueFd lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int attempt = 0; lock && flock(lock.Get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK || attempt == kLockAttempts) {
            return {};
        }
        usleep(kLockPause);
    }
    return lock;
}

UniqueFd NewSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// Removes what a dead host left; false with `error` when it is something else.
bool ClearPlace(const std::string& path, const sockaddr_un& address, std::string& error) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return true;
    }
    if (!S_ISSOCK(status.st_mode)) {
        error = path + ": is there and is not a socket";
        return false;
    }
    const UniqueFd probe = NewSocket();
    const int result = connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result == 0 || errno == EAGAIN) {
        error = path + ": the address is in use, another program listens there";
        return false;
    }
    if (errno != ECONNREFUSED || unlink(path.c_str()) != 0) {
        error = path + ": " + ErrnoText();
        return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<Listener> Listener::Open(const std::string& path, std::string& error) {
    if (path.size() >= sizeof sockaddr_un::sun_path) {
        error = path + ": the path of a socket has at most " +
                std::to_string(sizeof sockaddr_un::sun_path - 1) + " bytes";
        return nullptr;
    }
    const std::string directory = DirectoryOf(path);
    if (!EnsurePrivateDirectory(directory, error)) {
        return nullptr;
    }
    const UniqueFd lock = LockDirectory(directory);
    if (!lock) {
        error = directory + ": the directory cannot be locked: " + ErrnoText();
        return nullptr;
    }
    const sockaddr_un address = AddressOf(path);
    if (!ClearPlace(path, address, error)) {
        return nullptr;
    }
    UniqueFd socket = NewSocket();
    struct stat status {};
    // The file takes its mode from the socket: there is no moment in which it has another.
    if (fchmod(socket.Get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(socket.Get(), kBacklog) != 0 || lstat(path.c_str(), &status) != 0) {
        error = path + ": " + ErrnoText();
        return nullptr;
    }
    return std::unique_ptr<Listener>(
        new Listener(path, std::move(socket), status.st_dev, status.st_ino));  // the constructor is private
}

Listener::~Listener() {
    const UniqueFd lock = LockDirectory(DirectoryOf(m_path));
    struct stat status {};
    if (lock && lstat(m_path.c_str(), &status) == 0 && status.st_dev == m_device &&
        status.st_ino == m_inode) {
        unlink(m_path.c_str());
    }
}

UniqueFd Listener::Accept() const {
    return UniqueFd(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
}

uid_t UserAtTheOtherEnd(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.uid : static_cast<uid_t>(-1);
}

}  // namespace zumod::host
