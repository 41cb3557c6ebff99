#include "zumod/policies.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/doubles/counted_object.h"
#include "tests/support/doubles/raw_slots.h"
#include "zumod/values.h"

namespace zumod {
namespace {

using testing::CallSlot;
using testing::CountedData;
using testing::ReferenceLedger;
using Entry = std::pair<std::string, IZUModData*>;

// IReference is a base of these classes twice, as it is of the adapter.
#pragma GCC diagnostic ignored "-Winaccessible-base"

// Records every entry that is set.
class RecordingPolicy final : public CZUModBasePolicyAdapter {
public:
    IZUModData* SetPolicy(const char* key, CRefPtr_T<IZUModData> value) override {
        entries.emplace_back(key, value.Get());
        return CZUModBasePolicyAdapter::SetPolicy(key, std::move(value));
    }
    std::vector<Entry> entries;
};

// Records the keys that are set.
class KeyCollector final : public CZUModBasePolicyAdapter {
public:
    IZUModData* SetPolicy(const char* key, CRefPtr_T<IZUModData>) override {
        keys.emplace_back(key);
        return nullptr;
    }
    std::vector<std::string> keys;
};

class BasePolicyAdapterTest : public ::testing::Test {
protected:
    CRefPtr_T<IZUModData> Number(int64_t number) {
        return CRefPtr_T<IZUModData>(new CountedData(ledger, 2, CountedData::Int64Bytes(number)));
    }
    int64_t NumberOf(const char* key) {
        const CRefPtr_T<IZUModData> value(policy->GetPolicy(key));
        return value != nullptr ? value->GetInt64() : -1;
    }

