#include "host/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

#include "common/parse_number.h"
#include "common/unix_socket.h"
#include "host/socket_directory.h"
#include "zumod/camera_channel.h"

namespace zumod::host {
namespace {

constexpr int kBacklog = 16;
constexpr int kLockAttempts = 50;
constexpr useconds_t kLockPause = 100'000;  // microseconds

// The directory, "." if the path has none.
std::string DirectoryOf(const std::filesystem::path& path) {
    return path.has_parent_path() ? path.parent_path().string() : ".";
}

// The socket in the open directory, for the calls that take no directory's descriptor.
std::optional<UnixAddress> AddressIn(const UniqueFd& directory, const std::string& name) {
    return UnixAddress::FromPath("/proc/self/fd/" + std::to_string(directory.Get()) + "/" + name);
}

bool Lock(const UniqueFd& file) {
    for (int attempt = 0; flock(file.Get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
        if (errno != EWOULDBLOCK || attempt == kLockAttempts) {
            return false;
        }
        usleep(kLockPause);
    }
    return true;
}

// Removes the socket file of a dead host. Fails if something else is there; `path` is its path for the error.
Expected<void> RemoveDeadSocket(const UniqueFd& directory, const std::string& name,
                                const UnixAddress& address, const std::string& path) {
    struct stat status {};
    if (fstatat(directory.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return {};
    }
    if (!S_ISSOCK(status.st_mode)) {
        return Fail(path + ": is there and is not a socket");
    }
    const UniqueFd probe = NewUnixSocket(SOCK_NONBLOCK);
    const int result = address.Connect(probe);
    if (result == 0 || errno == EAGAIN) {
        return Fail(path + ": the address is in use, another program listens there");
    }
    if (errno != ECONNREFUSED || unlinkat(directory.Get(), name.c_str(), 0) != 0) {
        return Fail(path + ": " + ErrnoText(errno));
    }
    return {};
}

std::string TextMessage(MessageType type, const std::string& text) {
    size_t length = text.size();
    if (length > kHostNoticeLimit) {
        length = kHostNoticeLimit;
        // Back to the first byte of the character at the limit.
        while (length != 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
            --length;
        }
    }
    std::string message(sizeof(_MESSAGE_HEADER), '\0');
    WriteHeader(reinterpret_cast<uint8_t*>(message.data()), type, static_cast<uint32_t>(length));
    return message.append(text, 0, length);
}

}  // namespace

Expected<std::unique_ptr<Listener>> Listener::Open(const std::string& path) {
    if (!UnixAddress::FromPath(path)) {
        return Fail(path + ": the path of a socket has at most " + std::to_string(kUnixPathLimit) + " bytes");
    }
    const std::string name = std::filesystem::path(path).filename().string();
    if (name.empty() || name == "." || name == "..") {
        return Fail(path + ": is the path of a directory; add a name for the socket");
    }
    auto directory = OpenPrivateDirectory(DirectoryOf(path));
    if (!directory) {
        return Fail(directory.error());
    }
    const auto address = AddressIn(*directory, name);
    if (!address) {
        return Fail(path + ": the name of the socket is too long");
    }
    UniqueFd lock(openat(directory->Get(), (name + ".lock").c_str(),
                         O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!lock || !Lock(lock)) {
        return Fail(path + ".lock: the socket cannot be locked: " + ErrnoText(errno));
    }
    if (const auto result = RemoveDeadSocket(*directory, name, *address, path); !result) {
        return Fail(result.error());
    }
    UniqueFd socket = NewUnixSocket(SOCK_NONBLOCK);
    struct stat status {};
    // The file gets its mode from the socket, so it never has another one.
    if (fchmod(socket.Get(), S_IRUSR | S_IWUSR) != 0 || address->Bind(socket) != 0 ||
        listen(socket.Get(), kBacklog) != 0 ||
        fstatat(directory->Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return Fail(path + ": " + ErrnoText(errno));
    }
    flock(lock.Get(), LOCK_UN);
    return std::unique_ptr<Listener>(  // the constructor is private
        new Listener(std::move(*directory), name, std::move(lock), std::move(socket),
                     {status.st_dev, status.st_ino}));
}

Expected<std::unique_ptr<Listener>> Listener::FromServiceManager() {
    const char* const process = std::getenv("LISTEN_PID");  // NOLINT(concurrency-mt-unsafe): the only thread
    if (process == nullptr || ParseNumber<pid_t>(process) != getpid()) {
        return nullptr;
    }
    const char* const count = std::getenv("LISTEN_FDS");  // NOLINT(concurrency-mt-unsafe): as above
    if (count == nullptr || std::string_view(count) != "1") {
        return Fail("the service manager must pass one socket (LISTEN_FDS=1)");
    }
    constexpr int kFirstPassed = 3;
    const auto option = [](int name) {
        int value = -1;
        socklen_t size = sizeof value;
        return getsockopt(kFirstPassed, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
    };
    if (option(SO_DOMAIN) != AF_UNIX || option(SO_TYPE) != SOCK_STREAM || option(SO_ACCEPTCONN) != 1) {
        return Fail("descriptor 3 from the service manager is not a Unix stream socket that listens");
    }
    UniqueFd socket(kFirstPassed);
    if (fcntl(socket.Get(), F_SETFD, FD_CLOEXEC) != 0 ||
        fcntl(socket.Get(), F_SETFL, fcntl(socket.Get(), F_GETFL) | O_NONBLOCK) != 0) {
        return Fail("the socket from the service manager: " + ErrnoText(errno));
    }
    return std::unique_ptr<Listener>(  // the constructor is private
        new Listener(UniqueFd(), "", UniqueFd(), std::move(socket), {}));
}

Listener::~Listener() {
    if (!m_lock) {
        return;
    }
    struct stat status {};
    if (Lock(m_lock) && fstatat(m_directory.Get(), m_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        std::pair(status.st_dev, status.st_ino) == m_file) {
        unlinkat(m_directory.Get(), m_name.c_str(), 0);
    }
}

UniqueFd Listener::Accept() const {
    return UniqueFd(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
}

std::string HostNotice(const std::string& text) {
    return TextMessage(kHostNotice, text);
}

std::string HostInformation(const std::string& text) {
    return TextMessage(kHostInformation, text);
}

void SendHostNotice(int socket, const std::string& text) {
    const std::string message = HostNotice(text);
    // A peer that has gone misses nothing.
    [[maybe_unused]] const ssize_t count =
        send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace zumod::host
