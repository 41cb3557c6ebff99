#include "common/av_objects.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace zumod {

AvErrorText::AvErrorText(int error) : text{} {
    av_strerror(error, text, sizeof text);
}

void Silence(AVCodecContext& context) {
    // Added to the level of every line of this object's: beyond what any setting lets through, and still
    // within the byte that holds a level. The libraries' own settings are the whole process's, and so the
    // host's.
    constexpr int kBeyondEveryLevel = 2 * AV_LOG_TRACE;
    context.log_level_offset = kBeyondEveryLevel;
}

}  // namespace zumod
