// The set of named values that goes with a request to create an object in another module, and the keys that
// modules of this family agree on.
//
// Thread rule: AddRef and Release are [any thread]; all else is [the thread that creates]. A create function
// that keeps the policy beyond its call adds a reference, and then still uses it on one thread at a time.
#pragma once

#include <cstdint>

#include "zumod/mod_data.h"
#include "zumod/reference.h"

namespace zumod {

// Text: the name of the wanted interface, compared without regard to letter case.
inline constexpr char kPolicyInterfaceName[] = "zu.module.interface.name";
// Integer: the wanted interface version; its top 16 bits are the major version.
inline constexpr char kPolicyVersion[] = "zu.module.version";

// Binary table: slots 0 to 3 are IReference's.
class IZUModCreatePolicy : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. `key` is NUL-terminated text, borrowed, compared byte by byte. Returns a fresh copy of the
    // value with a count of 0 (the caller adds the first reference and thereby owns it), or null when there
    // is no such policy. What the caller does to the copy does not change the policy.
    virtual IZUModData* GetPolicy(const char* key) = 0;
};

static_assert(sizeof(IZUModCreatePolicy) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
