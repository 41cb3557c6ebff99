// How the camera module gets its video encoder, and a decoder for whoever wants one: from the module
// "zu-codec", which is loaded on first use and never closed, since the code of the objects is in it.
//
// Thread rule: [any thread].
#pragma once

#include <cstdint>

#include "zumod/codec.h"
#include "zumod/ref_ptr.h"

namespace zumod {

// Empty on failure, which the log explains; empty without a word for image type 11, which is no encoder's.
CRefPtr_T<IVEncoder> CreateVideoEncoder(uint32_t imageType, bool rapidSub, bool noStreamHeader,
                                        bool fileRecord, bool sourceRgb);

// `screenBuffer` is the address of a frame buffer that the caller keeps, or 0. Empty on failure.
CRefPtr_T<IVDecoder> CreateVideoDecoder(uint32_t imageType, int32_t targetAvFormat, uint64_t screenBuffer);

}  // namespace zumod
