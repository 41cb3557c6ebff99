// The loader of other modules. It keeps no table of loaded modules: the dynamic loader counts them.
//
// Thread rule: [any thread]. No lock is held while a module is loaded, attached or called.
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"
#include "zumod/ref_ptr.h"

namespace zumod {

// Loads module `name`, attaches it to this module's host (null if there is none) and calls it to create the
// object that `policy`, which may be empty, describes. `*out` receives the object, with one reference for the
// caller, as a pointer to the requested interface (see TakeInterface). On failure it receives null, and the
// log says why.
//
// On success `*handleOut`, unless `handleOut` is null, receives the library's handle, for ZuModUnloadModule
// after the object is destroyed. If `handleOut` is null the module stays loaded until the process ends. A
// module that refuses is detached and closed.
//
// An exception of the host or of the policy propagates to the caller, with nothing stored. The module then
// stays loaded, because the code of the exception may be in it.
void ZuModLoadModule(IZUModInterface** out, const char* name, const CRefPtr_T<IZUModCreatePolicy>& policy,
                     void** handleOut, bool usePerModuleDir);

// Calls the module's detach function, if it has one, and closes the handle. Does nothing for null.
void ZuModUnloadModule(void* handle);

}  // namespace zumod
