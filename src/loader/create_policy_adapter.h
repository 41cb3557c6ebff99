// The policy that asks a module for one interface of one version.
//
// Thread rule: that of its base.
#pragma once

#include <cstdint>

#include "src/loader/base_policy_adapter.h"

namespace zumod {

class CZUModCreatePolicyAdapter : public CZUModBasePolicyAdapter {
public:
    // The top 16 bits of `version` are the major version. A null name is stored as an empty text.
    CZUModCreatePolicyAdapter(const char* interface_name, uint64_t version);
};

}  // namespace zumod
