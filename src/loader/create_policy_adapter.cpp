#include "src/loader/create_policy_adapter.h"

#include "src/loader/mod_data.h"

namespace zumod {

CZUModCreatePolicyAdapter::CZUModCreatePolicyAdapter(const char* interface_name, uint64_t version) {
    CZUModBasePolicyAdapter::SetPolicy(kPolicyInterfaceName, CZUModData::FromText(interface_name));
    CZUModBasePolicyAdapter::SetPolicy(kPolicyVersion, CZUModData::FromInt64(static_cast<int64_t>(version)));
}

}  // namespace zumod
