// The arguments of one encode call. Free of the test library, so fuzzers and benchmarks use them too.
//
// Thread rule: one thread at a time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "zumod/enc_args.h"

namespace zumod::testing {

// Lives on the caller's stack, so it is not counted.
class EncodeCall final : public IVEncArgs {
public:
    EncodeCall() = default;
    EncodeCall(const void* bytes, uint64_t size) { SetInput(bytes, size); }

    // Prepares the object for another call, which reuses the memory of the output.
    void SetInput(const void* bytes, uint64_t size) {
        m_bytes = bytes;
        m_size = size;
    }

    uint64_t AddRef() override { return 1; }
    int64_t Release() override { return 1; }
    uint64_t GetArgOption() override { return 0; }
    const void* GetInputData() override { return m_bytes; }
    uint64_t GetInputSize() override { return m_size; }
    uint64_t GetArgFlags() override { return 0; }
    void ResetArgs() override {}
    uint64_t PrepareOutput(uint32_t size) override {
        ++prepared;
        output.resize(std::min<uint64_t>(size, capacity));
        return output.size();
    }
    void* GetOutputData() override { return output.empty() ? nullptr : output.data(); }
    uint64_t GetOutputSize() override { return output.size(); }

    std::vector<uint8_t> output;
    uint64_t capacity = UINT64_MAX;  // the size that the output can grow to
    int prepared = 0;                // calls of PrepareOutput

private:
    const void* m_bytes = nullptr;
    uint64_t m_size = 0;
};

}  // namespace zumod::testing
