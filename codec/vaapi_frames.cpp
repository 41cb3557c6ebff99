#include "codec/vaapi_frames.h"

#include <unistd.h>

#include <string>

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/hwcontext.h>
}

namespace zumod {
namespace {

AvOwner<AVBufferRef> OpenDevice(const std::string& node) {
    AVDictionary* options = nullptr;
    // Only through the device node: a camera must not connect to a display server.
    av_dict_set(&options, "connection_type", "drm", 0);
    AVBufferRef* device = nullptr;
    const int error = av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, node.c_str(), options, 0);
    av_dict_free(&options);
    return AvOwner<AVBufferRef>(error == 0 ? device : nullptr);
}

// Skips nodes that do not exist, because the library prints a warning for each.
AvOwner<AVBufferRef> OpenFirstDevice() {
    constexpr int kFirstNode = 128;
    constexpr int kNodeCount = 8;
    for (int i = kFirstNode; i < kFirstNode + kNodeCount; ++i) {
        const std::string node = "/dev/dri/renderD" + std::to_string(i);
        if (access(node.c_str(), R_OK | W_OK) == 0) {
            if (AvOwner<AVBufferRef> device = OpenDevice(node)) {
                return device;
            }
        }
    }
    return nullptr;
}

}  // namespace

bool AttachVaapiFrames(AVCodecContext& context, int width, int height) {
    const AvOwner<AVBufferRef> device = OpenFirstDevice();
    AvOwner<AVBufferRef> frames(device != nullptr ? av_hwframe_ctx_alloc(device.get()) : nullptr);
    if (frames == nullptr) {
        return false;
    }
    auto* description = static_cast<AVHWFramesContext*>(static_cast<void*>(frames->data));
    description->format = AV_PIX_FMT_VAAPI;
    description->sw_format = AV_PIX_FMT_NV12;
    description->width = width;
    description->height = height;
    description->initial_pool_size = 8;
    if (av_hwframe_ctx_init(frames.get()) < 0) {
        return false;
    }
    context.pix_fmt = AV_PIX_FMT_VAAPI;
    context.hw_frames_ctx = frames.release();
    return true;
}

AvOwner<AVFrame> UploadToSurface(const AVCodecContext& context, const AVFrame& picture) {
    AvOwner<AVFrame> surface(av_frame_alloc());
    if (surface == nullptr || av_hwframe_get_buffer(context.hw_frames_ctx, surface.get(), 0) < 0 ||
        av_hwframe_transfer_data(surface.get(), &picture, 0) < 0) {
        return nullptr;
    }
    return surface;
}

}  // namespace zumod
