// A process that makes connections to the host for a process that has entered the sandbox.
//
// A process in the sandbox cannot connect, nor start the command of --exec. But the connection may end, and
// the page is to show the host again when it is back. So the program forks this process before it enters the
// sandbox. For each request on the socket between them it connects, and sends the descriptors of the
// connection, or the reason why there is none. It also starts the browser of --open. It knows the command
// line, and reads nothing that the host or a page sends.
//
// It ends when the other end of the socket is closed, which the system does whatever ends the program. It
// then ends the command of --exec and removes the temporary directory of the recordings.
//
// Thread rule: one thread at a time. Start() before any other thread starts.
#pragma once

#include <optional>
#include <string>

#include "common/error.h"
#include "common/unique_fd.h"
#include "peer/commands.h"
#include "peer/connection.h"

namespace zumod::peer {

class ViewConnector {
public:
    struct Settings {
        std::string temporary;  // a directory to remove at the end; empty if there is none
        std::string page;       // the address for OpenPage()
    };
    static Expected<ViewConnector> Start(const CommandContext& context, const Settings& settings);

    // Starts the user's browser. Its failure is reported on standard error, by itself.
    Expected<void> OpenPage() { return Send('o'); }
    // Asks for a connection, in place of the one before, which must be closed.
    Expected<void> Request() { return Send('c'); }
    // Readable when the answer is there.
    int Descriptor() const { return m_socket.Get(); }
    // The answer to a request. `is_over` if the process is gone.
    struct Answer {
        Expected<Connection> connection;
        bool is_over = false;
    };
    Answer Receive();

private:
    explicit ViewConnector(UniqueFd socket) : m_socket(std::move(socket)) {}
    Expected<void> Send(char request);

    UniqueFd m_socket;
};

}  // namespace zumod::peer
