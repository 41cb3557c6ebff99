// A check that holds whatever the build type: a fuzzer that finds it broken stops there with the input.
#pragma once

#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            __builtin_trap(); \
        }                     \
    } while (false)
