// The memory of a camera's buffers, which programs map.
//
// Thread rule: immutable after creation, so any thread; IsMappedElsewhere only while no other thread uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/unique_fd.h"

namespace zumod::vcam {

class BufferPool {
public:
    // Returns null, with errno set, if there is no memory.
    static std::shared_ptr<BufferPool> Create(uint32_t count, uint32_t length);
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;
    ~BufferPool();

    uint8_t* At(uint32_t index) const { return m_base + size_t{index} * m_stride; }
    uint32_t Stride() const { return m_stride; }
    uint32_t Count() const { return m_count; }
    int Descriptor() const { return m_fd.Get(); }

    // Ends the camera's own mapping and returns whether a program still has one. At must not be used any
    // more.
    bool IsMappedElsewhere();

private:
    BufferPool() = default;
    void Unmap();

    UniqueFd m_fd;
    uint8_t* m_base = nullptr;
    uint32_t m_count = 0;
    uint32_t m_stride = 0;
};

}  // namespace zumod::vcam
