// A counted block of heap memory with a used size, a capacity and the allocator that it came from. Every
// message and every encoded frame is in one.
//
// Thread rule: AddRef and Release are [any thread]; all else is for one thread at a time, which may pass the
// buffer on to another.
#pragma once

#include <cstdint>
#include <utility>

#include "src/base/mem_alloctor.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's. Sizes are bytes. The allocator uses only GetAllocData and
// GetAllocSize, other code only GetData and GetCapacity.
class IBuffer : public IReference {
public:
    // Slot 4. The first byte; null when the capacity is 0.
    virtual void* GetData() = 0;
    // Slot 5. Bytes in use.
    virtual uint64_t GetSize() = 0;
    // Slot 6. Sets the bytes in use, at most the capacity; returns what was set. Never allocates.
    virtual uint64_t SetSize(uint64_t size) = 0;
    // Slot 7. Bytes usable.
    virtual uint64_t GetCapacity() = 0;
    // Slot 8. The size of the block as the allocator sees it.
    virtual uint64_t GetAllocSize() = 0;
    // Slot 9. The block as the allocator sees it.
    virtual void* GetAllocData() = 0;
    // Slot 10. The owning allocator, with a reference for the caller; empty if there is none.
    virtual CRefPtr_T<IMemAlloctor> GetAllocator() = 0;
    // Slot 11. Changes the capacity to exactly `size`; the used size is unchanged, even if it then exceeds
    // the capacity. Returns the block, which may have moved, or null.
    virtual void* Resize(uint64_t size) = 0;
    // Slot 12. Takes ownership of a block; the used size is unchanged. Returns the previous block, which the
    // caller now owns.
    virtual void* Attach(void* data, uint64_t capacity) = 0;
    // Slot 13. Stores a word for the caller's use; returns the previous one.
    virtual uint64_t SetUserData(uint64_t word) { return std::exchange(m_user_word, word); }
    // Slot 14. The stored word.
    virtual uint64_t GetUserData() { return m_user_word; }

private:
    uint64_t m_user_word = 0;
};

static_assert(sizeof(IBuffer) == 16, "table pointer and user word");

}  // namespace zumod
