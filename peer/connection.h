// The way to a host: its Unix socket, or the standard input and output of a command.
//
// Thread rule: one thread at a time.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

#include "common/unique_fd.h"
#include "common/waiter.h"

namespace zumod::peer {

class Connection {
public:
    // Both throw PeerError.
    static Connection ToSocket(const std::string& path, Clock::duration limit);
    // Run by "sh -c"; its standard error stays this program's.
    static Connection ToCommand(const std::string& command);

    Connection(Connection&& other) noexcept
        : m_input(std::move(other.m_input)),
          m_output(std::move(other.m_output)),
          m_command(std::exchange(other.m_command, -1)) {}
    Connection& operator=(Connection&&) = delete;
    ~Connection() { End(); }

    // Neither blocks. They may be one and the same.
    int Input() const { return m_input.Get(); }
    int Output() const { return m_output ? m_output.Get() : m_input.Get(); }

    // Closes the channel, and ends and reaps the command: of itself if it does so soon, otherwise by signals.
    // Returns how it ended, "" when well or when there is none. May be called again.
    std::string End();

private:
    Connection(UniqueFd input, UniqueFd output, pid_t command)
        : m_input(std::move(input)), m_output(std::move(output)), m_command(command) {}

    UniqueFd m_input;
    UniqueFd m_output;  // none when the input is a socket
    pid_t m_command;    // -1 when there is none
};

}  // namespace zumod::peer
