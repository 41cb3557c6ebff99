#include "src/base/mem_buffer.h"

#include <algorithm>

#include "src/base/mem_alloctor_ex.h"

namespace zumod {

template class CMemAlloctorEx<CMemBuffer>;

CMemBuffer::~CMemBuffer() {
    if (m_alloctor != nullptr) {
        m_alloctor->Free(this);
        m_alloctor->Release();
    }
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
