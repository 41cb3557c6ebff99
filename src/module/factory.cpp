#include "src/module/factory.h"

#include <new>
#include <string>

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

int Create(IZUModCreatePolicy* props, IZUModInterface** out) {
    if (props == nullptr || out == nullptr) {
        ZuModLog(kLogTrace, "[camera_client] camera_client_create invalid param");
        return 0;
    }
    const CRefPtr_T<IZUModCreatePolicy> held(props);
    const std::string name = PolicyText(*props, kPolicyInterfaceName);
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
    StoreInterface<IClientCameraPlugin>(new ClientCamera, out);
    return 1;
}

}  // namespace

int camera_client_create(IZUModCreatePolicy* props, IZUModInterface** out) {
    try {
        return Create(props, out);
    } catch (const std::bad_alloc&) {
        return 0;  // A refusal, also if a host object has thrown it. Its other exceptions go on to the host.
    }
}

}  // namespace zumod
