// The module-wide default allocator, and functions that create a buffer with content.
//
// Thread rule: [any thread].
#pragma once

#include <cstdint>

#include "src/base/buffer.h"

namespace zumod {

// Created when the module is loaded, released by an exit handler when it is unloaded.
extern CRefPtr_T<IMemAlloctor> g_pDefaultAlloctor;

// A buffer that holds a copy of `length` bytes; empty if the allocator is null or memory is short.
CRefPtr_T<IBuffer> CreateBuffer(IMemAlloctor* alloctor, const void* bytes, uint64_t length);

// The same with the default allocator.
CRefPtr_T<IBuffer> CreateBuffer(const void* bytes, uint64_t length);

}  // namespace zumod
