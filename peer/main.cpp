// zu-camera-peer: uses the cameras that a host lends.
#include <unistd.h>

#include <cstdio>
#include <exception>

#include "common/process_setup.h"
#include "peer/commands.h"

extern "C" {
#include <libavutil/log.h>
}

namespace zumod::peer {
namespace {

Expected<void> RunCommand(const PeerOptions& options) {
    const StopSignals signals;
    Waiter waiter(&signals);
    StandardOutput output(waiter);
    StandardOutput messages(waiter, STDERR_FILENO);
    return options.command->run({options, waiter, output, messages});
}

Expected<void> Run(int count, const char* const* words) {
    // The only place that catches exceptions: libraries throw them, the memory may be exhausted.
    try {
        return ParseOptions(count, words).and_then(RunCommand);
    } catch (const std::exception& exception) {
        return Fail(exception.what());
    }
}

}  // namespace
}  // namespace zumod::peer

int main(int argc, char** argv) {
    zumod::FillStandardDescriptors();
    // The libraries return their failures, which this program reports in its own words.
    av_log_set_level(AV_LOG_QUIET);
    const auto result = zumod::peer::Run(argc, argv);
    const int status = result ? 0 : zumod::ReportError("zu-camera-peer", result.error());
    if (zumod::peer::PictureDecoder::LeftAThread()) {
        std::fflush(nullptr);
        _exit(status);
    }
    return status;
}
