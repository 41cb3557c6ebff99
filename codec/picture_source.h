// Turns a picture's bytes into the frame that an encoder takes: without a copy where the encoder can read
// them in place, otherwise as a padded or converted copy.
//
// Thread rule: [encode thread]: one thread at a time.
#pragma once

#include <cstdint>

#include "codec/picture_layout.h"
#include "common/av_objects.h"

namespace zumod {

// H.264 with 4:2:0 chroma has even sides only: an odd side gets one more column or row.
constexpr int EvenSide(int side) {
    return side + side % 2;
}

class PictureSource {
public:
    // Returns the picture with even sides, in `format`. An added column or row repeats the last one. Returns
    // null if memory runs out or the library fails. The frame is valid until Release, which must be called
    // before `bytes` are freed or changed.
    AVFrame* Take(const PictureLayout& layout, const uint8_t* bytes, AVPixelFormat format, bool fast);

    // Ends the use of the bytes. Returns false if another reference to them is still held.
    bool Release();

private:
    AVFrame* Borrow(const PictureLayout& layout, const uint8_t* bytes);
    AVFrame* Pad(const PictureLayout& layout, const uint8_t* bytes);
    // `borrowed`: the frame's data are the caller's bytes, past whose end nothing may be read.
    AVFrame* Convert(const AVFrame& picture, AVPixelFormat format, bool fast, bool borrowed);
    AVFrame* CopyTail(const AVFrame& picture, int first);

    AvOwner<AVBufferRef> m_loan;
    AvOwner<AVFrame> m_borrowed;
    AvOwner<AVFrame> m_padded;
    AvOwner<AVFrame> m_converted;
    AvOwner<AVFrame> m_tail;
    AvOwner<SwsContext> m_scaler;
};

}  // namespace zumod
