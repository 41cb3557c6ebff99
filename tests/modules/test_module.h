// What the modules of the test tree have in common. Like a module written by someone else, they know the SDK
// and nothing more.
#pragma once

#include <atomic>

#include "zumod/zumod.h"

namespace zumod::testing {

// What a test reads of a recording codec, through the function of this name.
inline constexpr char kCodecRecordName[] = "zu_test_codec_record";

struct CodecRecord {
    // All are written and read by any thread; only sums and the last value matter.
    std::atomic<int> attaches{0};
    std::atomic<int> detaches{0};
    std::atomic<int> creates{0};
    std::atomic<int> objects{0};     // alive now
    std::atomic<int> references{0};  // held now on those objects
    std::atomic<IZUModRuntime*> host{nullptr};
    // What Encode returns, and whether it prepares an output first.
    std::atomic<bool> encode_result{true};
    std::atomic<bool> prepares_output{true};
    // What SetInputFormat returns, and what it and Encode were given last.
    std::atomic<int> set_format_result{0};
    std::atomic<uint32_t> last_format{0};
    std::atomic<const void*> last_input{nullptr};
    // On the arguments, while they are encoded.
    std::atomic<uint64_t> argument_references{0};
    // While set, each created object keeps its policy alive.
    std::atomic<bool> keep_policy{false};
    std::atomic<IZUModCreatePolicy*> last_policy{nullptr};
};

using CodecRecordFunction = CodecRecord* (*)();

// Defines the one function that a real module exports.
#define ZU_TEST_ENTRY_POINT(descriptor)                                                              \
    extern "C" [[gnu::visibility("default")]] const zumod::ZUModDescriptor* zumod_get_entrypoint() { \
        return descriptor;                                                                           \
    }

}  // namespace zumod::testing
