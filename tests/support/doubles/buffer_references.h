// Who else holds a buffer.
#pragma once

#include <cstdint>

#include "src/base/buffer.h"

namespace zumod::testing {

// The references on a buffer beside the one that asks.
inline int64_t OtherReferences(IBuffer& buffer) {
    buffer.AddRef();
    return buffer.Release() - 1;
}

}  // namespace zumod::testing
