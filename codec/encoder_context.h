// Opens encoders of libavcodec for H.264: the software one, and those of this machine's hardware.
//
// Thread rule: [encode thread]; the objects belong to the thread that opens them.
#pragma once

#include "codec/encoder_settings.h"
#include "common/av_objects.h"

namespace zumod {

// The pictures an encoder is opened for; both sides are even.
struct EncoderShape {
    int width;
    int height;
    AVPixelFormat pixel_format;

    bool operator==(const EncoderShape&) const = default;
};

// Null after one log line.
AvOwner<AVCodecContext> OpenSoftwareEncoder(const EncoderShape& shape, const EncoderSettings& settings,
                                            const EncoderPolicy& policy);

// The first of VA-API and V4L2 memory-to-memory that opens, for NV12 pictures; null after one log line.
AvOwner<AVCodecContext> OpenHardwareEncoder(const EncoderShape& shape, const EncoderSettings& settings,
                                            const EncoderPolicy& policy);

}  // namespace zumod
