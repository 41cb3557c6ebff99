// zu-camera-peer: uses the cameras that a host lends.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>

#include "common/stop_signals.h"
#include "peer/commands.h"
#include "peer/peer_error.h"

extern "C" {
#include <libavutil/log.h>
}

namespace zumod::peer {
namespace {

// Otherwise the connection could become standard output. Reading and writing still fail.
void OpenStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) < 0) {
            open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

void Run(const Work& work) {
    switch (work.options.command) {
        case Command::kList:
            return ListCameras(work);
        case Command::kSnapshot:
            return TakeSnapshot(work);
        case Command::kRecord:
            return RecordCameras(work);
        case Command::kStats:
            return ShowStats(work);
        case Command::kFormat:
            return ChangeFormat(work);
        case Command::kClose:
            return CloseOne(work);
        case Command::kVersion:
            return ShowVersion(work);
    }
}

int RunAndReport(const PeerOptions& options) {
    try {
        const StopSignals signals;
        Waiter waiter(&signals);
        StandardOutput output(waiter);
        Run({options, waiter, output});
        return 0;
    } catch (const OutputClosed&) {
        // Whoever read has seen enough.
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "zu-camera-peer: %s\n", error.what());
        return kExitFailure;
    }
}

}  // namespace
}  // namespace zumod::peer

int main(int argc, char** argv) {
    zumod::peer::OpenStandardDescriptors();
    // Failures of these libraries come back as results, which are told in this program's words.
    av_log_set_level(AV_LOG_QUIET);
    zumod::peer::PeerOptions options;
    if (const auto status = zumod::peer::ParseOptions(argc, argv, options, std::cout, std::cerr)) {
        return *status;
    }
    return zumod::peer::RunAndReport(options);
}
