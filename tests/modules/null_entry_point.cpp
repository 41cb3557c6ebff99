// A module whose entry point returns null.
#include "tests/modules/test_module.h"

ZU_TEST_ENTRY_POINT(nullptr)
