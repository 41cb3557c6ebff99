#include "host/camera_module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <string>

#include "src/loader/load_module.h"
#include "src/loader/module_path.h"
#include "zumod/codec.h"
#include "zumod/policies.h"

namespace zumod::host {
namespace {

constexpr char kCameraModuleName[] = "zu-client-camera";

}  // namespace

CameraModule::~CameraModule() {
    ZuModUnloadModule(m_handle);
}

Expected<void> CameraModule::FindIn(const std::string& directory) {
    const std::string file = directory + "/" + kCameraModuleName + ".so";
    if (access(file.c_str(), F_OK) != 0) {
        return Fail("the camera module is missing: " + file);
    }
    return {};
}

Expected<void> CameraModule::Load() {
    if (Create(&m_handle) == nullptr) {
        return Fail("the camera module does not load (the log says why): " +
                    ZuModGetModulePath(kCameraModuleName, false));
    }
    return {};
}

CRefPtr_T<IClientCameraPlugin> CameraModule::CreatePlugin() {
    return Create(nullptr);
}

CRefPtr_T<IClientCameraPlugin> CameraModule::Create(void** handle) {
    const CRefPtr_T<IZUModCreatePolicy> policy(
        new CZUModCreatePolicyAdapter(kClientCameraPluginName, kClientCameraPluginVersion));
    IZUModInterface* created = nullptr;
    ZuModLoadModule(&created, kCameraModuleName, policy, handle, false);
    return TakeInterface<IClientCameraPlugin>(created);
}

Expected<void> LoadCodecLibrary() {
    const std::string file = ZuModGetModulePath(kCodecModuleName, false);
    if (access(file.c_str(), F_OK) != 0) {
        return Fail("zu-codec.so is missing: " + file);
    }
    // Never closed: a codec module that was used once stays mapped until the process ends.
    if (dlopen(file.c_str(), RTLD_LAZY) == nullptr) {
        const char* const reason =
            dlerror();  // NOLINT(concurrency-mt-unsafe): the text is kept for each thread
        return Fail(std::string("zu-codec.so does not load: ") + (reason != nullptr ? reason : ""));
    }
    return {};
}

}  // namespace zumod::host
