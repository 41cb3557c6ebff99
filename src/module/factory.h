// The create function of the module's descriptor.
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"

namespace zumod {

// Refuses every request: there is no object to create yet.
int camera_client_create(IZUModCreatePolicy* props, IZUModInterface** out);

}  // namespace zumod
