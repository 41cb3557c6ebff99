// The encoder that the module creates: checks each picture's record against its bytes and hands it to an
// encoder of libavcodec that it opens for the picture's size and format.
//
// Thread rule: AddRef and Release are [any thread], everything else [encode thread]: one thread at a time.
#pragma once

#include "codec/encoder_settings.h"
#include "codec/h264_encoder.h"
#include "codec/picture_layout.h"
#include "codec/picture_source.h"
#include "zumod/codec.h"
#include "zumod/ref_ptr.h"

namespace zumod {

class CVideoEncoder final : public IVEncoder, private CReference {
public:
    explicit CVideoEncoder(const EncoderPolicy& policy) : m_policy(policy) {}

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    // Knows "IVEncoder", in any letter case.
    bool QueryInterface(const char* name, void** out) override;
    // Knows kPropertyHardware, a boolean. It counts from the next opening of an encoder on.
    bool SetProperty(const char* key, IZUModData* value) override;
    // Knows kPropertyHardware and kPropertyStreamHeader. The value stays the encoder's until the property
    // changes.
    IZUModData* GetProperty(const char* key) override;

    // Stores the record, which is checked against the picture in Encode. Returns 1, or 0 for a null one.
    int SetInputFormat(const VideoInputFormat* format) override;
    // False after one log line, or without one when a hardware encoder has no bytes yet.
    bool Encode(IVEncArgs* args) override;

private:
    // The picture of a call, if the record and the bytes make one.
    bool LayOutInput(IVEncArgs& args, PictureLayout& layout);
    bool EnsureOpen(const PictureLayout& layout);
    bool OpenFor(const PictureLayout& layout);
    int EncodePicture(const PictureLayout& layout, const uint8_t* bytes);
    bool HandOut(IVEncArgs& args);

    const EncoderPolicy m_policy;
    VideoInputFormat m_record{};
    bool m_hardware_allowed = false;
    bool m_hardware_failed = false;
    PictureSource m_source;
    H264Encoder m_encoder;
    CRefPtr_T<IZUModData> m_hardware_value;
    CRefPtr_T<IZUModData> m_stream_header;
};

}  // namespace zumod
