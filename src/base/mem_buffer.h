// The buffer that the module's allocator hands out.
#pragma once

#include <cstdint>

#include "base/buffer.h"

namespace zumod {

class CMemBuffer final : public IBuffer, private CReference {
public:
    // Takes over `data` (malloc's, `capacity` bytes, or null with 0) and adds a reference to the allocator.
    CMemBuffer(IMemAlloctor* alloctor, void* data, uint64_t capacity);
    ~CMemBuffer() override;

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    void* GetData() override { return m_data; }
    uint64_t GetSize() override { return m_size; }
    uint64_t SetSize(uint64_t size) override;
    uint64_t GetCapacity() override { return m_capacity; }
    uint64_t GetAllocSize() override { return m_capacity; }
    void* GetAllocData() override { return m_data; }
    CRefPtr_T<IMemAlloctor> GetAllocator() override;
    void* Resize(uint64_t size) override;
    void* Attach(void* data, uint64_t capacity) override;

private:
    IMemAlloctor* m_alloctor;  // one reference
    void* m_data;
    uint64_t m_size = 0;
    uint64_t m_capacity;
};

static_assert(sizeof(CMemBuffer) == sizeof(IBuffer) + sizeof(CReference) + 32);

}  // namespace zumod
