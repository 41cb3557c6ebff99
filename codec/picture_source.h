// Makes the frame that an encoder takes out of a picture's bytes: the very bytes where the encoder can read
// them as they lie, a converted copy where it cannot.
//
// Thread rule: [encode thread]: one thread at a time.
#pragma once

#include <cstdint>

#include "codec/picture_layout.h"
#include "common/av_objects.h"

namespace zumod {

// The same picture as libavutil names it, and what the software encoder takes it as.
AVPixelFormat PixelFormatOf(PixelLayout pixel_layout);
AVPixelFormat EncodedFormatOf(PixelLayout pixel_layout);

// H.264 pictures with halved chroma have even sides; an odd one gets one more column or row.
constexpr int EvenSide(int side) {
    return side + side % 2;
}

class PictureSource {
public:
    // The picture with even sides, in `format`. An added column or row repeats the last one. Null when memory
    // is short or the library refuses. Valid until GiveBack, which must come before `bytes` go.
    AVFrame* Take(const PictureLayout& layout, const uint8_t* bytes, AVPixelFormat format, bool fast);

    // Ends the loan of the bytes. False when somebody kept hold of them.
    bool GiveBack();

private:
    AVFrame* Borrow(const PictureLayout& layout, const uint8_t* bytes);
    AVFrame* Pad(const PictureLayout& layout, const uint8_t* bytes);
    // `lent` says that the picture is the caller's bytes, past whose end nothing may be read.
    AVFrame* Convert(const AVFrame& picture, AVPixelFormat format, bool fast, bool lent);
    AVFrame* CopyTail(const AVFrame& picture, int first);

    AvOwner<AVBufferRef> m_loan;
    AvOwner<AVFrame> m_borrowed;
    AvOwner<AVFrame> m_padded;
    AvOwner<AVFrame> m_converted;
    AvOwner<AVFrame> m_tail;
    AvOwner<SwsContext> m_scaler;
};

}  // namespace zumod
