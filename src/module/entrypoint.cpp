// The module's one export, and the descriptor it returns.
#include "src/module/attach_runtime.h"
#include "src/module/factory.h"
#include "zumod/client_camera_plugin.h"
#include "zumod/descriptor.h"

namespace {

constexpr zumod::ZUModDescriptor kDescriptor = {
    zumod::kClientCameraPluginVersion, "zu-client-camera",    &zumod::AttachRuntime, &zumod::DetachRuntime,
    &zumod::camera_client_create,      __DATE__ " " __TIME__,
};

}  // namespace

extern "C" [[gnu::visibility("default")]] const zumod::ZUModDescriptor* zumod_get_entrypoint() {
    return &kDescriptor;
}
