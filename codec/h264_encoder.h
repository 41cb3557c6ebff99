// An open H.264 encoder of libavcodec, hardware or software: one picture in, its bytes out.
//
// Thread rule: [encode thread]: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "codec/encoder_context.h"

namespace zumod {

class H264Encoder {
public:
    // Open closes what was open before. False after one log line.
    bool OpenSoftware(const EncoderShape& shape, const EncoderSettings& settings,
                      const EncoderPolicy& policy);
    bool OpenHardware(const EncoderShape& shape, const EncoderSettings& settings,
                      const EncoderPolicy& policy);
    void Close();

    bool IsOpen() const { return m_context != nullptr; }
    bool IsHardware() const { return m_is_hardware; }
    const EncoderShape& Shape() const { return m_shape; }

    // Encodes `picture`, which is of the shape that was opened for. 0 when its bytes are in Packet(),
    // otherwise an error number: AVERROR(EAGAIN) when there are none yet.
    int Encode(AVFrame& picture);
    // Valid until the next call of any operation but this one.
    const AVPacket& Packet() const { return *m_packet; }

    // The parameter sets of an encoder that keeps them out of the stream.
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
};

}  // namespace zumod
