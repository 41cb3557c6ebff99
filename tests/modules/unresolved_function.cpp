// A module that refers to an undefined function, but calls it only with a policy.
#include "tests/modules/test_module.h"

extern "C" int zu_test_missing_function();

namespace {

using namespace zumod;

int Attach(IZUModRuntime*) {
    return 1;
}

int Create(IZUModCreatePolicy* policy, IZUModInterface**) {
    return policy != nullptr ? zu_test_missing_function() : 0;
}

constexpr ZUModDescriptor kDescriptor = {0x0001000000000000, "zu-codec", &Attach, nullptr, &Create, ""};

}  // namespace

ZU_TEST_ENTRY_POINT(&kDescriptor)
