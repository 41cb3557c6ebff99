#include "codec/policy_values.h"

#include "zumod/ref_ptr.h"

namespace zumod {
namespace {

// A value comes with a count of 0: the reference taken here makes it this reader's.
CRefPtr_T<IZUModData> Value(IZUModCreatePolicy& policy, const char* key, ZUModDataType kind) {
    CRefPtr_T<IZUModData> value(policy.GetPolicy(key));
    return value != nullptr && value->GetType() == kind ? value : nullptr;
}

}  // namespace

std::string PolicyText(IZUModCreatePolicy& policy, const char* key) {
    const auto value = Value(policy, key, kZUModDataText);
    const char* text = value != nullptr ? value->GetString() : nullptr;
    return text != nullptr ? text : "";
}

uint64_t PolicyInteger(IZUModCreatePolicy& policy, const char* key) {
    const auto value = Value(policy, key, kZUModDataInt64);
    return value != nullptr ? static_cast<uint64_t>(value->GetInt64()) : 0;
}

uint64_t PolicyPointer(IZUModCreatePolicy& policy, const char* key) {
    const auto value = Value(policy, key, kZUModDataPointer);
    return value != nullptr ? value->GetPointer() : 0;
}

bool PolicyBool(IZUModCreatePolicy& policy, const char* key) {
    const auto value = Value(policy, key, kZUModDataBool);
    return value != nullptr && value->GetBool();
}

}  // namespace zumod
