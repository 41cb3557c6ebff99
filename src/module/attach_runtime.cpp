#include "src/module/attach_runtime.h"

#include "src/module/runtime.h"

namespace zumod {

int AttachRuntime(IZUModRuntime* host) {
    if (host == nullptr) {
        return 0;
    }
    CZUModRuntime* own = CZUModRuntime::GetInstance();
    if (host != own) {
        own->SetSink(host);
    }
    return 1;
}

void DetachRuntime() {
    CZUModRuntime::GetInstance()->SetSink(nullptr);
}

}  // namespace zumod
