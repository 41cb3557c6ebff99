// The record that describes a module to its host, and the one function that a module exports.
//
//     void* library = dlopen("zu-client-camera.so", RTLD_NOW);
//     auto entry = reinterpret_cast<zumod::EntryPointFunction>(dlsym(library, zumod::kEntryPointName));
//     const zumod::ZUModDescriptor* module = entry();
//
// Thread rule: every function is [any thread].
#pragma once

#include <cstddef>
#include <cstdint>

#include "zumod/create_policy.h"
#include "zumod/mod_interface.h"
#include "zumod/runtime.h"

namespace zumod {

// Sets the host's runtime, which the module borrows until the matching detach; attaching again replaces it.
// Returns 1, or 0 for a null host. A module that loads another one attaches it to its own host, or to null if
// it has none, before it creates each object, and ignores the result. The camera module keeps its host when
// it is attached to null; a module that another one loads should detach instead, as zu-codec does, because
// its earlier host may be gone.
using AttachRuntimeFunction = int (*)(IZUModRuntime* host);

// Detaches the host: the module no longer calls its runtime, and log lines go to standard output.
using DetachRuntimeFunction = void (*)();

// Creates the object that `policy` describes. On success stores it where `out` points, as a pointer to the
// requested interface (see StoreInterface), with one reference for the caller, and returns 1. Otherwise
// leaves `out` unchanged and returns 0. The camera module also refuses if it runs out of memory itself. What
// a host object throws goes on to the host, std::bad_alloc included. `policy` is borrowed and may be null. A
// module that was loaded by another one and refuses is detached and closed at once.
using CreateFunction = int (*)(IZUModCreatePolicy* policy, IZUModInterface** out);

// One static record per module. The host reads it field by field, so order and widths are binding.
struct ZUModDescriptor {
    uint64_t version;  // top 16 bits: major version
    const char* name;
    AttachRuntimeFunction attach_runtime;
    DetachRuntimeFunction detach_runtime;  // may be null in other modules
    CreateFunction create;
    const char* build_stamp;  // date and time of the build, to be shown
};

static_assert(offsetof(ZUModDescriptor, version) == 0);
static_assert(offsetof(ZUModDescriptor, name) == 8);
static_assert(offsetof(ZUModDescriptor, attach_runtime) == 16);
static_assert(offsetof(ZUModDescriptor, detach_runtime) == 24);
static_assert(offsetof(ZUModDescriptor, create) == 32);
static_assert(offsetof(ZUModDescriptor, build_stamp) == 40);
static_assert(sizeof(ZUModDescriptor) == 48);

inline constexpr char kEntryPointName[] = "zumod_get_entrypoint";
using EntryPointFunction = const ZUModDescriptor* (*)();

}  // namespace zumod
