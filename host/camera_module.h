// The camera module, loaded through the loader with the host's runtime.
//
// Thread rule: made and destroyed on one thread while no plugin of it is left; CreatePlugin is [any thread].
#pragma once

#include <string>

#include "zumod/client_camera_plugin.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// The runtime must be attached to this program's own (AttachRuntime) first; its "zu.env.modules.dir" says
// where the module is.
class CameraModule {
public:
    CameraModule() = default;
    // Detaches the module. It stays mapped until the process ends.
    ~CameraModule();
    CameraModule(const CameraModule&) = delete;
    CameraModule& operator=(const CameraModule&) = delete;

    // Loads the module and sees whether it makes plugins. On failure `error` names the file.
    bool Load(std::string& error);

    // A new plugin, or null after log lines that say why.
    CRefPtr_T<IClientCameraPlugin> CreatePlugin();

private:
    CRefPtr_T<IClientCameraPlugin> Create(void** handle);

    void* m_handle = nullptr;
};

// Maps the codec module's library for as long as the process runs, so that a camera's first frame need not
// wait for it: with what it depends on it is the largest thing on the way. Returns what is wrong with it, or
// nothing.
std::string LoadCodecLibrary();

}  // namespace zumod::host
