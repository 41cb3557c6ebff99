#include "src/module/factory.h"

#include <new>
#include <string>

#include "src/base/own_memory.h"
#include "src/module/log.h"
#include "src/plugin/client_camera.h"
#include "zumod/client_camera_plugin.h"
#include "zumod/policies.h"
#include "zumod/ref_ptr.h"

namespace zumod {
namespace {

uint64_t MajorVersion(uint64_t version) {
    return version >> 48;
}

// A missing name reads as an empty text.
std::string RequestedName(IZUModCreatePolicy& policy) {
    const CRefPtr_T<IZUModData> value(policy.GetPolicy(kPolicyInterfaceName));
    return CopyText(CharactersOf(value.Get()));
}

int Create(IZUModCreatePolicy* props, IZUModInterface** out) {
    if (props == nullptr || out == nullptr) {
        ZuModLog(kLogTrace, "[camera_client] camera_client_create invalid param");
        return 0;
    }
    const CRefPtr_T<IZUModCreatePolicy> held(props);
    const std::string name = RequestedName(*props);
    const uint64_t version = PolicyInteger(*props, kPolicyVersion);
    ZuModLog(kLogTrace, "[camera_client] camera_client_create interface %s  version %lu", name.c_str(),
             version);
    if (version == 0 && name.empty()) {
        ZuModLog(kLogFailure, "[camera_client] camera_client_create invalid property!");
        return 0;
    }
    if (!IsSameInterfaceName(name, kClientCameraPluginName)) {
        ZuModLog(kLogTrace, "[camera_client] camera_client_create invalid interface %s", name.c_str());
        return 0;
    }
    if (MajorVersion(version) != MajorVersion(kClientCameraPluginVersion)) {
        ZuModLog(kLogFailure, "[camera_client] camera_client_create version %lu not compactible with %lu",
                 version, kClientCameraPluginVersion);
        return 0;
    }
    // Not in Allocate: the constructor logs.
    auto* const created = new (std::nothrow) ClientCamera;
    if (created == nullptr) {
        return 0;
    }
    StoreInterface<IClientCameraPlugin>(created, out);
    return 1;
}

}  // namespace

int camera_client_create(IZUModCreatePolicy* props, IZUModInterface** out) {
    try {
        return Create(props, out);
    } catch (const OutOfMemory&) {
        return 0;
    }
}

}  // namespace zumod
