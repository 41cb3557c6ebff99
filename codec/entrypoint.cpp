// The codec module's one export, and the descriptor it returns.
#include "codec/codec_create.h"
#include "src/module/attach_runtime.h"
#include "zumod/descriptor.h"

namespace {

// The module's own version. Callers do not compare it; what they ask for is an interface's version,
// kCodecInterfaceVersion, which changes separately.
constexpr uint64_t kModuleVersion = 0x0001000000000000;

// A loader without a host attaches null. The host that was attached before has then detached from the loader
// and may be gone.
int AttachOrDetachRuntime(zumod::IZUModRuntime* host) {
    if (host == nullptr) {
        zumod::DetachRuntime();
    }
    return zumod::AttachRuntime(host);
}

constexpr zumod::ZUModDescriptor kDescriptor = {
    kModuleVersion,        "zu-codec",           &AttachOrDetachRuntime,
    &zumod::DetachRuntime, &zumod::codec_create, __DATE__ " " __TIME__,
};

}  // namespace

extern "C" [[gnu::visibility("default")]] const zumod::ZUModDescriptor* zumod_get_entrypoint() {
    return &kDescriptor;
}
