#include "peer/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "common/safe_text.h"
#include "common/shell_command.h"
#include "common/unix_socket.h"

namespace zumod::peer {
namespace {

// How long a command may take to exit by itself, and then after SIGTERM.
constexpr auto kExitGracePeriod = std::chrono::seconds(2);
constexpr auto kConnectInterval = std::chrono::milliseconds(50);

void SetNonBlocking(int descriptor) {
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

struct Pipe {
    static Expected<Pipe> Open() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return Fail("no pipe: " + ErrnoText(errno));
        }
        return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
    }
    UniqueFd read_end;
    UniqueFd write_end;
};

// Signals do not shorten this wait.
bool ExitsWithin(int process, Clock::duration time) {
    return Waiter().WaitFor(process, POLLIN, Clock::now() + time).value();
}

std::string FailureText(int status) {
    // A shell turns the signal that ended its command into an exit status.
    if (WIFSIGNALED(status) ? WTERMSIG(status) == SIGSYS : WEXITSTATUS(status) == 128 + SIGSYS) {
        return "the command was stopped by the sandbox, which forbids a system call that it made; "
               "zu-camera-host --no-sandbox does without; please report this";
    }
    return CommandFailure(status);
}

}  // namespace

Expected<Connection> Connection::ToSocket(const std::string& path, std::optional<uid_t> host_user,
                                          Waiter& waiter, Clock::duration limit) {
    const std::string shown = SafeText(path);
    const auto address = UnixAddress::FromPath(path);
    if (!address) {
        return Fail("the path of the socket is too long: " + shown);
    }
    UniqueFd socket = NewUnixSocket(SOCK_NONBLOCK);
    const auto deadline = Clock::now() + limit;
    while (address->Connect(socket) != 0) {
        const int error = errno;
        // Too many processes wait for the host. No descriptor reports that one of them got its turn.
        if (error != EAGAIN || Clock::now() >= deadline) {
            return Fail("no connection to " + shown + ": " +
                        (error == EAGAIN ? "not accepted within " + SecondsText(limit) : ErrnoText(error)));
        }
        if (const auto waited = waiter.Wait(std::min(deadline, Clock::now() + kConnectInterval)); !waited) {
            return Fail(waited.error());
        }
    }
    if (const auto checked = CheckHostUser(socket.Get(), host_user); !checked) {
        return Fail(shown + ": " + checked.error().text);
    }
    return Connection(std::move(socket), UniqueFd(), -1);
}

Expected<Connection> Connection::ToCommand(const std::string& command) {
    auto to_command = Pipe::Open();
    auto from_command = Pipe::Open();
    if (!to_command || !from_command) {
        return Fail((to_command ? from_command : to_command).error());
    }
    const auto child = StartShellCommand(
        {.text = command, .input = to_command->read_end.Get(), .output = from_command->write_end.Get()});
    if (!child) {
        return Fail(child.error());
    }
    SetNonBlocking(from_command->read_end.Get());
    SetNonBlocking(to_command->write_end.Get());
    return Connection(std::move(from_command->read_end), std::move(to_command->write_end), *child);
}

std::string Connection::End() {
    CloseDescriptors();
    if (m_command < 0) {
        return {};
    }
    // By its number: some versions of the C library declare pidfd_open() for C only.
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, m_command, 0)));
    if (!ExitsWithin(process.Get(), kExitGracePeriod)) {
        kill(m_command, SIGTERM);
        if (!ExitsWithin(process.Get(), kExitGracePeriod)) {
            kill(m_command, SIGKILL);
        }
    }
    int status = 0;
    waitpid(std::exchange(m_command, -1), &status, 0);
    return FailureText(status);
}

}  // namespace zumod::peer
