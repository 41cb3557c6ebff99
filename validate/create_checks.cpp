// Checks of the create function.
#include <stdexcept>
#include <vector>

#include "validate/checks.h"
#include "validate/module_under_test.h"
#include "validate/process_look.h"

namespace zumod::validate {
namespace {

IZUModInterface* Pattern() {
    return reinterpret_cast<IZUModInterface*>(0x5A5A5A5A5A5A5A5A);
}

// Throws Finding if the module accepts the policy. `why`: what is wrong with it.
void ExpectRefusal(const Module& module, PolicyDouble* policy, const std::string& why) {
    IZUModInterface* out = Pattern();
    ExpectEqual("the result of create with " + why, 0, module.Create(policy, &out));
}

// Creates with one value changed. Null removes it.
void ExpectRefusalWith(const Module& module, const char* key, CRefPtr_T<IZUModData> value,
                       const std::string& why) {
    const CRefPtr_T<PolicyDouble> policy = UsualPolicy(module.GetContext().kind);
    if (value) {
        policy->Set(key, std::move(value));
    } else {
        policy->Remove(key);
    }
    ExpectRefusal(module, policy.Get(), why);
}

// A module with a host that ignores what it logs.
struct QuietModule {
    explicit QuietModule(const Context& context) : module(context) { module.Attach(&host); }

