// The create function of the codec module's descriptor.
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"

namespace zumod {

// The kind of encoded picture that this module knows: H.264, also known as AVC.
inline constexpr uint64_t kImageTypeH264 = 9;

// [any thread]. Creates the encoder or decoder that `policy` asks for by interface name, version and image
// type. On success stores the face that was asked for where `out` points, with one reference for the caller,
// and returns 1. Refuses with 0, one log line and `out` untouched otherwise.
int codec_create(IZUModCreatePolicy* policy, IZUModInterface** out);

}  // namespace zumod
