#include "common/process_setup.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

namespace zumod {

void FillStandardDescriptors() {
    // In ascending order: open() returns the lowest free number.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            (void)open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

StopSignals::StopSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_descriptor.Reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool StopSignals::Consume() const {
    signalfd_siginfo signal{};
    return read(m_descriptor.Get(), &signal, sizeof signal) == sizeof signal;
}

}  // namespace zumod
