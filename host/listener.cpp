#include "host/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "common/unix_socket.h"
#include "zumod/camera_channel.h"

namespace zumod::host {
namespace {

constexpr int kBacklog = 16;
constexpr int kLockAttempts = 50;
constexpr useconds_t kLockPause = 100'000;  // microseconds

std::string DirectoryOf(const std::string& path) {
    const std::string directory = std::filesystem::path(path).parent_path().string();
    return directory.empty() ? "." : directory;
}

// Held while a socket file is examined and created or removed. Without it, two hosts that start together
// could both find a dead socket, and the second would remove the new socket of the first.
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

// Removes the socket file of a dead host. Fails if something else is there.
Expected<void> RemoveDeadSocket(const std::string& path, const UnixAddress& address) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
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
    if (errno != ECONNREFUSED || unlink(path.c_str()) != 0) {
        return Fail(path + ": " + ErrnoText(errno));
    }
    return {};
}

}  // namespace

Expected<std::unique_ptr<Listener>> Listener::Open(const std::string& path) {
    const auto address = UnixAddress::FromPath(path);
    if (!address) {
        return Fail(path + ": the path of a socket has at most " + std::to_string(kUnixPathLimit) + " bytes");
    }
    const std::string directory = DirectoryOf(path);
    if (const auto result = EnsurePrivateDirectory(directory); !result) {
        return Fail(result.error());
    }
    const UniqueFd lock = LockDirectory(directory);
    if (!lock) {
        return Fail(directory + ": the directory cannot be locked: " + ErrnoText(errno));
    }
    if (const auto result = RemoveDeadSocket(path, *address); !result) {
        return Fail(result.error());
    }
    UniqueFd socket = NewUnixSocket(SOCK_NONBLOCK);
    struct stat status {};
    // The file gets its mode from the socket, so it never has another one.
    if (fchmod(socket.Get(), S_IRUSR | S_IWUSR) != 0 || address->Bind(socket) != 0 ||
        listen(socket.Get(), kBacklog) != 0 || lstat(path.c_str(), &status) != 0) {
        return Fail(path + ": " + ErrnoText(errno));
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

Expected<void> EnsurePrivateDirectory(const std::string& directory) {
    if (mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        return Fail(directory + ": the directory cannot be created: " + ErrnoText(errno));
    }
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        return Fail(directory + ": " + ErrnoText(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        return Fail(directory + ": is not a directory");
    }
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        return Fail(directory + ": the directory belongs to another user");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return Fail(
            directory +
            ": others may write to the directory; choose one that only you may write to (chmod go-w)");
    }
    return {};
}

std::string HostNotice(const std::string& text) {
    size_t length = text.size();
    if (length > kHostNoticeLimit) {
        length = kHostNoticeLimit;
        // Back to the first byte of the character at the limit.
        while (length != 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
            --length;
        }
    }
    std::string message(sizeof(_MESSAGE_HEADER), '\0');
    WriteHeader(reinterpret_cast<uint8_t*>(message.data()), kHostNotice, static_cast<uint32_t>(length));
    return message.append(text, 0, length);
}

void SendHostNotice(int socket, const std::string& text) {
    const std::string message = HostNotice(text);
    // A peer that has gone misses nothing.
    [[maybe_unused]] const ssize_t count =
        send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace zumod::host
