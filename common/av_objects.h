// Owners of libavcodec, libavutil and libswscale objects.
//
// Thread rule: each object belongs to one thread at a time.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace zumod {

struct AvDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

template <class T>
using AvOwner = std::unique_ptr<T, AvDeleter>;

// The text of an error number of these libraries.
struct AvErrorText {
    explicit AvErrorText(int error);
    char text[AV_ERROR_MAX_STRING_SIZE];
};

// Keeps the library from printing messages about this object on the process's standard error. Failures are
// reported through results.
void Silence(AVCodecContext& context);

}  // namespace zumod
