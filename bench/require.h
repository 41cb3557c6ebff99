// The check of what a benchmark needs but does not measure.
//
// Thread rule: a pure function; any thread.
#pragma once

#include <stdexcept>

namespace zumod::bench {

// Ends the program, or the benchmark if it catches exceptions, when something that is not measured fails.
inline void Require(bool condition, const char* failure) {
    if (!condition) {
        throw std::runtime_error(failure);
    }
}

}  // namespace zumod::bench
