// Input frames of a VA-API encoder, which are surfaces in the graphics processor's memory.
//
// Thread rule: [encode thread].
#pragma once

#include "common/av_objects.h"

namespace zumod {

// Attaches surfaces for NV12 pictures of this size to an encoder that is not open yet. Returns false if the
// machine has no VA-API device.
bool AttachVaapiFrames(AVCodecContext& context, int width, int height);

// Returns a surface with a copy of `picture`, or null on failure.
AvOwner<AVFrame> UploadToSurface(const AVCodecContext& context, const AVFrame& picture);

}  // namespace zumod
