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
    // Creates the socket with mode 0600 in a directory as OpenPrivateDirectory opens it. The socket file of a
    // host that is dead is replaced; one with a listener is not.
    static Expected<std::unique_ptr<Listener>> Open(const std::string& path);
    // The socket that a service manager passed: descriptor 3, if LISTEN_PID names this process. None if there
    // is none. Fails if it is not one Unix socket that listens. The manager keeps it and its file. Call once.
    static Expected<std::unique_ptr<Listener>> FromServiceManager();
    // Removes the socket file if Open() created it, unless another file has taken its place.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Readable while a peer waits.
    int Descriptor() const { return m_socket.Get(); }

    // The next peer. None, with errno, if the peer has gone or there is no descriptor left.
    UniqueFd Accept() const;

private:
    using FileId = std::pair<dev_t, ino_t>;

    Listener(UniqueFd directory, std::string name, UniqueFd lock, UniqueFd socket, FileId file)
        : m_directory(std::move(directory)),
          m_name(std::move(name)),
          m_lock(std::move(lock)),
          m_socket(std::move(socket)),
          m_file(std::move(file)) {}

    const UniqueFd m_directory;
    const std::string m_name;  // of the socket in it
    // The file NAME.lock. Locked while the socket file is examined and created or removed. Without it, two
    // hosts that start together could both find a dead socket, and the second would remove the new socket of
    // the first. It stays: a host that removed it could remove it under another one's lock.
    const UniqueFd m_lock;
    const UniqueFd m_socket;
    const FileId m_file;  // of the socket
};

// [any thread]. The messages that a host itself sends: why a request fails or the connection ends, and what
// the user should know. The text is cut at the end of a character if it is longer than kHostNoticeLimit.
std::string HostNotice(const std::string& text);
std::string HostInformation(const std::string& text);

// Sends the notice on a new socket, whose buffer is empty. Does not block.
void SendHostNotice(int socket, const std::string& text);

}  // namespace zumod::host
