// Reads the values of a creation policy, and of other tagged values that come from outside.
//
// Thread rule: a policy and a value are read by one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "zumod/create_policy.h"
#include "zumod/mod_data.h"

namespace zumod {

// A value of another kind counts as missing: empty text, 0, false.
std::string PolicyText(IZUModCreatePolicy& policy, const char* key);
uint64_t PolicyInteger(IZUModCreatePolicy& policy, const char* key);
uint64_t PolicyPointer(IZUModCreatePolicy& policy, const char* key);
bool PolicyBool(IZUModCreatePolicy& policy, const char* key);

}  // namespace zumod
