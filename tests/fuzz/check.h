// An assertion that is active in every build type. If it fails, the fuzzer stops and keeps the input.
//
// Thread rule: [any thread].
#pragma once

#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            __builtin_trap(); \
        }                     \
    } while (false)
