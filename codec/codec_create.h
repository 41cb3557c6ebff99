// The create function of the codec module's descriptor.
//
// Thread rule: [any thread].
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"

namespace zumod {

// Creates the encoder or decoder that `policy` asks for by interface name, version and image type. On success
// stores the requested interface pointer in `*out`, with one reference for the caller, and returns 1.
// Otherwise logs one line, leaves `*out` unchanged and returns 0.
int codec_create(IZUModCreatePolicy* policy, IZUModInterface** out);

}  // namespace zumod
