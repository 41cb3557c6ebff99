// An open H.264 encoder of libavcodec, software or hardware: one picture in, its bytes out.
//
// Thread rule: [encode thread]: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "codec/encoder_settings.h"
#include "codec/v4l2_look.h"
#include "common/av_objects.h"

namespace zumod {

// The pictures an encoder is opened for; both sides are even. The stream states the rate, in tenths of a
// picture per second.
struct EncoderShape {
    int width;
    int height;
    AVPixelFormat pixel_format;
    int rate_tenths;
};

class H264Encoder {
public:
    // Close what was open, then open libx264, or the first of VA-API and V4L2 memory-to-memory that works for
    // NV12 pictures. On failure they log one line and return false.
    bool OpenSoftware(const EncoderShape& shape, const EncoderSettings& settings,
                      const EncoderPolicy& policy);
    bool OpenHardware(const EncoderShape& shape, const EncoderSettings& settings, const EncoderPolicy& policy,
                      V4l2Look& v4l2);
    void Close();
    // Halves the bit rate this often, but not below 100 kbit/s, from the next picture on; 0 restores it.
    // Hardware, and an encoder of constant quality, keep their rate.
    void HalveBitRate(int halvings);

    bool IsOpen() const { return m_context != nullptr; }
    bool IsHardware() const { return m_is_hardware; }
    const EncoderShape& Shape() const { return m_shape; }

    // Encodes `picture`, which has the shape that the encoder was opened for. Returns 0 if its bytes are in
    // Packet(), otherwise an error number: AVERROR(EAGAIN) if there are none yet.
    int Encode(AVFrame& picture);
    // Valid until the next call of another operation.
    const AVPacket& Packet() const { return *m_packet; }

    // The parameter sets, if EncoderPolicy::no_stream_header keeps them out of the stream.
    const uint8_t* StreamHeader() const { return m_context->extradata; }
    size_t StreamHeaderSize() const { return static_cast<size_t>(m_context->extradata_size); }

private:
    bool Accept(AvOwner<AVCodecContext> context, const EncoderShape& shape, bool is_hardware);
    int Send(AVFrame& picture);

    AvOwner<AVCodecContext> m_context;
    AvOwner<AVPacket> m_packet;
    EncoderShape m_shape{};
    bool m_is_hardware = false;
    int64_t m_picture_number = 0;
    // As it was opened.
    int64_t m_bit_rate = 0;
    int m_buffer_bits = 0;
};

}  // namespace zumod
