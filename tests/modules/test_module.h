// Common parts of the test modules. Like a third party's module, they use only the SDK.
//
// Thread rule: [any thread]; every field of the record is atomic.
#pragma once

#include <atomic>

#include "zumod/zumod.h"

namespace zumod::testing {

// The record of a recording codec, and the name of the function that returns it.
inline constexpr char kCodecRecordName[] = "zu_test_codec_record";

struct CodecRecord {
    // Written and read by any thread; only sums and the last value matter.
    std::atomic<int> attaches{0};
    std::atomic<int> detaches{0};
    std::atomic<int> creates{0};
    std::atomic<int> objects{0};     // existing now
    std::atomic<int> references{0};  // held now on those objects
    std::atomic<IZUModRuntime*> host{nullptr};
    // What Encode returns, and whether it prepares an output first.
    std::atomic<bool> encode_result{true};
    std::atomic<bool> prepares_output{true};
    // What SetInputFormat returns, and the last arguments of it and of Encode.
    std::atomic<int> set_format_result{0};
    std::atomic<uint32_t> last_format{0};
    std::atomic<const void*> last_input{nullptr};
    // References on the arguments while they are encoded.
    std::atomic<uint64_t> argument_references{0};
    // While set, each created object keeps its policy.
    std::atomic<bool> keep_policy{false};
    std::atomic<IZUModCreatePolicy*> last_policy{nullptr};
};

using CodecRecordFunction = CodecRecord* (*)();

// Defines the function that a module exports.
#define ZU_TEST_ENTRY_POINT(descriptor)                                                              \
    extern "C" [[gnu::visibility("default")]] const zumod::ZUModDescriptor* zumod_get_entrypoint() { \
        return descriptor;                                                                           \
    }

}  // namespace zumod::testing
