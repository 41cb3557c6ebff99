// A codec module whose create function reports success and stores no object.
#include "tests/modules/test_module.h"

namespace {

using namespace zumod;

int Attach(IZUModRuntime*) {
    return 1;
}

int Create(IZUModCreatePolicy*, IZUModInterface**) {
    return 1;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, nullptr, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
