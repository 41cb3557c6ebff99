// Arguments of one encode call: the picture in, the encoded bytes out.
//
// Thread rule: [encode thread]; an object belongs to the thread that creates it.
#pragma once

#include <cstdint>

#include "src/base/buffer.h"
#include "src/base/mem_alloctor.h"
#include "zumod/enc_args.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

// Required by the contract: the bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

// Slots of the class: 0 to 3 IReference, 4 to 11 IVEncArgs, 12 to 14 its own.
class CVEncArgs final : private CReference, public virtual IVEncArgs {
public:
    // `input` is borrowed and must stay valid during the encode call. The output comes from `alloctor`, which
    // is referenced, or from the default allocator if that is null.
    CVEncArgs(const void* input, uint64_t size, IMemAlloctor* alloctor = nullptr)
        : m_input(input), m_input_size(size), m_alloctor(alloctor) {}

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    uint64_t GetArgOption() override { return 0; }
    const void* GetInputData() override { return m_input; }
    uint64_t GetInputSize() override { return m_input_size; }
    uint64_t GetArgFlags() override { return 0; }
    void ResetArgs() override {}
    uint64_t PrepareOutput(uint32_t size) override;
    void* GetOutputData() override { return m_output != nullptr ? m_output->GetData() : nullptr; }
    uint64_t GetOutputSize() override { return m_output != nullptr ? m_output->GetSize() : 0; }

    // Slot 12. Accepts "IVEncArgs" in any letter case: stores the interface pointer with one reference for
    // the caller.
    virtual bool QueryInterface(const char* name, void** out);
    // Slot 13, reserved.
    virtual bool Reserved13() { return true; }
    // Slot 14, reserved.
    virtual uint64_t Reserved14() { return 0; }

private:
    const void* m_input;
    uint64_t m_input_size;
    // Declared in this order so that the output is released before its allocator.
    CRefPtr_T<IMemAlloctor> m_alloctor;
    CRefPtr_T<IBuffer> m_output;
};

#pragma GCC diagnostic pop

static_assert(sizeof(CVEncArgs) == sizeof(CReference) + 32 + sizeof(IVEncArgs));

}  // namespace zumod
