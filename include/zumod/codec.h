// The video encoder and decoder of the module "zu-codec", and the policies and properties that configure
// them. Once the module has created an object it stays loaded until the process ends.
//
// Thread rule: one thread at a time uses an encoder or a decoder; AddRef and Release are [any thread].
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

// Integer: the kind of encoded picture. The camera module asks for H.264; the codec module defines the
// others.
inline constexpr char kPolicyImageType[] = "zu.codec.policy.imagetype";
inline constexpr uint32_t kImageTypeH264 = 9;
// Booleans of the encoder.
inline constexpr char kPolicyEncRapidSub[] = "zu.codec.policy.enc.rapid.sub";
inline constexpr char kPolicyEncNoStreamHeader[] = "zu.codec.policy.enc.no.stream.header";
inline constexpr char kPolicyEncFileRecord[] = "zu.codec.policy.enc.file.record";
inline constexpr char kPolicyEncSourceRgb[] = "zu.codec.policy.enc.source.rgb";
// Pointer: a frame buffer of the caller that the decoder writes to, or 0.
inline constexpr char kPolicyDecScreenBuffer[] = "zu.codec.policy.dec.screenbuffer";
// Integer: the pixel format that the decoder delivers. The codec module defines the numbers.
inline constexpr char kPolicyDecTargetAvFormat[] = "zu.codec.policy.dec.target.avformat";
// Boolean property, set to true on every codec object right after its creation: the codec may use hardware.
inline constexpr char kPropertyHardware[] = "zu.codec.property.hardware";
// Block property, read from an encoder of the reference module that was created with
// kPolicyEncNoStreamHeader: the parameter sets that the stream lacks, in Annex B form. There is none before
// the first picture. It changes with the picture's size and with the rate that the stream states.
inline constexpr char kPropertyStreamHeader[] = "zu.codec.property.stream.header";

// The code of a named pixel format: its four characters in memory order.
constexpr uint32_t VideoFormatCode(const char (&name)[5]) {
    uint32_t code = 0;
    for (int i = 3; i >= 0; --i) {
        code = (code << 8) | static_cast<unsigned char>(name[i]);
    }
    return code;
}

// The layout of a picture.
struct VideoInputFormat {
    int32_t width;           // pixels
    int32_t height;          // pixels
    int32_t stride;          // bytes per row of the first plane
    int32_t bits_per_pixel;  // of the first plane
    // Four ASCII characters in memory order: "NV12", "NV21", "I420", "YV12", "YUY2"; 0 means BGR with 32 bits
    // per pixel.
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
// [encode thread]: one thread at a time. The camera module calls only slots 2, 3, 5, 10 and 20.
class IVEncoder : public virtual IReference, public virtual IZUModInterface {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slots 7 to 9, reserved. Return 0.
    virtual int ReservedEncoder7() { return 0; }
    virtual int ReservedEncoder8() { return 0; }
    virtual int ReservedEncoder9() { return 0; }

    // Slot 10. Sets the layout of the next picture; called before every picture. `format` is borrowed for the
    // call. The camera module ignores the result.
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

    // Slot 20. Encodes one picture. Returns true if the output of `args` holds encoded bytes (PrepareOutput
    // was called), false if there is nothing to send for this picture.
    virtual bool Encode(IVEncArgs* args) = 0;
};

// Binary table: the same slots as IVEncoder. The codec module defines what the arguments of slots 10 and 20
// point at; the camera module calls neither. zumod/codec_decode.h has those of the reference module.
class IVDecoder : public virtual IReference, public virtual IZUModInterface {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slots 7 to 9, reserved. Return 0.
    virtual int ReservedDecoder7() { return 0; }
    virtual int ReservedDecoder8() { return 0; }
    virtual int ReservedDecoder9() { return 0; }

    // Slot 10. Sets the layout of decoded pictures.
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
