// The named values of a request to create an object in another module, and the keys that all modules know.
// zumod/policies.h has ready-made policies and readers.
//
// Thread rule: AddRef and Release are [any thread]; all else is [the thread that creates]. A create function
// that keeps the policy after its call adds a reference, and then uses it on one thread at a time.
#pragma once

#include <cstdint>

#include "zumod/mod_data.h"
#include "zumod/reference.h"

namespace zumod {

// Text: the name of the wanted interface, compared without regard to the case of ASCII letters.
inline constexpr char kPolicyInterfaceName[] = "zu.module.interface.name";
// Integer: the wanted interface version; its top 16 bits are the major version.
inline constexpr char kPolicyVersion[] = "zu.module.version";

// Binary table: slots 0 to 3 are IReference's.
class IZUModCreatePolicy : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. `key` is NUL-terminated text, borrowed, compared byte by byte. Returns a new copy of the
    // value with a count of 0 (the caller adds the first reference and so owns it), or null for an unknown
    // key. Changing the copy does not change the policy.
    virtual IZUModData* GetPolicy(const char* key) = 0;
};

static_assert(sizeof(IZUModCreatePolicy) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
