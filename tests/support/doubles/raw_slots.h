// Calls an operation the way a module written by someone else does: through the object's table, by slot
// number.
#pragma once

#include <cstddef>

namespace zumod::testing {

template <class Result = void, class... Arguments>
Result CallSlot(const void* object, size_t slot, Arguments... arguments) {
    using Operation = Result (*)(const void*, Arguments...);
    const auto* table = *static_cast<Operation* const*>(object);
    return table[slot](object, arguments...);
}

}  // namespace zumod::testing
