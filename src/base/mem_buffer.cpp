#include "src/base/mem_buffer.h"

#include <algorithm>

#include "src/base/mem_alloctor_ex.h"

namespace zumod {

template class CMemAlloctorEx<CMemBuffer>;

[[gnu::always_inline]] inline void CMemBuffer::GiveBack() {
    if (IMemAlloctor* const alloctor = m_alloctor) {
        alloctor->Free(this);
        alloctor->Release();
        m_alloctor = nullptr;
    }
}

CMemBuffer::~CMemBuffer() {
    GiveBack();
}

void CMemBuffer::End() {
    // Ahead of the destructor, which would set the object's tables back first for the sake of these calls.
    GiveBack();
    delete this;
}

uint64_t CMemBuffer::SetSize(uint64_t size) {
    m_size = std::min(size, m_capacity);
    return m_size;
}

CRefPtr_T<IMemAlloctor> CMemBuffer::GetAllocator() {
    return CRefPtr_T<IMemAlloctor>(m_alloctor);
}

void* CMemBuffer::Resize(uint64_t size) {
    return m_alloctor != nullptr ? m_alloctor->ReAlloc(this, size) : nullptr;
}

void* CMemBuffer::Attach(void* data, uint64_t capacity) {
    m_capacity = capacity;
    return std::exchange(m_data, data);
}

}  // namespace zumod
