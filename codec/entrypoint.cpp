// The codec module's one export, and the descriptor it returns.
#include "codec/codec_create.h"
#include "src/module/attach_runtime.h"
#include "zumod/descriptor.h"

namespace {

constexpr zumod::ZUModDescriptor kDescriptor = {
    0x0001000000000000,    "zu-codec",           &zumod::AttachRuntime,
    &zumod::DetachRuntime, &zumod::codec_create, __DATE__ " " __TIME__,
};

}  // namespace

extern "C" [[gnu::visibility("default")]] const zumod::ZUModDescriptor* zumod_get_entrypoint() {
    return &kDescriptor;
}
