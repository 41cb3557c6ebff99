// The encoder that the reference codec is compared with: libx264 by libavcodec, called by hand with the
// codec's settings, on pictures that are not copied.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>

#include "bench/require.h"
#include "common/av_objects.h"

extern "C" {
#include <libavutil/opt.h>
}

namespace zumod::bench {

class BareEncoder {
public:
    struct Settings {
        int width;
        int height;
        int rate;                                      // pictures per second
        int key_interval;                              // pictures
        int64_t bit_rate;                              // bits per second
        AVPixelFormat pixel_format = AV_PIX_FMT_NV12;  // or AV_PIX_FMT_YUV420P
    };

    explicit BareEncoder(const Settings& settings) : m_settings(settings) {
        const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
        m_context.reset(avcodec_alloc_context3(codec));
        m_context->log_level_offset = 100;
        m_context->width = settings.width;
        m_context->height = settings.height;
        m_context->pix_fmt = settings.pixel_format;
        m_context->color_range = AVCOL_RANGE_MPEG;
        m_context->colorspace = AVCOL_SPC_SMPTE170M;
        m_context->time_base = {1, settings.rate};
        m_context->framerate = {settings.rate, 1};
        m_context->gop_size = settings.key_interval;
        m_context->max_b_frames = 0;
        m_context->thread_count = 1;
        m_context->bit_rate = m_context->rc_max_rate = settings.bit_rate;
        m_context->rc_buffer_size = static_cast<int>(settings.bit_rate / 10);
        av_opt_set(m_context->priv_data, "preset", "ultrafast", 0);
        av_opt_set(m_context->priv_data, "tune", "zerolatency", 0);
        Require(avcodec_open2(m_context.get(), codec, nullptr) >= 0, "the encoder does not open");
    }

    // The packet is valid until the next call.
    const AVPacket& Encode(const uint8_t* picture) {
        const int luma_size = m_settings.width * m_settings.height;
        // A frame with a buffer reference is not copied. Nothing frees this one.
        auto* bytes = const_cast<uint8_t*>(picture);
        m_frame->buf[0] = av_buffer_create(
            bytes, static_cast<size_t>(luma_size) * 3 / 2, [](void*, uint8_t*) {}, nullptr,
            AV_BUFFER_FLAG_READONLY);
        m_frame->format = m_settings.pixel_format;
        m_frame->width = m_settings.width;
        m_frame->height = m_settings.height;
        m_frame->data[0] = bytes;
        m_frame->data[1] = bytes + luma_size;
        m_frame->linesize[0] = m_frame->linesize[1] = m_settings.width;
        if (m_settings.pixel_format == AV_PIX_FMT_YUV420P) {
            m_frame->data[2] = bytes + luma_size * 5 / 4;
            m_frame->linesize[1] = m_frame->linesize[2] = m_settings.width / 2;
        }
        m_frame->pts = m_number++;
        Require(avcodec_send_frame(m_context.get(), m_frame.get()) >= 0 &&
                    avcodec_receive_packet(m_context.get(), m_packet.get()) >= 0,
                "the encoder fails");
        av_frame_unref(m_frame.get());
        return *m_packet;
    }

private:
    const Settings m_settings;
    AvOwner<AVCodecContext> m_context;
    const AvOwner<AVFrame> m_frame{av_frame_alloc()};
    const AvOwner<AVPacket> m_packet{av_packet_alloc()};
    int64_t m_number = 0;
};

}  // namespace zumod::bench
