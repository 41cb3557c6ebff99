#include "common/stop_signals.h"

#include <sys/signalfd.h>

#include <csignal>

namespace zumod {

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
