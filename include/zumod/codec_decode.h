// What an IVDecoder of the reference codec module takes and gives: the picture format that is asked for, one
// decode call's argument, and the decoded picture.
//
// Thread rule: [decode thread]: a decoder and the arguments of its calls belong to one thread at a time.
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

// What IVDecoder's slot 10, SetOutputFormat, points at; borrowed for the call. It returns 1 when decoded
// pictures will be like this, 0 when it refuses; then everything stays as it was. Without it pictures have
// the stream's size and the format of the policy.
struct VideoOutputFormat {
    // The size that pictures are scaled to; both 0 for the stream's own.
    int32_t width;
    int32_t height;
    // Bytes per row of the first plane in the frame buffer of the policy kPolicyDecScreenBuffer; not looked
    // at without one. Such a buffer holds the planes one behind the other without a gap, the chroma rows of
    // I420 half as long as the luma's, rounded up, and those of NV12 as long, rounded up to an even number.
    // It needs a size of its own, and is written to only after this call.
    int32_t stride;
    // VideoFormatCode("I420"), VideoFormatCode("NV12") or 0 for BGR with 32 bits a pixel.
    uint32_t format;
};

static_assert(offsetof(VideoOutputFormat, width) == 0);
static_assert(offsetof(VideoOutputFormat, height) == 4);
static_assert(offsetof(VideoOutputFormat, stride) == 8);
static_assert(offsetof(VideoOutputFormat, format) == 12);
static_assert(sizeof(VideoOutputFormat) == 16);

// One decoded picture. The planes stay the decoder's (or are in the caller's frame buffer).
struct VideoDecodedPicture {
    int32_t width;   // pixels
    int32_t height;  // pixels
    uint32_t format;
    int32_t plane_count;  // 3 for I420 (Y, U, V), 2 for NV12 (Y, UV), 1 for BGR
    const uint8_t* planes[3];
    int32_t strides[3];  // bytes per row; never negative
    int32_t key_frame;   // 1 for a picture that needs no other, otherwise 0
};

static_assert(offsetof(VideoDecodedPicture, format) == 8);
static_assert(offsetof(VideoDecodedPicture, plane_count) == 12);
static_assert(offsetof(VideoDecodedPicture, planes) == 16);
static_assert(offsetof(VideoDecodedPicture, strides) == 40);
static_assert(offsetof(VideoDecodedPicture, key_frame) == 52);
static_assert(sizeof(VideoDecodedPicture) == 56);

// Binary table: slots 0 to 3 are IReference's. Implemented by whoever calls a decoder, which takes it as the
// argument of its slot 20, Decode, and keeps no reference beyond the call.
//
// Decode returns true when at least one picture was handed to OnPicture, false when there was none: the bytes
// are damaged (one log line), or the decoder waits for more.
class IVDecArgs : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. The first encoded byte; the bytes stay the caller's.
    virtual const void* GetInputData() = 0;
    // Slot 5. How many encoded bytes there are: one whole picture, in Annex B form. 0 asks for the pictures
    // that the decoder still holds; after that the next picture must be a key frame.
    virtual uint64_t GetInputSize() = 0;
    // Slot 6. Takes one picture. `picture` and what its planes point at are valid during the call alone,
    // except that a frame buffer of the caller's keeps what was written to it.
    virtual void OnPicture(const VideoDecodedPicture* picture) = 0;
};

static_assert(sizeof(IVDecArgs) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
