// The create function of the module's descriptor.
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"

namespace zumod {

// [any thread]. Creates the plugin that `props` asks for by interface name and version. On success stores the
// plugin's IClientCameraPlugin face where `out` points, with one reference for the caller, and returns 1.
// Refuses with 0 and `out` untouched otherwise.
int camera_client_create(IZUModCreatePolicy* props, IZUModInterface** out);

}  // namespace zumod
