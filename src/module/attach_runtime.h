// How the host's runtime comes and goes: the functions behind the descriptor's two fields.
#pragma once

#include "zumod/runtime.h"

namespace zumod {

// [any thread]. Returns 1, or 0 for a null host. The module's own runtime is accepted and not stored: it
// would forward to itself.
int AttachRuntime(IZUModRuntime* host);

// [any thread].
void DetachRuntime();

}  // namespace zumod
