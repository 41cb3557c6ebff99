// The connection to a host: its Unix socket, or the standard input and output of a command.
//
// Thread rule: one thread at a time.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

#include "common/error.h"
#include "common/unique_fd.h"
#include "common/waiter.h"

namespace zumod::peer {

class Connection {
public:
    // The host must belong to this user, to root or to `host_user`. `waiter` is used only in the call.
    static Expected<Connection> ToSocket(const std::string& path, std::optional<uid_t> host_user,
                                         Waiter& waiter, Clock::duration limit);
    // Run by "sh -c". Its standard error is this program's.
    static Expected<Connection> ToCommand(const std::string& command);
    // Made by another process, to which the command belongs. No output: the input is a socket.
    static Connection FromDescriptors(UniqueFd input, UniqueFd output) {
        return {std::move(input), std::move(output), -1};
    }

    Connection(Connection&& other) noexcept
        : m_input(std::move(other.m_input)),
          m_output(std::move(other.m_output)),
          m_command(std::exchange(other.m_command, -1)) {}
    Connection& operator=(Connection&&) = delete;
    // Without memory to report how the command ended, the program terminates.
    ~Connection() { End(); }  // NOLINT(bugprone-exception-escape)

    // Non-blocking. Both may be the same descriptor.
    int Input() const { return m_input.Get(); }
    int Output() const { return m_output ? m_output.Get() : m_input.Get(); }

    // The process of the command; -1 if there is none.
    pid_t Command() const { return m_command; }
    // For a process that was forked: the command is the child of another process, which ends it.
    void LeaveCommand() { m_command = -1; }

    // Another process has them, too.
    void CloseDescriptors() {
        m_input.Reset();
        m_output.Reset();
    }
    // Closes the descriptors and reaps the command, which gets some time to exit before it is killed.
    // Returns how the command failed; "" if it did not, or if there is none. May be called again.
    std::string End();

private:
    Connection(UniqueFd input, UniqueFd output, pid_t command)
        : m_input(std::move(input)), m_output(std::move(output)), m_command(command) {}

    UniqueFd m_input;
    UniqueFd m_output;  // none if the input is a socket
    pid_t m_command;    // -1 if there is none
};

}  // namespace zumod::peer