    HostDouble host;
    Module module;
};

}  // namespace

void CreateNullPolicy(const Context& context) {
    const QuietModule quiet(context);
    ExpectRefusal(quiet.module, nullptr, "a null policy");
}

void CreateNullOut(const Context& context) {
    const QuietModule quiet(context);
    ExpectEqual("the result of create with a null slot", 0,
                quiet.module.Create(UsualPolicy(context.kind).Get(), nullptr));
}

void CreateNoName(const Context& context) {
    const QuietModule quiet(context);
    ExpectRefusalWith(quiet.module, kPolicyInterfaceName, nullptr, "no interface name");
    ExpectRefusalWith(quiet.module, kPolicyInterfaceName, CZUModData::FromText(""),
                      "an empty interface name");
}

void CreateUnknownName(const Context& context) {
    const QuietModule quiet(context);
    const std::string name = InterfaceName(context.kind);
    for (const std::string& wrong :
         {std::string("IValidatorUnknown"), name + "x", name + " ", name.substr(0, name.size() - 1),
          name.substr(1), std::string(100'000, 'I')}) {
        ExpectRefusalWith(quiet.module, kPolicyInterfaceName, CZUModData::FromText(wrong.c_str()),
                          "the name \"" + wrong.substr(0, 40) + "\"");
    }
}

void CreateAnyCase(const Context& context) {
    const QuietModule quiet(context);
    for (int (*const change)(int) : {&toupper, &tolower}) {
        std::string name = InterfaceName(context.kind);
        for (char& c : name) {
            c = static_cast<char>(change(c));
        }
        const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
        policy->Set(kPolicyInterfaceName, CZUModData::FromText(name.c_str()));
        IZUModInterface* created = nullptr;
        ExpectEqual("the result of create with the name \"" + name + "\"", 1,
                    quiet.module.Create(policy.Get(), &created));
    }
}

void CreateWrongMajor(const Context& context) {
    const QuietModule quiet(context);
    const uint64_t major = InterfaceVersion(context.kind) >> 48;
    for (const uint64_t wrong : {uint64_t{0}, major + 1, uint64_t{0xFFFF}}) {
        ExpectRefusalWith(quiet.module, kPolicyVersion,
                          CZUModData::FromInt64(static_cast<int64_t>(wrong << 48)),
                          "the major version " + std::to_string(wrong));
    }
    ExpectRefusalWith(quiet.module, kPolicyVersion, nullptr, "no version");
}

void CreateAnyMinor(const Context& context) {
    const QuietModule quiet(context);
    const uint64_t major = InterfaceVersion(context.kind) >> 48 << 48;
    for (const uint64_t minor : {uint64_t{0}, uint64_t{7}, (uint64_t{1} << 48) - 1}) {
        const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
        policy->Set(kPolicyVersion, CZUModData::FromInt64(static_cast<int64_t>(major | minor)));
        IZUModInterface* created = nullptr;
        ExpectEqual("the result of create with the minor version " + std::to_string(minor), 1,
                    quiet.module.Create(policy.Get(), &created));
    }
}

void CreateWrongKinds(const Context& context) {
    const QuietModule quiet(context);
    const int64_t number = static_cast<int64_t>(InterfaceVersion(context.kind));
    const std::string name = InterfaceName(context.kind);
    for (uint32_t tag = 0; tag <= kZUModDataObject + 1; ++tag) {
        if (tag != kZUModDataText) {
            ExpectRefusalWith(quiet.module, kPolicyInterfaceName,
                              CRefPtr_T<IZUModData>(new CZUModData(tag, name.c_str(), name.size() + 1)),
                              "a name of kind " + std::to_string(tag));
        }
        if (tag != kZUModDataInt64) {
            ExpectRefusalWith(quiet.module, kPolicyVersion,
                              CRefPtr_T<IZUModData>(new CZUModData(tag, &number, sizeof number)),
                              "a version of kind " + std::to_string(tag));
        }
    }
    // Values that have a kind and no bytes.
    ExpectRefusalWith(quiet.module, kPolicyInterfaceName,
                      CRefPtr_T<IZUModData>(new CZUModData(kZUModDataText, nullptr, 0)),
                      "a name without characters");
    ExpectRefusalWith(quiet.module, kPolicyVersion, CRefPtr_T<IZUModData>(new CZUModData),
                      "a version without bytes");
}

void CreateSlotUnchanged(const Context& context) {
    const QuietModule quiet(context);
    const auto expect_unchanged = [&](const char* key, CRefPtr_T<IZUModData> value, const std::string& why) {
        const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
        policy->Set(key, std::move(value));
        IZUModInterface* out = Pattern();
        if (quiet.module.Create(policy.Get(), &out) == 0) {
            Expect(out == Pattern(), "an unchanged slot after a refusal of " + why, "another pointer");
        }
    };
    expect_unchanged(kPolicyInterfaceName, CZUModData::FromText("IValidatorUnknown"), "the name");
    expect_unchanged(kPolicyVersion, CZUModData::FromInt64(0), "the version");
    IZUModInterface* out = Pattern();
    if (quiet.module.Create(nullptr, &out) == 0) {
        Expect(out == Pattern(), "an unchanged slot after a refusal of a null policy", "another pointer");
    }
}

void CreateOneReference(const Context& context) {
    const QuietModule quiet(context);
    Object object(quiet.module);
    ExpectEqual("the count after the only reference is released", 0, object.Reset());
}

void CreateReleasesValues(const Context& context) {
    const QuietModule quiet(context);
    const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
    Object object(quiet.module, policy.Get());
    object.Reset();
    ExpectEqual("the number of the policy's values that still exist", 0, policy->LiveValues());
    policy->Set(kPolicyVersion, CZUModData::FromInt64(0));
    ExpectRefusal(quiet.module, policy.Get(), "version 0");
    ExpectEqual("the number of the policy's values that still exist after a refusal", 0,
                policy->LiveValues());
}

void CreateReleasesPolicy(const Context& context) {
    const QuietModule quiet(context);
    const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
    Object object(quiet.module, policy.Get());
    object.Reset();
    ExpectEqual("the number of references to the policy", 1, CountOf(*policy));
}

void CreateManyObjects(const Context& context) {
    const QuietModule quiet(context);
    std::vector<Object> objects;
    constexpr int kObjects = 100;
    objects.reserve(kObjects);
    for (int i = 0; i < kObjects; ++i) {
        objects.emplace_back(quiet.module);
    }
}

void CreateLeaksNothing(const Context& context) {
    const QuietModule quiet(context);
    constexpr int kWarmUp = 5;
    constexpr int kRounds = 105;
    size_t before = 0;
    for (int i = 0; i < kRounds; ++i) {
        if (i == kWarmUp) {
            before = HeapInUse();
        }
        Object(quiet.module).Reset();
    }
    const size_t after = HeapInUse();
    Expect(after < before + 16'384, "no more memory in use after 100 objects",
           std::to_string(after - before) + " bytes more");
}

void PoliciesOfAnyKind(const Context& context) {
    const QuietModule quiet(context);
    const int64_t number = -1;
    for (const char* const key : {kPolicyImageType, kPolicyEncRapidSub, kPolicyEncNoStreamHeader,
                                  kPolicyEncFileRecord, kPolicyEncSourceRgb}) {
        for (uint32_t tag = 0; tag <= kZUModDataObject + 1; ++tag) {
            for (const size_t size : {size_t{0}, sizeof number}) {
                const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
                policy->Set(key, CRefPtr_T<IZUModData>(new CZUModData(tag, &number, size)));
                IZUModInterface* out = nullptr;
                if (quiet.module.Create(policy.Get(), &out) != 0) {
                    Expect(out != nullptr, "an object", "none, although create returned 1");
                    TakeInterface<IVEncoder>(out);
                }
            }
        }
        const CRefPtr_T<PolicyDouble> policy = UsualPolicy(context.kind);
        policy->Remove(key);
        IZUModInterface* out = nullptr;
        if (quiet.module.Create(policy.Get(), &out) != 0) {
            TakeInterface<IVEncoder>(out);
        }
    }
}

}  // namespace zumod::validate
