// The Unix socket that peers connect to, and the notice to a peer that is not served.
//
// Thread rule: main thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/unique_fd.h"

namespace zumod::host {

class Listener {
public:
    // Creates the socket with mode 0600. Its directory is created, for this user only, if it does not exist;
    // one that others may write to is refused. The socket file of a host that is dead is replaced; one with a
    // listener is not.
    static Expected<std::unique_ptr<Listener>> Open(const std::string& path);
    // Removes the socket file, unless another file has taken its place.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Readable while a peer waits.
    int Descriptor() const { return m_socket.Get(); }

    // The next peer. None, with errno, if the peer has gone or there is no descriptor left.
    UniqueFd Accept() const;

private:
    Listener(std::string path, UniqueFd socket, dev_t device, ino_t inode)
        : m_path(std::move(path)), m_socket(std::move(socket)), m_device(device), m_inode(inode) {}

    const std::string m_path;
    const UniqueFd m_socket;
    const dev_t m_device;
    const ino_t m_inode;
};

// Creates the directory, for this user only, if it does not exist. Fails if that is not possible, or if what
// exists is not a directory, belongs to another user than this one or root, or may be written to by others.
Expected<void> EnsurePrivateDirectory(const std::string& directory);

// [any thread]. The only message that a host itself sends: why it closes a connection. The text is cut at the
// end of a character if it is longer than kHostNoticeLimit.
std::string HostNotice(const std::string& text);

// Sends the notice on a new socket, whose buffer is empty. Does not block.
void SendHostNotice(int socket, const std::string& text);

}  // namespace zumod::host
