// A creation policy made of named values.
//
// Thread rule: AddRef and Release are [any thread]; all else belongs to one thread at a time.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "zumod/create_policy.h"
#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's, 4 to 6 as declared here.
class CZUModBasePolicyAdapter : public virtual IZUModCreatePolicy, private CReference {
public:
    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    // Slot 4. A copy with a count of 0: whoever asks cannot alter the policy.
    IZUModData* GetPolicy(const char* key) override;

    // Slot 5. Keeps a reference to `value`, which may be null, in the place of the one that had this key.
    // Returns the stored pointer, borrowed.
    virtual IZUModData* SetPolicy(const char* key, CRefPtr_T<IZUModData> value);

    // Slot 6. Sets every policy of `other` here, in key order, through SetPolicy, so that an override of it
    // sees each.
    virtual void CopyPolicies(const CZUModBasePolicyAdapter& other);

private:
    // Ordered by the bytes of the keys, as unsigned numbers.
    std::map<std::string, CRefPtr_T<IZUModData>, std::less<>> m_policies;
};

}  // namespace zumod
