// The module's encoder: checks each picture's record against its bytes and passes the picture to a libavcodec
// encoder, which it opens for the picture's size and format.
//
// Thread rule: AddRef and Release are [any thread], everything else [encode thread]: one thread at a time.
#pragma once

#include "codec/encoder_settings.h"
#include "codec/h264_encoder.h"
#include "codec/line_follower.h"
#include "codec/picture_layout.h"
#include "codec/picture_source.h"
#include "codec/rate_meter.h"
#include "zumod/codec.h"
#include "zumod/ref_ptr.h"

namespace zumod {

class CVideoEncoder final : public CCounted_T<IVEncoder> {
public:
    // A clock that only rises.
    using Now = LineFollower::Duration (*)();

    explicit CVideoEncoder(const EncoderPolicy& policy, Now now = &SystemNow)
        : m_policy(policy), m_now(now) {}

    // Accepts "IVEncoder" in any letter case.
    bool QueryInterface(const char* name, void** out) override;
    // Accepts kPropertyHardware, a boolean, which takes effect when the next encoder is opened.
    bool SetProperty(const char* key, IZUModData* value) override;
    // Returns kPropertyHardware or kPropertyStreamHeader, borrowed until the property changes, or null.
    IZUModData* GetProperty(const char* key) override;

    // Stores the record; Encode checks it against the picture. Returns 1, or 0 if `format` is null.
    int SetInputFormat(const VideoInputFormat* format) override;
    // Logs one line on failure. Returns false silently if a hardware encoder has no bytes yet, or memory runs
    // out.
    bool Encode(IVEncArgs* args) override;

private:
    bool EncodeArgs(IVEncArgs& args);
    static LineFollower::Duration SystemNow();
    // Computes the layout of the call's picture; false if the record and the bytes do not describe one.
    bool LayOutInput(IVEncArgs& args, PictureLayout& layout);
    bool EnsureOpen(const PictureLayout& layout);
    bool OpenFor(const PictureLayout& layout);
    int EncodePicture(const PictureLayout& layout, const uint8_t* bytes);
    bool HandOut(IVEncArgs& args);

    const EncoderPolicy m_policy;
    const Now m_now;
    LineFollower m_follower;
    RateMeter m_meter;
    VideoInputFormat m_record{};
    bool m_hardware_allowed = false;
    bool m_hardware_failed = false;
    PictureSource m_source;
    H264Encoder m_encoder;
    CRefPtr_T<IZUModData> m_hardware_value;
    CRefPtr_T<IZUModData> m_stream_header;
};

}  // namespace zumod
