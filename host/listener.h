// The Unix socket that peers connect to.
//
// Thread rule: main thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "common/unique_fd.h"

namespace zumod::host {

class Listener {
public:
    // Null, with `error` in one line, when it cannot be had. The socket is its owner's alone (mode 0600). A
    // socket file that a dead host left is replaced; one that somebody listens at is not.
    static std::unique_ptr<Listener> Open(const std::string& path, std::string& error);
    // Removes the socket file, unless another one stands in its place by now.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Readable when a peer waits.
    int Descriptor() const { return m_socket.Get(); }

    // The next peer; none, with errno, when there is none after all or the system has no descriptor left.
    UniqueFd Accept() const;

private:
    Listener(std::string path, UniqueFd socket, dev_t device, ino_t inode)
        : m_path(std::move(path)), m_socket(std::move(socket)), m_device(device), m_inode(inode) {}

    const std::string m_path;
    const UniqueFd m_socket;
    const dev_t m_device;
    const ino_t m_inode;
};

// The effective user at the other end of a Unix socket, or -1.
uid_t UserAtTheOtherEnd(int socket);

}  // namespace zumod::host
