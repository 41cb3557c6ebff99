// Arguments and results of an IVDecoder of the reference codec module: the requested picture format, the
// argument of a decode call, and the decoded picture.
//
// Thread rule: [decode thread]: one thread at a time uses a decoder and the arguments of its calls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zumod/codec.h"
#include "zumod/reference.h"

namespace zumod {

// The values of the policy kPolicyDecTargetAvFormat.
enum VideoTargetFormat : int64_t {
    kVideoTargetI420 = 0,   // three planes
    kVideoTargetNv12 = 1,   // two planes
    kVideoTargetBgr32 = 2,  // one plane: blue, green, red and an unused byte
};

// Integer property of a decoder, 1 to 268435456: the most pixels of a picture, counted in whole macroblocks
// of 16x16 and without cropping. A larger picture is refused before memory is allocated for it, with one log
// line of level kLogFailure. Without the property the limit is 268435456.
inline constexpr char kPropertyMaxPixels[] = "zu.codec.property.max.pixels";

// The argument of IVDecoder's slot 10, SetOutputFormat, borrowed for the call. SetOutputFormat returns 1 if
// decoded pictures will have this format, or 0 if it refuses and changes nothing. Without the call pictures
// have the stream's size and the format of the policy.
struct VideoOutputFormat {
    // The size that pictures are scaled to; both 0 for the stream's own.
    int32_t width;
    int32_t height;
    // Bytes per row of the first plane in the frame buffer of the policy kPolicyDecScreenBuffer; ignored
    // without one. Such a buffer holds the planes one after the other without a gap. A chroma row of I420 is
    // half as long as a luma row, rounded up; one of NV12 is as long, rounded up to an even number. The
    // decoder writes to the buffer only after this call, which must set a size.
    int32_t stride;
    // VideoFormatCode("I420"), VideoFormatCode("NV12") or 0 for BGR with 32 bits per pixel.
    uint32_t format;
};

static_assert(offsetof(VideoOutputFormat, width) == 0);
static_assert(offsetof(VideoOutputFormat, height) == 4);
static_assert(offsetof(VideoOutputFormat, stride) == 8);
static_assert(offsetof(VideoOutputFormat, format) == 12);
static_assert(sizeof(VideoOutputFormat) == 16);

// One decoded picture. The planes belong to the decoder, or lie in the caller's frame buffer.
struct VideoDecodedPicture {
    int32_t width;   // pixels
    int32_t height;  // pixels
    uint32_t format;
    int32_t plane_count;  // 3 for I420 (Y, U, V), 2 for NV12 (Y, UV), 1 for BGR
    const uint8_t* planes[3];
    int32_t strides[3];  // bytes per row; never negative
    int32_t key_frame;   // 1 for a picture that is decoded without another, otherwise 0
};

static_assert(offsetof(VideoDecodedPicture, format) == 8);
static_assert(offsetof(VideoDecodedPicture, plane_count) == 12);
static_assert(offsetof(VideoDecodedPicture, planes) == 16);
static_assert(offsetof(VideoDecodedPicture, strides) == 40);
static_assert(offsetof(VideoDecodedPicture, key_frame) == 52);
static_assert(sizeof(VideoDecodedPicture) == 56);

// Binary table: slots 0 to 3 are IReference's. The caller of a decoder implements it and passes it to slot
// 20, Decode. The decoder keeps no reference beyond the call.
//
// Decode returns true if it passed at least one picture to OnPicture. It returns false if there was none: the
// bytes are damaged (one log line), or the decoder needs more. A picture of which a part is missing is not
// passed on, and neither are those after it up to the next key frame.
class IVDecArgs : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. The first encoded byte; the caller owns the bytes.
    virtual const void* GetInputData() = 0;
    // Slot 5. The number of encoded bytes: one whole picture, in Annex B form. 0 requests the pictures that
    // the decoder still holds; after that the next picture must be a key frame.
    virtual uint64_t GetInputSize() = 0;
    // Slot 6. Receives one picture. `picture` and its planes are valid only during the call; the caller's own
    // frame buffer keeps what was written to it.
    virtual void OnPicture(const VideoDecodedPicture* picture) = 0;
};

static_assert(sizeof(IVDecArgs) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
