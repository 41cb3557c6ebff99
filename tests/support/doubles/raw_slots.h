// Calls an operation by its slot number in the object's table, as a module by a third party does.
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
