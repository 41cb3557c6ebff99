// The functions of the module's descriptor that attach and detach the host's runtime.
//
// Thread rule: [any thread].
#pragma once

#include "zumod/runtime.h"

namespace zumod {

// Returns 1, or 0 for a null host. Accepts but does not store the module's own runtime, which would forward
// to itself.
int AttachRuntime(IZUModRuntime* host);

void DetachRuntime();

}  // namespace zumod
