// The camera module, loaded through the loader with the host's runtime.
//
// Thread rule: constructed and destroyed on one thread while none of its plugins exist; CreatePlugin is [any
// thread].
#pragma once

#include "common/error.h"
#include "zumod/client_camera_plugin.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// The program's runtime must be attached first (AttachRuntime). Its property "zu.env.modules.dir" says where
// the module is.
class CameraModule {
public:
    CameraModule() = default;
    // Detaches the module. It stays mapped until the process ends.
    ~CameraModule();
    CameraModule(const CameraModule&) = delete;
    CameraModule& operator=(const CameraModule&) = delete;

    // Whether the module's file is there. The error names it.
    static Expected<void> FindIn(const std::string& directory);

    // Loads the module and checks that it creates plugins. The error names the file.
    Expected<void> Load();

    // A new plugin, or null; then the log says why.
    CRefPtr_T<IClientCameraPlugin> CreatePlugin();

private:
    CRefPtr_T<IClientCameraPlugin> Create(void** handle);

    void* m_handle = nullptr;
};

// Maps the codec module's library until the process exits. The library and its dependencies are large; a
// camera's first frame need not wait for them.
Expected<void> LoadCodecLibrary();

}  // namespace zumod::host
