#include "codec/video_encoder.h"

#include <cstring>
#include <new>

#include "src/module/log.h"
#include "zumod/values.h"

namespace zumod {

bool CVideoEncoder::QueryInterface(const char* name, void** out) {
    if (name == nullptr || out == nullptr || !IsSameInterfaceName(name, kVideoEncoderName)) {
        return false;
    }
    *out = CRefPtr_T<IVEncoder>(this).Detach();
    return true;
}

bool CVideoEncoder::SetProperty(const char* key, IZUModData* value) {
    if (key == nullptr || value == nullptr || std::strcmp(key, kPropertyHardware) != 0 ||
        value->GetType() != kZUModDataBool) {
        return false;
    }
    try {
        m_hardware_value = CZUModData::FromBool(value->GetBool());
    } catch (const std::bad_alloc&) {
        return false;
    }
    m_hardware_allowed = m_hardware_value->GetBool();
    return true;
}

IZUModData* CVideoEncoder::GetProperty(const char* key) {
    if (key == nullptr) {
        return nullptr;
    }
    if (std::strcmp(key, kPropertyHardware) == 0) {
        return m_hardware_value.Get();
    }
    return std::strcmp(key, kPropertyStreamHeader) == 0 ? m_stream_header.Get() : nullptr;
}

int CVideoEncoder::SetInputFormat(const VideoInputFormat* format) {
    if (format == nullptr) {
        return 0;
    }
    m_record = *format;
    return 1;
}

bool CVideoEncoder::Encode(IVEncArgs* args) {
    if (args == nullptr) {
        ZuModLog(kLogIgnored, "[zu-codec] encode without arguments");
        return false;
    }
    try {
        return EncodeArgs(*args);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CVideoEncoder::EncodeArgs(IVEncArgs& args) {
    PictureLayout layout{};
    if (!LayOutInput(args, layout)) {
        return false;
    }
    const LineFollower::Duration now = m_now();
    m_meter.OnPicture(now);
    m_follower.OnPicture(now);
    if (!EnsureOpen(layout)) {
        return false;
    }
    m_encoder.HalveBitRate(m_follower.Halvings());
    const auto* bytes = static_cast<const uint8_t*>(args.GetInputData());
    int error = EncodePicture(layout, bytes);
    if (error < 0 && error != AVERROR(EAGAIN) && m_encoder.IsHardware()) {
        ZuModLog(kLogIgnored, "[zu-codec] the hardware encoder fails, the software encoder is used: %s",
                 AvErrorText(error).text);
        m_hardware_failed = true;
        if (!OpenFor(layout)) {
            return false;
        }
        error = EncodePicture(layout, bytes);
    }
    if (error < 0) {
        if (error != AVERROR(EAGAIN) || !m_encoder.IsHardware()) {
            ZuModLog(kLogFailure, "[zu-codec] encode fail: %s", AvErrorText(error).text);
        }
        return false;
    }
    return HandOut(args);
}

bool CVideoEncoder::LayOutInput(IVEncArgs& args, PictureLayout& layout) {
    const uint64_t size = args.GetInputSize();
    const PictureError error = LayOutPicture(m_record, size, layout);
    if (error != PictureError::kNone) {
        ZuModLog(kLogIgnored, "[zu-codec] picture refused, %s: %dx%d, stride %d, format 0x%08x, %lu bytes",
                 PictureErrorText(error), m_record.width, m_record.height, m_record.stride, m_record.format,
                 size);
        return false;
    }
    if (args.GetInputData() == nullptr) {
        ZuModLog(kLogIgnored, "[zu-codec] picture refused, there are no bytes");
        return false;
    }
    if (layout.format->is_rgb && !m_policy.source_rgb) {
        ZuModLog(kLogIgnored, "[zu-codec] picture refused, BGR was not asked for");
        return false;
    }
    return true;
}

bool CVideoEncoder::EnsureOpen(const PictureLayout& layout) {
    const EncoderShape& open = m_encoder.Shape();
    const bool fits = m_encoder.IsOpen() && open.width == EvenSide(layout.width) &&
                      open.height == EvenSide(layout.height) && open.rate_tenths == m_meter.Tenths() &&
                      (m_encoder.IsHardware() || open.pixel_format == layout.format->encode_as);
    return fits || OpenFor(layout);
}

bool CVideoEncoder::OpenFor(const PictureLayout& layout) {
    EncoderShape shape{EvenSide(layout.width), EvenSide(layout.height), AV_PIX_FMT_NV12, m_meter.Tenths()};
    const EncoderSettings settings = ReadEncoderSettings(shape.width, shape.height);
    bool open = false;
    if (m_hardware_allowed && !m_hardware_failed) {
        open = m_encoder.OpenHardware(shape, settings, m_policy, V4l2Look::OfProcess());
        m_hardware_failed = !open;
    }
    if (!open) {
        shape.pixel_format = layout.format->encode_as;
        open = m_encoder.OpenSoftware(shape, settings, m_policy);
    }
    const bool has_header = open && m_policy.no_stream_header && m_encoder.StreamHeaderSize() > 0;
    m_stream_header = has_header
                          ? CRefPtr_T<IZUModData>(new CZUModData(kZUModDataBlock, m_encoder.StreamHeader(),
                                                                 m_encoder.StreamHeaderSize()))
                          : nullptr;
    return open;
}

LineFollower::Duration CVideoEncoder::SystemNow() {
    return std::chrono::duration_cast<LineFollower::Duration>(
        std::chrono::steady_clock::now().time_since_epoch());
}

// 0 when the encoder's packet holds the picture, otherwise an error number.
int CVideoEncoder::EncodePicture(const PictureLayout& layout, const uint8_t* bytes) {
    AVFrame* picture = m_source.Take(layout, bytes, m_encoder.Shape().pixel_format, m_policy.fast_conversion);
    const int error = picture != nullptr ? m_encoder.Encode(*picture) : AVERROR(ENOMEM);
    if (!m_source.Release()) {
        // The encoder still refers to the caller's bytes, which are not valid after this call.
        m_encoder.Close();
        return AVERROR_BUG;
    }
    return error;
}

bool CVideoEncoder::HandOut(IVEncArgs& args) {
    const AVPacket& packet = m_encoder.Packet();
    const auto size = static_cast<uint32_t>(packet.size);
    const bool fits = args.PrepareOutput(size) >= size;
    void* output = args.GetOutputData();
    if (!fits || output == nullptr) {
        ZuModLog(kLogFailure, "[zu-codec] no output buffer of %u bytes", size);
        return false;
    }
    std::memcpy(output, packet.data, size);
    return true;
}

}  // namespace zumod
