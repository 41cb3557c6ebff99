// Factories of video encoders and decoders. They come from the module "zu-codec", which is loaded on first
// use and never closed, because the code of the objects is in it.
//
// Thread rule: [any thread].
#pragma once

#include <cstdint>

#include "zumod/codec.h"
#include "zumod/ref_ptr.h"

namespace zumod {

// Empty on failure, which is logged. Empty without a log line for image type 11, which has no encoder.
CRefPtr_T<IVEncoder> CreateVideoEncoder(uint32_t imageType, bool rapidSub, bool noStreamHeader,
                                        bool fileRecord, bool sourceRgb);

// `screenBuffer` is the address of a frame buffer that the caller owns, or 0. Empty on failure, which is
// logged.
CRefPtr_T<IVDecoder> CreateVideoDecoder(uint32_t imageType, int32_t targetAvFormat, uint64_t screenBuffer);

}  // namespace zumod
