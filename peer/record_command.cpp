#include <csignal>
#include <string>

#include "peer/commands.h"
#include "peer/recording.h"

namespace zumod::peer {

Expected<void> RecordCameras(const CommandContext& context) {
    // A file larger than the process may write is then a failed write, which leaves a recording that plays.
    std::signal(SIGXFSZ, SIG_IGN);
    Recording recording(context);
    auto recorded = recording.Run();
    recording.EndProgress();
    if (!recorded && (recording.Frames() == 0 || recorded.error() == OutputClosed())) {
        return recorded;
    }
    const auto finished = recording.Finish();
    std::string failure = finished ? "" : finished.error().text;
    if (!recorded && recorded.error() != Interrupted()) {
        const std::string rest = finished ? recording.RecordedText() : failure;
        failure = recorded.error().text + (rest.empty() ? "" : "; " + rest);
    } else if (finished) {
        if (auto printed = recording.PrintSummary(); !printed) {
            return printed;
        }
    }
    if (const std::string loss = recording.LossText(); !loss.empty()) {
        failure += (failure.empty() ? "" : "; ") + loss;
    }
    return failure.empty() ? Expected<void>() : Fail(failure);
}

}  // namespace zumod::peer
