// The module-wide default allocator, and buffers filled in one step.
#pragma once

#include <cstdint>

#include "src/base/buffer.h"

namespace zumod {

// Made when the module is loaded, released by an exit handler when it is unloaded.
extern CRefPtr_T<IMemAlloctor> g_pDefaultAlloctor;

// A buffer that holds a copy of `length` bytes; empty with a null allocator and when memory is short.
CRefPtr_T<IBuffer> CreateBuffer(IMemAlloctor* alloctor, const void* bytes, uint64_t length);

// The same from the default allocator.
CRefPtr_T<IBuffer> CreateBuffer(const void* bytes, uint64_t length);

}  // namespace zumod
