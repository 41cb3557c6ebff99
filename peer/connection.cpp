#include "peer/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/safe_text.h"
#include "peer/peer_error.h"

namespace zumod::peer {
namespace {

using std::chrono::seconds;

// How long a command may take to end by itself, and then after SIGTERM.
constexpr auto kPatience = seconds(2);

std::string ErrorText(int error) {
    return std::strerror(error);  // NOLINT(concurrency-mt-unsafe): the program has one thread
}

void DoNotBlock(int descriptor) {
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
}

timeval TimeValue(Clock::duration duration) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    return {us / 1000000, us % 1000000};
}

struct Pipe {
    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw PeerError("no pipe: " + ErrorText(errno));
        }
        read_end.Reset(ends[0]);
        write_end.Reset(ends[1]);
    }
    UniqueFd read_end;
    UniqueFd write_end;
};

// What a spawned command starts with: its ends of the pipes, and the signals as if nobody had touched them.
class SpawnSetting {
public:
    SpawnSetting(int input, int output) {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawnattr_init(&attributes);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        sigaddset(&signals, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetting() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetting(const SpawnSetting&) = delete;
    SpawnSetting& operator=(const SpawnSetting&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

// Signals do not shorten this wait.
bool EndsWithin(int process, Clock::duration time) {
    return Waiter().WaitFor(process, POLLIN, Clock::now() + time) == Waiter::Result::kReady;
}

std::string HowItEnded(int status) {
    if (WIFSIGNALED(status)) {
        return "the command was ended by signal " + std::to_string(WTERMSIG(status));
    }
    const int exit_status = WEXITSTATUS(status);
    return exit_status == 0 ? "" : "the command ended with status " + std::to_string(exit_status);
}

}  // namespace

Connection Connection::ToSocket(const std::string& path, Clock::duration limit) {
    const std::string shown = SafeText(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw PeerError("the path of the socket is too long: " + shown);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    UniqueFd socket_end(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // Where many wait for the host, connect waits as well.
    const timeval time = TimeValue(limit);
    setsockopt(socket_end.Get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    if (connect(socket_end.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const std::string reason =
            errno == EAGAIN ? "not accepted within " + SecondsText(limit) : ErrorText(errno);
        throw PeerError("no connection to " + shown + ": " + reason);
    }
    DoNotBlock(socket_end.Get());
    return {std::move(socket_end), UniqueFd(), -1};
}

Connection Connection::ToCommand(const std::string& command) {
    Pipe to_command;
    Pipe from_command;
    const SpawnSetting setting(to_command.read_end.Get(), from_command.write_end.Get());
    std::string text = command;
    char shell[] = "sh";
    char option[] = "-c";
    char* words[] = {shell, option, text.data(), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", &setting.actions, &setting.attributes, words, environ);
    if (error != 0) {
        throw PeerError("the command cannot be started: " + ErrorText(error));
    }
    DoNotBlock(from_command.read_end.Get());
    DoNotBlock(to_command.write_end.Get());
    return {std::move(from_command.read_end), std::move(to_command.write_end), child};
}

std::string Connection::End() {
    m_input.Reset();
    m_output.Reset();
    if (m_command < 0) {
        return {};
    }
    // Not by the C library's name, which its header declares for C alone in some versions.
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, m_command, 0)));
    if (!EndsWithin(process.Get(), kPatience)) {
        kill(m_command, SIGTERM);
        if (!EndsWithin(process.Get(), kPatience)) {
            kill(m_command, SIGKILL);
        }
    }
    int status = 0;
    waitpid(std::exchange(m_command, -1), &status, 0);
    return HowItEnded(status);
}

}  // namespace zumod::peer
