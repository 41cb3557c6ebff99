// Ready-made creation policies for a caller that has a module create an object, and readers for the module
// that receives one.
//
// Thread rule: AddRef and Release are [any thread]; all else belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "zumod/create_policy.h"
#include "zumod/mod_data.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"
#include "zumod/values.h"

namespace zumod {

// Required by the contract: the bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

// A creation policy that consists of named values.
//
// Binary table: slots 0 to 3 are IReference's, 4 to 6 as declared here.
class CZUModBasePolicyAdapter : public virtual IZUModCreatePolicy, private CReference {
public:
    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    // Slot 4. Returns a copy with a count of 0, so that the reader cannot change the policy; null for an
    // unknown or null key.
    IZUModData* GetPolicy(const char* key) override {
        if (key == nullptr) {
            return nullptr;
        }
        const auto found = m_policies.find(std::string_view(key));
        return found != m_policies.end() && found->second != nullptr ? found->second->Clone() : nullptr;
    }

    // Slot 5. Stores a reference to `value`, which may be null, in place of the value that had this key.
    // Returns the stored pointer, borrowed.
    virtual IZUModData* SetPolicy(const char* key, CRefPtr_T<IZUModData> value) {
        const std::string_view name(key);
        auto entry = m_policies.lower_bound(name);
        if (entry == m_policies.end() || entry->first != name) {
            entry = m_policies.emplace_hint(entry, name, nullptr);
        }
        entry->second = std::move(value);
        return entry->second.Get();
    }

    // Slot 6. Sets every policy of `other` here, in key order, through SetPolicy, so that an override of it
    // sees each.
    virtual void CopyPolicies(const CZUModBasePolicyAdapter& other) {
        for (const auto& [key, value] : other.m_policies) {
            SetPolicy(key.c_str(), value);
        }
    }

private:
    // Ordered by the bytes of the keys, as unsigned numbers.
    std::map<std::string, CRefPtr_T<IZUModData>, std::less<>> m_policies;
};

// The policy that asks a module for one version of one interface.
class CZUModCreatePolicyAdapter : public CZUModBasePolicyAdapter {
public:
    // The top 16 bits of `version` are the major version. A null name is stored as an empty text.
    CZUModCreatePolicyAdapter(const char* interface_name, uint64_t version) {
        CZUModBasePolicyAdapter::SetPolicy(kPolicyInterfaceName, CZUModData::FromText(interface_name));
        CZUModBasePolicyAdapter::SetPolicy(kPolicyVersion,
                                           CZUModData::FromInt64(static_cast<int64_t>(version)));
    }
};

#pragma GCC diagnostic pop

// The values of a policy from another module. A value that is missing or of another kind reads as an empty
// text, 0 or false. Each reader owns the copy that GetPolicy returns, also while an exception passes.
inline std::string PolicyText(IZUModCreatePolicy& policy, const char* key) {
    const CRefPtr_T<IZUModData> value(policy.GetPolicy(key));
    return TextOf(value.Get()).value_or(std::string());
}
// Versions and types are unsigned.
inline uint64_t PolicyInteger(IZUModCreatePolicy& policy, const char* key) {
    const CRefPtr_T<IZUModData> value(policy.GetPolicy(key));
    return static_cast<uint64_t>(IntegerOf(value.Get()));
}
inline uint64_t PolicyPointer(IZUModCreatePolicy& policy, const char* key) {
    const CRefPtr_T<IZUModData> value(policy.GetPolicy(key));
    return PointerOf(value.Get());
}
inline bool PolicyBool(IZUModCreatePolicy& policy, const char* key) {
    const CRefPtr_T<IZUModData> value(policy.GetPolicy(key));
    return BoolOf(value.Get());
}

}  // namespace zumod
