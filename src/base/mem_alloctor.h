// The allocator of buffers, as an interface.
//
// Thread rule: [any thread].
#pragma once

#include <cstdint>

#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

class IBuffer;

// Binary table: slots 0 to 3 are IReference's.
class IMemAlloctor : public IReference {
public:
    // Slot 4. A new buffer whose capacity is exactly `size` bytes (at most GetMaxSize), with one reference
    // for the caller; empty when memory is short.
    virtual CRefPtr_T<IBuffer> Alloc(uint64_t size) = 0;
    // Slot 5. Frees a buffer's block; called by the buffer's destructor. Returns false for null.
    virtual bool Free(IBuffer* buffer) = 0;
    // Slot 6. The size of the largest block that Alloc allocates.
    virtual uint64_t GetMaxSize() = 0;
    // Slot 7. Changes the size of a buffer's block to exactly `size` bytes, not limited by GetMaxSize.
    // Returns the block, which may have moved; null when memory is short (the buffer stays as it was) or
    // `size` is 0.
    virtual void* ReAlloc(IBuffer* buffer, uint64_t size) = 0;
    // Slot 8. The same as Alloc.
    virtual CRefPtr_T<IBuffer> AllocBuffer(uint64_t size) = 0;
};

}  // namespace zumod
