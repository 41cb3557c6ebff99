// The maker of buffers, as an interface.
#pragma once

#include <cstdint>

#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

class IBuffer;

// Binary table: slots 0 to 3 are IReference's.
//
// Thread rule: [any thread].
class IMemAlloctor : public IReference {
public:
    // Slot 4. A new buffer whose capacity is exactly `size` bytes (at most GetMaxSize), with one reference
    // for the caller; empty when memory is short.
    virtual CRefPtr_T<IBuffer> Alloc(uint64_t size) = 0;
    // Slot 5. Gives a buffer's block back to the heap; called by the buffer's destruction. False for null.
    virtual bool Free(IBuffer* buffer) = 0;
    // Slot 6. The largest block that Alloc makes.
    virtual uint64_t GetMaxSize() = 0;
    // Slot 7. Changes the size of a buffer's block to exactly `size` bytes, not limited by GetMaxSize.
    // Returns the block, which may have moved; null when memory is short (the buffer stays as it was) or
    // `size` is 0.
    virtual void* ReAlloc(IBuffer* buffer, uint64_t size) = 0;
    // Slot 8. What Alloc does.
    virtual CRefPtr_T<IBuffer> AllocBuffer(uint64_t size) = 0;
};

}  // namespace zumod
