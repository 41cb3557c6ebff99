// The buffer class of the module's allocator.
//
// Thread rule: that of IBuffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "src/base/buffer.h"

namespace zumod {

class CMemBuffer final : public IBuffer, private CReference {
public:
    // Takes over `data` (malloc's, `capacity` bytes, or null with 0) and adds a reference to the allocator.
    CMemBuffer(IMemAlloctor* alloctor, void* data, uint64_t capacity)
        : m_alloctor(alloctor), m_data(data), m_capacity(capacity) {
        if (m_alloctor != nullptr) {
            m_alloctor->AddRef();
        }
    }
    ~CMemBuffer() override;

    // Calls the C heap directly. The global operators would cost as much as a reference count, on every
    // frame. Throws std::bad_alloc on failure, as they do.
    static void* operator new(size_t size) {
        void* object = std::malloc(size);
        if (object == nullptr) [[unlikely]] {
            throw std::bad_alloc();
        }
        return object;
    }
    static void operator delete(void* object) { std::free(object); }

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
