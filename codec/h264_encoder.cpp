#include "codec/h264_encoder.h"

#include "codec/vaapi_frames.h"

namespace zumod {
namespace {

// A copy that may outlive the picture's own bytes.
AvOwner<AVFrame> CopyOf(const AVFrame& picture) {
    AvOwner<AVFrame> copy(av_frame_alloc());
    if (copy == nullptr) {
        return nullptr;
    }
    copy->format = picture.format;
    copy->width = picture.width;
    copy->height = picture.height;
    return av_frame_get_buffer(copy.get(), 0) == 0 && av_frame_copy(copy.get(), &picture) == 0
               ? std::move(copy)
               : nullptr;
}

}  // namespace

bool H264Encoder::OpenSoftware(const EncoderShape& shape, const EncoderSettings& settings,
                               const EncoderPolicy& policy) {
    Close();
    return Accept(OpenSoftwareEncoder(shape, settings, policy), shape, false);
}

bool H264Encoder::OpenHardware(const EncoderShape& shape, const EncoderSettings& settings,
                               const EncoderPolicy& policy) {
    Close();
    return Accept(OpenHardwareEncoder(shape, settings, policy), shape, true);
}

void H264Encoder::Close() {
    m_context.reset();
    m_packet.reset();
    m_picture_number = 0;
}

bool H264Encoder::Accept(AvOwner<AVCodecContext> context, const EncoderShape& shape, bool is_hardware) {
    m_packet.reset(av_packet_alloc());
    if (context == nullptr || m_packet == nullptr) {
        return false;
    }
    m_context = std::move(context);
    m_shape = shape;
    m_is_hardware = is_hardware;
    return true;
}

int H264Encoder::Encode(AVFrame& picture) {
    picture.pts = m_picture_number++;
    if (const int error = Send(picture); error < 0) {
        return error;
    }
    return avcodec_receive_packet(m_context.get(), m_packet.get());
}

int H264Encoder::Send(AVFrame& picture) {
    if (!m_is_hardware) {
        return avcodec_send_frame(m_context.get(), &picture);
    }
    // A device may hold the picture longer than the call lasts.
    AvOwner<AVFrame> own =
        m_context->hw_frames_ctx != nullptr ? UploadToSurface(*m_context, picture) : CopyOf(picture);
    if (own == nullptr) {
        return AVERROR(ENOMEM);
    }
    own->pts = picture.pts;
    return avcodec_send_frame(m_context.get(), own.get());
}

}  // namespace zumod
