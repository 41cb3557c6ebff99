#include "peer/stop_signals.h"

#include <sys/signalfd.h>

#include <csignal>

#include "peer/peer_error.h"

namespace zumod::peer {

StopSignals::StopSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ending, signal);
    }
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    m_descriptor.Reset(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
}

void StopSignals::Check() const {
    signalfd_siginfo signal{};
    if (read(m_descriptor.Get(), &signal, sizeof signal) == sizeof signal) {
        throw Interrupted();
    }
}

}  // namespace zumod::peer
