// A counted block of heap memory that knows its used size, its capacity and the allocator that made it: what
// carries every message and every encoded frame.
//
// Thread rule: AddRef and Release are [any thread]; all else belongs to the one thread that has the buffer
// now.
#pragma once

#include <cstdint>
#include <utility>

#include "src/base/mem_alloctor.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's. Sizes are bytes. The allocator works with GetAllocData and
// GetAllocSize only, users with GetData and GetCapacity.
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
    // Slot 11. Changes the capacity to exactly `size`; the used size stays, even where it then exceeds the
    // capacity. Returns the block, which may have moved, or null.
    virtual void* Resize(uint64_t size) = 0;
    // Slot 12. Takes over a block; the used size stays. Returns the block before, which is the caller's now.
    virtual void* Attach(void* data, uint64_t capacity) = 0;
    // Slot 13. Stores a word that is free for the caller; returns the one before.
    virtual uint64_t SetUserData(uint64_t word) { return std::exchange(m_user_word, word); }
    // Slot 14. The stored word.
    virtual uint64_t GetUserData() { return m_user_word; }

private:
    uint64_t m_user_word = 0;
};

static_assert(sizeof(IBuffer) == 16, "table pointer and user word");

}  // namespace zumod
