// The pictures of a VA-API encoder, which live in the graphics processor's memory.
//
// Thread rule: [encode thread].
#pragma once

#include "common/av_objects.h"

namespace zumod {

// Gives an encoder that is not open yet surfaces for NV12 pictures of this size; false when the machine has
// no device for it.
bool AttachVaapiFrames(AVCodecContext& context, int width, int height);

// A surface with a copy of `picture`; null when that fails.
AvOwner<AVFrame> UploadToSurface(const AVCodecContext& context, const AVFrame& picture);

}  // namespace zumod
