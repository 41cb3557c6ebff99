// Input and output of an encode call: one picture, and the encoded bytes.
//
// Thread rule: AddRef and Release are [any thread]; all else is [encode thread & during Encode]: only
// the thread that calls the encoder uses the object.
#pragma once

#include <cstdint>

#include "zumod/reference.h"

namespace zumod {

inline constexpr char kEncArgsName[] = "IVEncArgs";

// Binary table: slots 0 to 3 are IReference's. The caller of an encoder implements it; an encoder that keeps
// the object after the call adds a reference. The caller owns the input bytes, which are valid only during
// the call. The object owns the output buffer, which lives as long as it.
class IVEncArgs : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. Options of the call; 0 from the camera module.
    virtual uint64_t GetArgOption() = 0;
    // Slot 5. The first byte of the picture, laid out as the input format record says.
    virtual const void* GetInputData() = 0;
    // Slot 6. The size of the picture in bytes. Trust this number, not the one that the record implies.
    virtual uint64_t GetInputSize() = 0;
    // Slot 7. Flags of the call; 0 from the camera module.
    virtual uint64_t GetArgFlags() = 0;
    // Slot 8. Does nothing in the camera module.
    virtual void ResetArgs() = 0;
    // Slot 9. Resizes the output buffer to `size` bytes, preserving its content, and returns its new size:
    // less than `size` when memory is short. The buffer may move. An encoder calls it before it writes, and
    // again with the final size if that is smaller. An encode call that returns true must have called it.
    virtual uint64_t PrepareOutput(uint32_t size) = 0;
    // Slot 10. The first byte of the output buffer, or null before PrepareOutput. Valid until PrepareOutput
    // is called again.
    virtual void* GetOutputData() = 0;
    // Slot 11. The size of the output, or 0 before PrepareOutput.
    virtual uint64_t GetOutputSize() = 0;
};

static_assert(sizeof(IVEncArgs) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
