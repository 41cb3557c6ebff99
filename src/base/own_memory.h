// The module's own lack of memory, as an exception type.
//
// If the module runs out of memory in create, in Run or in the start of a capture, that step fails. What a
// host object throws goes on to the host instead, and a host object may throw std::bad_alloc too. Both happen
// in the same functions, because these log between their allocations. So each step that allocates runs in
// Allocate(), where no host object is called, and only OutOfMemory is caught.
//
// Thread rule: [any thread].
#pragma once

#include <new>
#include <string>

#include "src/base/lock.h"

namespace zumod {

class OutOfMemory final : public std::bad_alloc {};

// Returns the result of the step. Throws OutOfMemory if the step runs out of memory. Runs the step under the
// locks of the caller.
template <class Step>
auto Allocate(Step step) ZU_NO_THREAD_SAFETY_ANALYSIS {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        throw OutOfMemory();
    }
}

// Copies a text of a host object. A null text becomes an empty one. Throws OutOfMemory.
inline std::string CopyText(const char* text) {
    return Allocate([text] { return std::string(text != nullptr ? text : ""); });
}

}  // namespace zumod