    ReferenceLedger ledger;
    CRefPtr_T<CZUModBasePolicyAdapter> policy{new CZUModBasePolicyAdapter};
};

TEST_F(BasePolicyAdapterTest, ANewPolicyHasACountOfZero) {
    auto* fresh = new CZUModBasePolicyAdapter;
    EXPECT_EQ(fresh->AddRef(), 1U);
    EXPECT_EQ(fresh->Release(), 0);
}

TEST_F(BasePolicyAdapterTest, AnUnknownKeyReturnsNull) {
    EXPECT_EQ(policy->GetPolicy("key"), nullptr);
}

TEST_F(BasePolicyAdapterTest, ANullKeyReturnsNull) {
    EXPECT_EQ(policy->GetPolicy(nullptr), nullptr);
}

TEST_F(BasePolicyAdapterTest, AKeyIsFoundByItsExactTextOnly) {
    policy->SetPolicy("key", Number(1));
    EXPECT_EQ(NumberOf("key"), 1);
    EXPECT_EQ(policy->GetPolicy("Key"), nullptr);
    EXPECT_EQ(policy->GetPolicy("ke"), nullptr);
    EXPECT_EQ(policy->GetPolicy("key "), nullptr);
    EXPECT_EQ(policy->GetPolicy(""), nullptr);
}

TEST_F(BasePolicyAdapterTest, AKeyStoredWithNullReturnsNull) {
    EXPECT_EQ(policy->SetPolicy("key", nullptr), nullptr);
    EXPECT_EQ(policy->GetPolicy("key"), nullptr);
    const CRefPtr_T<RecordingPolicy> copy(new RecordingPolicy);
    copy->CopyPolicies(*policy);
    EXPECT_EQ(copy->entries, std::vector<Entry>({{"key", nullptr}}));
}

TEST_F(BasePolicyAdapterTest, TwoLookUpsReturnTwoNewValuesWithTheSameContent) {
    policy->SetPolicy("key", CZUModData::FromText("text"));
    IZUModData* fresh = policy->GetPolicy("key");
    EXPECT_EQ(fresh->AddRef(), 1U);
    const auto first = CRefPtr_T<IZUModData>::Adopt(fresh);
    const CRefPtr_T<IZUModData> second(policy->GetPolicy("key"));
    EXPECT_NE(first.Get(), second.Get());
    EXPECT_STREQ(first->GetString(), "text");
    EXPECT_STREQ(second->GetString(), "text");
}

TEST_F(BasePolicyAdapterTest, ChangingALookedUpValueDoesNotChangeThePolicy) {
    policy->SetPolicy("key", CZUModData::FromText("text"));
    const CRefPtr_T<IZUModData> value(policy->GetPolicy("key"));
    *const_cast<char*>(value->GetString()) = 'X';
    EXPECT_STREQ(CRefPtr_T<IZUModData>(policy->GetPolicy("key"))->GetString(), "text");
}

TEST_F(BasePolicyAdapterTest, SettingReturnsTheStoredValueAndHoldsOneReference) {
    auto* value = new CountedData(ledger, 2, {});
    EXPECT_EQ(policy->SetPolicy("key", CRefPtr_T<IZUModData>(value)), value);
    EXPECT_EQ(value->References(), 1);
    policy = nullptr;
    EXPECT_TRUE(ledger.Balanced());
}

TEST_F(BasePolicyAdapterTest, SettingAgainReleasesTheOldValueOnce) {
    const CRefPtr_T<CountedData> old(new CountedData(ledger, 2, CountedData::Int64Bytes(1)));
    policy->SetPolicy("key", old);
    EXPECT_EQ(old->References(), 2);
    policy->SetPolicy("key", Number(2));
    EXPECT_EQ(old->References(), 1);
    EXPECT_EQ(NumberOf("key"), 2);
}

TEST_F(BasePolicyAdapterTest, SettingTheSameValueAgainKeepsIt) {
    const CRefPtr_T<CountedData> value(new CountedData(ledger, 2, CountedData::Int64Bytes(1)));
    policy->SetPolicy("key", value);
    policy->SetPolicy("key", value);
    EXPECT_EQ(value->References(), 2);
    EXPECT_EQ(NumberOf("key"), 1);
}

TEST_F(BasePolicyAdapterTest, SettingNullReleasesTheOldValue) {
    policy->SetPolicy("key", Number(1));
    EXPECT_EQ(policy->SetPolicy("key", nullptr), nullptr);
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(policy->GetPolicy("key"), nullptr);
}

TEST_F(BasePolicyAdapterTest, DestructionReleasesEveryValue) {
    policy->SetPolicy("a", Number(1));
    policy->SetPolicy("b", nullptr);
    policy->SetPolicy("c", Number(3));
    EXPECT_EQ(ledger.Held(), 2);
    policy = nullptr;
    EXPECT_TRUE(ledger.Balanced());
    EXPECT_EQ(ledger.died, 2);
}

TEST_F(BasePolicyAdapterTest, CopyingSetsEveryEntryInTheByteOrderOfTheKeys) {
    std::vector<Entry> expected;
    // Bytes are unsigned: 0xc3 sorts after every letter. A prefix sorts before the longer key.
    for (const char* key : {"", "B", "a", "a.b", "ab", "\xc3\xa4"}) {
        expected.emplace_back(key, nullptr);
    }
    for (const size_t place : {3U, 5U, 0U, 4U, 1U, 2U}) {
        const char* key = expected[place].first.c_str();
        expected[place].second = policy->SetPolicy(key, Number(static_cast<int64_t>(place)));
    }
    const CRefPtr_T<RecordingPolicy> copy(new RecordingPolicy);
    copy->CopyPolicies(*policy);
    EXPECT_EQ(copy->entries, expected);
}

TEST_F(BasePolicyAdapterTest, CopyingSharesTheValuesAndKeepsOtherEntries) {
    const CRefPtr_T<CountedData> shared(new CountedData(ledger, 2, CountedData::Int64Bytes(1)));
    policy->SetPolicy("kept", Number(5));
    policy->SetPolicy("replaced", Number(6));
    {
        const CRefPtr_T<CZUModBasePolicyAdapter> other(new CZUModBasePolicyAdapter);
        other->SetPolicy("new", shared);
        other->SetPolicy("replaced", shared);
        policy->CopyPolicies(*other);
        EXPECT_EQ(shared->References(), 5);
    }
    EXPECT_EQ(shared->References(), 3);
    EXPECT_EQ(NumberOf("kept"), 5);
    EXPECT_EQ(NumberOf("new"), 1);
    EXPECT_EQ(NumberOf("replaced"), 1);
}

TEST_F(BasePolicyAdapterTest, CopyingFromItselfChangesNothing) {
    policy->SetPolicy("a", Number(1));
    policy->SetPolicy("b", Number(2));
    policy->CopyPolicies(*policy);
    EXPECT_EQ(ledger.Held(), 2);
    EXPECT_EQ(NumberOf("a"), 1);
    EXPECT_EQ(NumberOf("b"), 2);
}

TEST_F(BasePolicyAdapterTest, ItsTableHasLookUpSetAndCopyInSlotsFourToSix) {
    const void* raw = policy.Get();
    EXPECT_EQ((CallSlot<uint64_t>(raw, 2)), 2U);
    EXPECT_EQ((CallSlot<int64_t>(raw, 3)), 1);
    // A CRefPtr_T that is passed by value is passed as the address of the caller's object.
    CRefPtr_T<IZUModData> number = Number(7);
    IZUModData* const stored = number.Get();
    EXPECT_EQ((CallSlot<IZUModData*, const char*, void*>(raw, 5, "key", &number)), stored);
    const CRefPtr_T<IZUModData> copy(CallSlot<IZUModData*>(raw, 4, "key"));
    EXPECT_EQ(copy->GetInt64(), 7);
    const CRefPtr_T<CZUModBasePolicyAdapter> other(new CZUModBasePolicyAdapter);
    other->SetPolicy("copied", Number(8));
    CallSlot<void, const CZUModBasePolicyAdapter*>(raw, 6, other.Get());
    EXPECT_EQ(NumberOf("copied"), 8);
}

TEST_F(BasePolicyAdapterTest, ItsPolicyInterfaceHasLookUpInSlotFour) {
    policy->SetPolicy("key", Number(7));
    IZUModCreatePolicy* policy_pointer = policy.Get();
    EXPECT_EQ((CallSlot<uint64_t>(policy_pointer, 2)), 2U);
    const CRefPtr_T<IZUModData> copy(CallSlot<IZUModData*>(policy_pointer, 4, "key"));
    EXPECT_EQ(copy->GetInt64(), 7);
    EXPECT_EQ((CallSlot<IZUModData*>(policy_pointer, 4, "other")), nullptr);
    EXPECT_EQ((CallSlot<int64_t>(policy_pointer, 3)), 1);
}

TEST_F(BasePolicyAdapterTest, TheLastReleaseThroughThePolicyInterfaceDestroysTheObject) {
    policy->SetPolicy("key", Number(1));
    IZUModCreatePolicy* policy_pointer = policy.Detach();
    EXPECT_EQ((CallSlot<int64_t>(policy_pointer, 3)), 0);
    EXPECT_TRUE(ledger.Balanced());
}

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

TEST(PolicyReaders, ReturnTheValueOfAKeyAndReleaseItsCopy) {
    ReferenceLedger ledger;
    testing::CountedPolicy policy(ledger);
    policy.SetText("text", "abc");
    policy.SetInt64("integer", -1);
    policy.Set("pointer", 6, CountedData::Int64Bytes(0x1234));
    policy.Set("bool", 1, {1});
    EXPECT_EQ(PolicyText(policy, "text"), "abc");
    EXPECT_EQ(PolicyInteger(policy, "integer"), ~uint64_t{0});
    EXPECT_EQ(PolicyPointer(policy, "pointer"), 0x1234U);
    EXPECT_TRUE(PolicyBool(policy, "bool"));
    EXPECT_EQ(ledger.Held(), 0);
    EXPECT_EQ(ledger.Alive(), 1) << "only the policy";
}

TEST(PolicyReaders, ReturnNothingForAnUnknownKeyOrAnotherKind) {
    ReferenceLedger ledger;
    testing::CountedPolicy policy(ledger);
    policy.SetText("text", "abcdefgh");
    policy.SetInt64("integer", 5);
    for (const char* key : {"unknown", "integer"}) {
        EXPECT_EQ(PolicyText(policy, key), "");
        EXPECT_EQ(PolicyPointer(policy, key), 0U);
        EXPECT_FALSE(PolicyBool(policy, key));
    }
    EXPECT_EQ(PolicyInteger(policy, "unknown"), 0U);
    EXPECT_EQ(PolicyInteger(policy, "text"), 0U);
}

}  // namespace
}  // namespace zumod
