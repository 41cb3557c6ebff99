#include "src/loader/create_policy_adapter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/loader/mod_data.h"

namespace zumod {
namespace {

class KeyCollector final : public CZUModBasePolicyAdapter {
public:
    IZUModData* SetPolicy(const char* key, CRefPtr_T<IZUModData>) override {
        keys.emplace_back(key);
        return nullptr;
    }
    std::vector<std::string> keys;
};

TEST(CreatePolicyAdapter, ItStoresTheInterfaceNameAsText) {
    const CRefPtr_T<CZUModCreatePolicyAdapter> policy(new CZUModCreatePolicyAdapter("IVEncoder", 1));
    const CRefPtr_T<IZUModData> name(policy->GetPolicy("zu.module.interface.name"));
    EXPECT_EQ(name->GetType(), 4U);
    EXPECT_EQ(name->GetSize(), 10U);
    EXPECT_STREQ(name->GetString(), "IVEncoder");
}

TEST(CreatePolicyAdapter, ItStoresTheVersionAsAnInteger) {
    const CRefPtr_T<CZUModCreatePolicyAdapter> policy(new CZUModCreatePolicyAdapter("x", 0xfedcba9876543210));
    const CRefPtr_T<IZUModData> version(policy->GetPolicy("zu.module.version"));
    EXPECT_EQ(version->GetType(), 2U);
    EXPECT_EQ(static_cast<uint64_t>(version->GetInt64()), 0xfedcba9876543210);
}

TEST(CreatePolicyAdapter, AnEmptyOrAbsentNameIsOneNul) {
    for (const char* absent : {"", static_cast<const char*>(nullptr)}) {
        const CRefPtr_T<CZUModCreatePolicyAdapter> policy(new CZUModCreatePolicyAdapter(absent, 1));
        const CRefPtr_T<IZUModData> name(policy->GetPolicy("zu.module.interface.name"));
        EXPECT_EQ(name->GetType(), 4U);
        EXPECT_EQ(name->GetSize(), 1U);
        EXPECT_STREQ(name->GetString(), "");
    }
}

TEST(CreatePolicyAdapter, ItStoresNothingElse) {
    const CRefPtr_T<CZUModCreatePolicyAdapter> policy(new CZUModCreatePolicyAdapter("x", 1));
    const CRefPtr_T<KeyCollector> collector(new KeyCollector);
    collector->CopyPolicies(*policy);
    EXPECT_EQ(collector->keys, (std::vector<std::string>{"zu.module.interface.name", "zu.module.version"}));
}

}  // namespace
}  // namespace zumod
