#include "codec/h264_encoder.h"

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <numeric>

#include "codec/rate_meter.h"
#include "codec/vaapi_frames.h"
#include "src/module/log.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace zumod {
namespace {

// Below this the picture is not worth sending.
constexpr int64_t kLeastHalvedRate = 100'000;
// libx264 counts in kilobits per second, and takes 0 for "not set".
constexpr int64_t kLeastRate = 10'000;

int BufferBits(const EncoderSettings& settings) {
    return static_cast<int>(std::min<int64_t>(settings.bit_rate * settings.buffer_ms / 1000, INT_MAX));
}

// A slower stream gets fewer bits per second and as many per picture. With more bits per picture it could
// become slower still, because a line that is too slow lowers the rate, too.
int64_t BitRate(const EncoderShape& shape, const EncoderSettings& settings) {
    constexpr int64_t kAssumedTenths = int64_t{10} * kAssumedRate;
    const int64_t tenths = std::min<int64_t>(shape.rate_tenths, kAssumedTenths);
    return std::max(settings.bit_rate * tenths / kAssumedTenths, std::min(settings.bit_rate, kLeastRate));
}

// Allocates the encoder and sets everything that is the same for all of them.
AvOwner<AVCodecContext> NewContext(const char* encoder, const EncoderShape& shape,
                                   const EncoderSettings& settings, const EncoderPolicy& policy) {
    const AVCodec* codec = avcodec_find_encoder_by_name(encoder);
    AvOwner<AVCodecContext> context(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (context == nullptr) {
        return nullptr;
    }
    Silence(*context);
    context->width = shape.width;
    context->height = shape.height;
    context->pix_fmt = shape.pixel_format;
    // What cameras deliver by default, and what PictureSource converts to.
    context->color_range = AVCOL_RANGE_MPEG;
    context->colorspace = AVCOL_SPC_SMPTE170M;
    const int divisor = std::gcd(shape.rate_tenths, 10);
    context->framerate = {shape.rate_tenths / divisor, 10 / divisor};
    context->time_base = av_inv_q(context->framerate);
    context->gop_size = settings.key_interval;
    context->max_b_frames = 0;
    // Not one picture per thread, which would delay each picture.
    context->thread_type = FF_THREAD_SLICE;
    context->thread_count = settings.threads;
    context->bit_rate = BitRate(shape, settings);
    if (!policy.file_record) {
        // The rate holds within the buffer's time, so that a channel of this rate never falls behind more.
        context->rc_max_rate = context->bit_rate;
        context->rc_buffer_size = BufferBits(settings);
    }
    if (policy.no_stream_header) {
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    return context;
}

void LogOpened(const AVCodecContext& context, const EncoderShape& shape, const EncoderSettings& settings) {
    ZuModLog(kLogEvent,
             "[zu-codec] encode %dx%d with %s, %" PRId64
             " bits a second, a key frame every %d, %g pictures a second",
             context.width, context.height, context.codec->name, BitRate(shape, settings),
             settings.key_interval, av_q2d(context.framerate));
}

AvOwner<AVCodecContext> OpenVaapi(const EncoderShape& shape, const EncoderSettings& settings,
                                  const EncoderPolicy& policy) {
    AvOwner<AVCodecContext> context = NewContext("h264_vaapi", shape, settings, policy);
    if (context == nullptr || !AttachVaapiFrames(*context, shape.width, shape.height)) {
        return nullptr;
    }
    // Each picture's bytes come out before the next picture goes in.
    av_opt_set(context->priv_data, "async_depth", "1", 0);
    return avcodec_open2(context.get(), context->codec, nullptr) == 0 ? std::move(context) : nullptr;
}

AvOwner<AVCodecContext> OpenV4l2(const EncoderShape& shape, const EncoderSettings& settings,
                                 const EncoderPolicy& policy) {
    AvOwner<AVCodecContext> context = NewContext("h264_v4l2m2m", shape, settings, policy);
    const bool open = context != nullptr && avcodec_open2(context.get(), context->codec, nullptr) == 0;
    return open ? std::move(context) : nullptr;
}

// Null after one log line.
AvOwner<AVCodecContext> OpenSoftwareEncoder(const EncoderShape& shape, const EncoderSettings& settings,
                                            const EncoderPolicy& policy) {
    AvOwner<AVCodecContext> context = NewContext("libx264", shape, settings, policy);
    if (context == nullptr) {
        ZuModLog(kLogFailure, "[zu-codec] there is no software encoder");
        return nullptr;
    }
    av_opt_set(context->priv_data, "preset", settings.preset.c_str(), 0);
    av_opt_set(context->priv_data, "tune", "zerolatency", 0);
    if (policy.file_record) {
        context->bit_rate = 0;
        av_opt_set(context->priv_data, "crf", "20", 0);
    }
    if (const int error = avcodec_open2(context.get(), context->codec, nullptr); error < 0) {
        ZuModLog(kLogFailure, "[zu-codec] the software encoder does not open for %dx%d: %s", shape.width,
                 shape.height, AvErrorText(error).text);
        return nullptr;
    }
    LogOpened(*context, shape, settings);
    return context;
}

// The first of VA-API and V4L2 memory-to-memory that opens. Null after one log line.
AvOwner<AVCodecContext> OpenHardwareEncoder(const EncoderShape& shape, const EncoderSettings& settings,
                                            const EncoderPolicy& policy, V4l2Look& v4l2) {
    AvOwner<AVCodecContext> context = OpenVaapi(shape, settings, policy);
    if (context == nullptr) {
        context = v4l2.Run([&] { return OpenV4l2(shape, settings, policy); });
    }
    if (context == nullptr) {
        ZuModLog(kLogEvent, "[zu-codec] no hardware encoder opens, the software encoder is used");
        return nullptr;
    }
    LogOpened(*context, shape, settings);
    return context;
}

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
                               const EncoderPolicy& policy, V4l2Look& v4l2) {
    Close();
    return Accept(OpenHardwareEncoder(shape, settings, policy, v4l2), shape, true);
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
    m_bit_rate = m_context->rc_max_rate;
    m_buffer_bits = m_context->rc_buffer_size;
    m_shape = shape;
    m_is_hardware = is_hardware;
    return true;
}

void H264Encoder::HalveBitRate(int halvings) {
    if (m_is_hardware || m_bit_rate == 0) {
        return;
    }
    const int64_t least = std::min(m_bit_rate, kLeastHalvedRate);
    // libx264 compares these with its own before every picture.
    m_context->bit_rate = m_context->rc_max_rate = std::max(m_bit_rate >> halvings, least);
    m_context->rc_buffer_size = static_cast<int>(m_buffer_bits * m_context->bit_rate / m_bit_rate);
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
    // A device may keep the picture after this call, so it gets a copy.
    AvOwner<AVFrame> copy =
        m_context->hw_frames_ctx != nullptr ? UploadToSurface(*m_context, picture) : CopyOf(picture);
    if (copy == nullptr) {
        return AVERROR(ENOMEM);
    }
    copy->pts = picture.pts;
    return avcodec_send_frame(m_context.get(), copy.get());
}

}  // namespace zumod
