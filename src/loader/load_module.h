// Loads sibling modules. There is no table of loaded modules: the dynamic loader's own counting is all.
//
// Thread rule: [any thread]. No lock is held while a module is loaded, attached or asked.
#pragma once

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"
#include "zumod/ref_ptr.h"

namespace zumod {

// Loads module `name`, attaches it to this module's host (null when there is none) and has it create the
// object that `policy`, which may be empty, describes. `*out` receives the object, with one reference for the
// caller, as a pointer to the table of the interface that was asked for; or null, after log lines that say
// why.
//
// On success `*handleOut`, if there is one, receives the library's handle, for ZuModUnloadModule when the
// object is gone. Without it the module stays loaded while the process runs. A module that refuses is
// detached and closed.
//
// An exception of the host's or of the policy's goes on to the caller, with nothing stored; the module then
// stays loaded, because the exception itself may live in it.
void ZuModLoadModule(IZUModInterface** out, const char* name, const CRefPtr_T<IZUModCreatePolicy>& policy,
                     void** handleOut, bool usePerModuleDir);

// Detaches the module, if it has a way to, and gives the handle back. Does nothing for null.
void ZuModUnloadModule(void* handle);

}  // namespace zumod
