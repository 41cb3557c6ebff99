// The interface of every object that a module creates: it returns its other interfaces and takes properties.
//
// Thread rule: AddRef and Release are [any thread]; all else is [one thread at a time].
#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's.
class IZUModInterface : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. `name` is NUL-terminated text. If the object has the interface of that name, stores its
    // interface pointer where `out` points, with one reference for the caller, and returns true. Otherwise
    // leaves `out` unchanged and returns false.
    virtual bool QueryInterface(const char* name, void** out) = 0;

    // Slot 5. `key` is NUL-terminated text; `value` is borrowed: an object that keeps it adds a reference.
    // Returns whether the object knows the property and took the value.
    virtual bool SetProperty(const char* key, IZUModData* value) = 0;

    // Slot 6. `key` is NUL-terminated text. Returns the property's value, or null when there is none. The
    // caller adds a reference before it reads the value and releases it afterwards; that release destroys a
    // value that was created for this call.
    virtual IZUModData* GetProperty(const char* key) = 0;
};

static_assert(sizeof(IZUModInterface) == sizeof(void*), "IReference must be the primary base");

// Whether two interface names are the same, without regard to the case of ASCII letters. strcasecmp() would
// ask the process's locale: in a Turkish one "i" is not the small letter of "I".
inline bool IsSameInterfaceName(std::string_view one, std::string_view other) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [lower](char a, char b) { return lower(a) == lower(b); });
}

// The out slot of a create function has the type of IZUModInterface, but the pointer in it is that of the
// requested interface, `Interface` here. Write and read such a slot only with these two functions.

// For a module: stores `object` as an `Interface` where `out` points, with one reference for the caller.
template <class Interface, class Object>
void StoreInterface(Object* object, IZUModInterface** out) {
    *out = static_cast<IZUModInterface*>(static_cast<void*>(CRefPtr_T<Interface>(object).Detach()));
}

// For a host: the owner of the reference that came with the pointer; empty for null.
template <class Interface>
CRefPtr_T<Interface> TakeInterface(IZUModInterface* created) {
    return CRefPtr_T<Interface>::Adopt(static_cast<Interface*>(static_cast<void*>(created)));
}

}  // namespace zumod
