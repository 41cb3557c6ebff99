#include "src/loader/base_policy_adapter.h"

#include <string_view>
#include <utility>

namespace zumod {

IZUModData* CZUModBasePolicyAdapter::GetPolicy(const char* key) {
    if (key == nullptr) {
        return nullptr;
    }
    const auto found = m_policies.find(std::string_view(key));
    return found != m_policies.end() && found->second != nullptr ? found->second->Clone() : nullptr;
}

IZUModData* CZUModBasePolicyAdapter::SetPolicy(const char* key, CRefPtr_T<IZUModData> value) {
    const std::string_view name(key);
    auto place = m_policies.lower_bound(name);
    if (place == m_policies.end() || place->first != name) {
        place = m_policies.emplace_hint(place, name, nullptr);
    }
    place->second = std::move(value);
    return place->second.Get();
}

void CZUModBasePolicyAdapter::CopyPolicies(const CZUModBasePolicyAdapter& other) {
    for (const auto& [key, value] : other.m_policies) {
        SetPolicy(key.c_str(), value);
    }
}

}  // namespace zumod
