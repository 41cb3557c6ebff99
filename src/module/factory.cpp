#include "src/module/factory.h"

#include <strings.h>

#include <new>
#include <string>

#include "src/module/log.h"
#include "src/plugin/client_camera.h"
#include "zumod/client_camera_plugin.h"
#include "zumod/ref_ptr.h"

namespace zumod {
namespace {

// The value's own count is 0 when it comes: the reference taken here makes it this reader's, to the end of
// the reading and through any exception.
CRefPtr_T<IZUModData> Policy(IZUModCreatePolicy& props, const char* key) {
    return CRefPtr_T<IZUModData>(props.GetPolicy(key));
}

// A value of another type counts as missing, and so does a text without bytes.
std::string TextPolicy(IZUModCreatePolicy& props, const char* key) {
    const CRefPtr_T<IZUModData> value = Policy(props, key);
    const char* text = value != nullptr && value->GetType() == kZUModDataText ? value->GetString() : nullptr;
    return text != nullptr ? text : "";
}

uint64_t IntegerPolicy(IZUModCreatePolicy& props, const char* key) {
    const CRefPtr_T<IZUModData> value = Policy(props, key);
    return value != nullptr && value->GetType() == kZUModDataInt64 ? static_cast<uint64_t>(value->GetInt64())
                                                                   : 0;
}

uint64_t MajorVersion(uint64_t version) {
    return version >> 48;
}

int Create(IZUModCreatePolicy* props, IZUModInterface** out) {
    if (props == nullptr || out == nullptr) {
        ZuModLog(kLogTrace, "[camera_client] camera_client_create invalid param");
        return 0;
    }
    const CRefPtr_T<IZUModCreatePolicy> held(props);
    const std::string name = TextPolicy(*props, kPolicyInterfaceName);
    const uint64_t version = IntegerPolicy(*props, kPolicyVersion);
    ZuModLog(kLogTrace, "[camera_client] camera_client_create interface %s  version %lu", name.c_str(),
             version);
    if (version == 0 && name.empty()) {
        ZuModLog(kLogFailure, "[camera_client] camera_client_create invalid property!");
        return 0;
    }
    if (strcasecmp(name.c_str(), kClientCameraPluginName) != 0) {
        ZuModLog(kLogTrace, "[camera_client] camera_client_create invalid interface %s", name.c_str());
        return 0;
    }
    if (MajorVersion(version) != MajorVersion(kClientCameraPluginVersion)) {
        ZuModLog(kLogFailure, "[camera_client] camera_client_create version %lu not compactible with %lu",
                 version, kClientCameraPluginVersion);
        return 0;
    }
    // The slot is typed for any interface; what it gets is the table that was asked for.
    IClientCameraPlugin* plugin = CRefPtr_T<IClientCameraPlugin>(new ClientCamera).Detach();
    *out = static_cast<IZUModInterface*>(static_cast<void*>(plugin));
    return 1;
}

}  // namespace

int camera_client_create(IZUModCreatePolicy* props, IZUModInterface** out) {
    try {
        return Create(props, out);
    } catch (const std::bad_alloc&) {
        return 0;  // a refusal like any other; what a host object throws goes on to the host
    }
}

}  // namespace zumod
