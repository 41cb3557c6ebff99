// A call of an operation by its slot number in the object's vtable, as a third party's module makes it.
//
// Thread rule: that of the operation.
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
