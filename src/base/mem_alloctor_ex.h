// The only allocator class: each buffer is one object and one block of the C heap. There is no pool.
//
// Thread rule: Alloc, Free and the reference counts are [any thread]; ReAlloc is for the thread that uses the
// buffer. The accounted bytes are a relaxed counter, read only for reports.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "src/base/buffer.h"
#include "src/base/mem_alloctor.h"
#include "zumod/reference.h"

namespace zumod {

template <class Buffer>
class CMemAlloctorEx final : public IMemAlloctor, private CReference {
public:
    CMemAlloctorEx() = default;
    // With a limit on the blocks of Alloc, in bytes.
    explicit CMemAlloctorEx(uint64_t max_size) : m_max_size(max_size) {}

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    CRefPtr_T<IBuffer> Alloc(uint64_t size) override { return AllocBuffer(size); }

    bool Free(IBuffer* buffer) override {
        if (buffer == nullptr) {
            return false;
        }
        std::free(buffer->GetAllocData());
        return true;
    }

    uint64_t GetMaxSize() override { return m_max_size; }

    void* ReAlloc(IBuffer* buffer, uint64_t size) override {
        if (buffer == nullptr) {
            return nullptr;
        }
        void* const old = buffer->GetAllocData();
        // realloc() of no block to no bytes would allocate one.
        void* const block = old != nullptr || size != 0 ? std::realloc(old, size) : nullptr;
        if (block == nullptr && size != 0) {
            return nullptr;
        }
        m_accounted.fetch_sub(buffer->GetAllocSize(), std::memory_order_relaxed);
        buffer->Attach(block, size);
        m_accounted.fetch_add(buffer->GetAllocSize(), std::memory_order_relaxed);
        return block;
    }

    CRefPtr_T<IBuffer> AllocBuffer(uint64_t size) override {
        size = std::min(size, m_max_size);
        void* block = nullptr;
        if (size != 0) {
            block = std::malloc(size);
            if (block == nullptr) [[unlikely]] {
                block = std::malloc(size);  // Required by the contract: a single retry.
                if (block == nullptr) {
                    return {};
                }
            }
        }
        return CRefPtr_T<Buffer>(new Buffer(this, block, size));
    }

    // The sum of the size changes by ReAlloc, in unsigned arithmetic: it may wrap.
    uint64_t GetAccountedBytes() const { return m_accounted.load(std::memory_order_relaxed); }

private:
    [[maybe_unused]] uint64_t m_reserved = 0;
    // Written by any thread that resizes a buffer, read for reports; relaxed: only the sum matters.
    std::atomic<uint64_t> m_accounted{0};
    uint64_t m_max_size = ~uint64_t{0};
    [[maybe_unused]] uint64_t m_number_4096 = 4096;
    [[maybe_unused]] uint64_t m_number_1000 = 1000;
};

class CMemBuffer;
static_assert(sizeof(CMemAlloctorEx<CMemBuffer>) == sizeof(IMemAlloctor) + sizeof(CReference) + 40);
// Instantiated in mem_buffer.cpp so that the compiler can devirtualise the destruction path.
extern template class CMemAlloctorEx<CMemBuffer>;

}  // namespace zumod
