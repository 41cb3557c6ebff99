#include "host/signals.h"

#include <sys/signalfd.h>

#include <csignal>

namespace zumod::host {

UniqueFd TakeSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ending, signal);
    }
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    return UniqueFd(signalfd(-1, &ending, SFD_CLOEXEC));
}

}  // namespace zumod::host
