// A codec module that has no detach function, and refuses.
#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

int Attach(IZUModRuntime*) {
    return 1;
}

int Create(IZUModCreatePolicy*, IZUModInterface**) {
    return 0;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, nullptr, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
