// The number of references on a buffer.
//
// Thread rule: [any thread].
#pragma once

#include <cstdint>

#include "src/base/buffer.h"

namespace zumod::testing {

// The references on a buffer, without the caller's.
inline int64_t OtherReferences(IBuffer& buffer) {
    buffer.AddRef();
    return buffer.Release() - 1;
}

}  // namespace zumod::testing
