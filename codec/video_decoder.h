// The module's decoder, the counterpart of its encoder: H.264 in Annex B form, by libavcodec, in software.
//
// Thread rule: AddRef and Release are [any thread], everything else [decode thread]: one thread at a time.
#pragma once

#include <cstdint>

#include "codec/picture_layout.h"
#include "common/av_objects.h"
#include "zumod/codec.h"
#include "zumod/codec_decode.h"
#include "zumod/ref_ptr.h"

namespace zumod {

class CVideoDecoder final : public CCounted_T<IVDecoder> {
public:
    // `screen_buffer` is the caller's frame buffer or null.
    CVideoDecoder(VideoTargetFormat target, uint8_t* screen_buffer);

    // Accepts "IVDecoder" in any letter case.
    bool QueryInterface(const char* name, void** out) override;
    // Accepts kPropertyMaxPixels, and kPropertyHardware, which has no effect on this decoder.
    bool SetProperty(const char* key, IZUModData* value) override;
    IZUModData* GetProperty(const char* key) override;

    // `format` points to a VideoOutputFormat.
    int SetOutputFormat(const void* format) override;
    // `args` points to an IVDecArgs.
    bool Decode(IReference* args) override;

private:
    static constexpr int64_t kMostPixels = int64_t{kMaxPictureSide} * kMaxPictureSide;

    bool SetMaxPixels(int64_t pixels);
    bool EnsureOpen();
    int Send(IVDecArgs& args);
    // Returns how many finished pictures were handed to the caller.
    int HandOutFinished(IVDecArgs& args);
    void WaitForKeyFrame();
    bool HandOut(IVDecArgs& args);
    bool Convert(const VideoOutputFormat& output, VideoDecodedPicture& picture);
    bool CopyToScreen(const VideoOutputFormat& output, VideoDecodedPicture& picture);

    VideoOutputFormat m_output{};
    int64_t m_max_pixels = kMostPixels;
    uint8_t* const m_screen_buffer;
    AvOwner<AVCodecContext> m_context;
    AvOwner<AVPacket> m_packet;
    AvOwner<AVFrame> m_frame;
    AvOwner<AVFrame> m_converted;
    AvOwner<SwsContext> m_scaler;
    CRefPtr_T<IZUModData> m_hardware_value;
};

}  // namespace zumod
