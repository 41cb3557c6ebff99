// The create function of the module's descriptor.
//
// Thread rule: [any thread].
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"

namespace zumod {

// Creates the plugin that `props` describes by interface name and version. On success stores its
// IClientCameraPlugin pointer where `out` points, with one reference for the caller, and returns 1. Otherwise
// leaves `out` unchanged and returns 0.
int camera_client_create(IZUModCreatePolicy* props, IZUModInterface** out);

}  // namespace zumod
