// A module that refers to an undefined variable: it cannot be loaded.
#include "tests/modules/test_module.h"

extern "C" int zu_test_missing_data;

namespace {

using namespace zumod;

int Attach(IZUModRuntime*) {
    return zu_test_missing_data;
}

int Create(IZUModCreatePolicy*, IZUModInterface**) {
    return 0;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, nullptr, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
