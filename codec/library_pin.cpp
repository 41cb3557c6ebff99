#include "codec/library_pin.h"

#include <dlfcn.h>

#include "common/av_objects.h"

namespace zumod {
namespace {

bool Pin() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<const void*>(&avcodec_version), &library) == 0) {
        return false;
    }
    void* const handle = dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    return handle != nullptr && dlclose(handle) == 0;
}

}  // namespace

bool KeepLibavcodecLoaded() {
    static const bool kept = Pin();
    return kept;
}

}  // namespace zumod
