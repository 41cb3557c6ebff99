// The video encoder and decoder that the module "zu-codec" supplies, and the policies and properties with
// which they are asked for. Once it has made an object the module stays loaded until the process ends.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zumod/enc_args.h"
#include "zumod/mod_interface.h"
#include "zumod/reference.h"

namespace zumod {

inline constexpr char kCodecModuleName[] = "zu-codec";
inline constexpr char kVideoEncoderName[] = "IVEncoder";
inline constexpr char kVideoDecoderName[] = "IVDecoder";
// The version that the camera module asks for, for both: major 1.
inline constexpr uint64_t kCodecInterfaceVersion = 0x0001000000000002;

// Integer: the kind of encoded picture. The numbers are the codec module's; the camera module asks for H.264.
inline constexpr char kPolicyImageType[] = "zu.codec.policy.imagetype";
inline constexpr uint32_t kImageTypeH264 = 9;
// Booleans of the encoder.
inline constexpr char kPolicyEncRapidSub[] = "zu.codec.policy.enc.rapid.sub";
inline constexpr char kPolicyEncNoStreamHeader[] = "zu.codec.policy.enc.no.stream.header";
inline constexpr char kPolicyEncFileRecord[] = "zu.codec.policy.enc.file.record";
inline constexpr char kPolicyEncSourceRgb[] = "zu.codec.policy.enc.source.rgb";
// Pointer: a frame buffer of the caller's that the decoder writes to, or 0.
inline constexpr char kPolicyDecScreenBuffer[] = "zu.codec.policy.dec.screenbuffer";
// Integer: the pixel format that the decoder is to deliver. The numbers are the codec module's.
inline constexpr char kPolicyDecTargetAvFormat[] = "zu.codec.policy.dec.target.avformat";
// Boolean property, set to true on every codec object right after its creation: hardware may be used.
inline constexpr char kPropertyHardware[] = "zu.codec.property.hardware";
// Block property to read, of an encoder of the reference module that was created with
// kPolicyEncNoStreamHeader: the parameter sets that the stream lacks, in Annex B form; none before the first
// picture. It changes with the picture's size.
inline constexpr char kPropertyStreamHeader[] = "zu.codec.property.stream.header";

// The code of a named pixel format: its four characters in memory order.
constexpr uint32_t VideoFormatCode(const char (&name)[5]) {
    uint32_t code = 0;
    for (int i = 3; i >= 0; --i) {
        code = (code << 8) | static_cast<unsigned char>(name[i]);
    }
    return code;
}

// How the bytes of a picture are laid out.
struct VideoInputFormat {
    int32_t width;           // pixels
    int32_t height;          // pixels
    int32_t stride;          // bytes per row of the first plane
    int32_t bits_per_pixel;  // of the first plane
    // Four ASCII characters in memory order: "NV12", "NV21", "I420", "YV12", "YUY2"; 0 stands for BGR with 32
    // bits a pixel.
    uint32_t format;
};

static_assert(offsetof(VideoInputFormat, width) == 0);
static_assert(offsetof(VideoInputFormat, height) == 4);
static_assert(offsetof(VideoInputFormat, stride) == 8);
static_assert(offsetof(VideoInputFormat, bits_per_pixel) == 12);
static_assert(offsetof(VideoInputFormat, format) == 16);
static_assert(sizeof(VideoInputFormat) == 20);

// Binary table: slots 0 to 3 are IReference's, 4 to 6 IZUModInterface's.
//
// [encode thread]: one thread at a time; the camera module calls slots 2, 3, 5, 10 and 20 only.
class IVEncoder : public virtual IReference, public virtual IZUModInterface {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slots 7 to 9, reserved. Return 0.
    virtual int ReservedEncoder7() { return 0; }
    virtual int ReservedEncoder8() { return 0; }
    virtual int ReservedEncoder9() { return 0; }

    // Slot 10. Says how the next picture is laid out; called before every picture. `format` is borrowed for
    // the call. The result is ignored by the camera module.
    virtual int SetInputFormat(const VideoInputFormat* format) = 0;

    // Slots 11 to 19, reserved. Return 0.
    virtual int ReservedEncoder11() { return 0; }
    virtual int ReservedEncoder12() { return 0; }
    virtual int ReservedEncoder13() { return 0; }
    virtual int ReservedEncoder14() { return 0; }
    virtual int ReservedEncoder15() { return 0; }
    virtual int ReservedEncoder16() { return 0; }
    virtual int ReservedEncoder17() { return 0; }
    virtual int ReservedEncoder18() { return 0; }
    virtual int ReservedEncoder19() { return 0; }

    // Slot 20. Encodes one picture. Returns true when encoded bytes are in the output of `args`
    // (PrepareOutput was called), false when there is nothing to send for this picture.
    virtual bool Encode(IVEncArgs* args) = 0;
};

// Binary table: the frame of IVEncoder. What the arguments of slots 10 and 20 point at is the codec module's
// design, and the camera module calls neither; "zumod/codec_decode.h" has those of the reference module.
class IVDecoder : public virtual IReference, public virtual IZUModInterface {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slots 7 to 9, reserved. Return 0.
    virtual int ReservedDecoder7() { return 0; }
    virtual int ReservedDecoder8() { return 0; }
    virtual int ReservedDecoder9() { return 0; }

    // Slot 10. Says how decoded pictures are to be laid out.
    virtual int SetOutputFormat(const void* format) = 0;

    // Slots 11 to 19, reserved. Return 0.
    virtual int ReservedDecoder11() { return 0; }
    virtual int ReservedDecoder12() { return 0; }
    virtual int ReservedDecoder13() { return 0; }
    virtual int ReservedDecoder14() { return 0; }
    virtual int ReservedDecoder15() { return 0; }
    virtual int ReservedDecoder16() { return 0; }
    virtual int ReservedDecoder17() { return 0; }
    virtual int ReservedDecoder18() { return 0; }
    virtual int ReservedDecoder19() { return 0; }

    // Slot 20. Decodes one encoded picture.
    virtual bool Decode(IReference* args) = 0;
};

static_assert(sizeof(IVEncoder) == sizeof(void*), "IZUModInterface must be the primary base");
static_assert(sizeof(IVDecoder) == sizeof(void*), "IZUModInterface must be the primary base");

}  // namespace zumod
