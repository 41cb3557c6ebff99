// A check in every build type. A fuzzer that finds it violated stops there and keeps the input.
#pragma once

#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            __builtin_trap(); \
        }                     \
    } while (false)
