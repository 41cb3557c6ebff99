#include "base/mem_alloctor_ex.h"

#include <algorithm>
#include <cstdlib>

#include "base/buffer.h"
#include "base/mem_buffer.h"

namespace zumod {

template <class Buffer>
CRefPtr_T<IBuffer> CMemAlloctorEx<Buffer>::Alloc(uint64_t size) {
    return AllocBuffer(size);
}

template <class Buffer>
CRefPtr_T<IBuffer> CMemAlloctorEx<Buffer>::AllocBuffer(uint64_t size) {
    size = std::min(size, GetMaxSize());
    void* block = nullptr;
    if (size != 0) {
        block = std::malloc(size);
        if (block == nullptr) {
            block = std::malloc(size);  // a single retry, deliberately
        }
        if (block == nullptr) {
            return {};
        }
    }
    return CRefPtr_T<IBuffer>(new Buffer(this, block, size));
}

template <class Buffer>
bool CMemAlloctorEx<Buffer>::Free(IBuffer* buffer) {
    if (buffer == nullptr) {
        return false;
    }
    std::free(buffer->GetAllocData());
    return true;
}

template <class Buffer>
void* CMemAlloctorEx<Buffer>::ReAlloc(IBuffer* buffer, uint64_t size) {
    if (buffer == nullptr) {
        return nullptr;
    }
    void* block = std::realloc(buffer->GetAllocData(), size);
    if (block == nullptr && size != 0) {
        return nullptr;
    }
    m_accounted.fetch_sub(buffer->GetAllocSize(), std::memory_order_relaxed);
    buffer->Attach(block, size);
    m_accounted.fetch_add(buffer->GetAllocSize(), std::memory_order_relaxed);
    return block;
}

template class CMemAlloctorEx<CMemBuffer>;

}  // namespace zumod
