// A module that has no descriptor to give.
#include "tests/modules/test_module.h"

ZU_TEST_ENTRY_POINT(nullptr)
