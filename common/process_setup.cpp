#include "common/process_setup.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

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

StopSignals::StopSignals(Second second) : m_second(second) {
    std::signal(SIGPIPE, SIG_IGN);
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
