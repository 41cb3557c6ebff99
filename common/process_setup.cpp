#include "common/process_setup.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace zumod {
namespace {

sigset_t SetOf(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    return set;
}

}  // namespace

int FillStandardDescriptors() {
    int first_closed = -1;
    // In ascending order: open() returns the lowest free number.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            (void)open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
            first_closed = first_closed < 0 ? descriptor : first_closed;
        }
    }
    return first_closed;
}

UniqueFd OpenTerminalAgain(int descriptor) {
    if (isatty(descriptor) != 1) {
        return UniqueFd();
    }
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    return UniqueFd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

void WriteWithin(std::chrono::milliseconds time, int descriptor, std::string_view text) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!text.empty()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd polled{descriptor, POLLOUT, 0};
        if (poll(&polled, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) != 1) {
            return;
        }
        const ssize_t count = write(descriptor, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (count < 0 && ((errno != EAGAIN && errno != EINTR) || left.count() <= 0)) {
            return;
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
}

StopSignals::StopSignals(Second second) : m_second(second) {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
    const sigset_t signals = SetOf({SIGINT, SIGTERM, SIGHUP});
    m_descriptor.Reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (m_descriptor) {
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
}

bool StopSignals::Consume() const {
    signalfd_siginfo signal{};
    if (read(m_descriptor.Get(), &signal, sizeof signal) != sizeof signal) {
        return false;
    }
    if (m_second == Second::kEndsProcess) {
        const sigset_t signals = SetOf({SIGINT, SIGTERM});
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    return true;
}

}  // namespace zumod
