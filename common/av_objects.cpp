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
    // Added to the level of each line about this object: above every level that can be enabled, and still
    // within the byte that holds a level. The global log level belongs to the host process and stays
    // unchanged.
    constexpr int kBeyondEveryLevel = 2 * AV_LOG_TRACE;
    context.log_level_offset = kBeyondEveryLevel;
}

}  // namespace zumod
