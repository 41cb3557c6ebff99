// What every object that a module creates can do: name its other interfaces and take properties.
//
// Thread rule: AddRef and Release are [any thread]; all else is [one thread at a time].
#pragma once

#include <cstdint>

#include "zumod/mod_data.h"
#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's.
class IZUModInterface : public virtual IReference {
public:
    // Slots 2 and 3, declared again: whoever calls them through this interface needs no more of an object
    // than its table.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. `name` is NUL-terminated text. On success stores the face of that name, with one reference for
    // the caller, where `out` points and returns true; otherwise leaves `out` alone and returns false.
    virtual bool QueryInterface(const char* name, void** out) = 0;

    // Slot 5. `key` is NUL-terminated text; `value` is borrowed: an object that keeps it adds a reference.
    // Returns whether the object knows the property and took the value.
    virtual bool SetProperty(const char* key, IZUModData* value) = 0;

    // Slot 6. `key` is NUL-terminated text. Returns the property's value, or null when there is none. The
    // caller adds one reference while it reads and releases that one: a value made for the call ends with it.
    virtual IZUModData* GetProperty(const char* key) = 0;
};

static_assert(sizeof(IZUModInterface) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
