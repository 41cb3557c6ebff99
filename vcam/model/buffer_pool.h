// The memory of a camera's buffers, which programs map. Immutable after creation; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/unique_fd.h"

namespace zumod::vcam {

class BufferPool {
public:
    // Null, with errno set, when there is no memory.
    static std::shared_ptr<BufferPool> Create(uint32_t count, uint32_t length);
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;
    ~BufferPool();

    uint8_t* At(uint32_t index) const { return base_ + size_t{index} * stride_; }
    uint32_t Stride() const { return stride_; }
    uint32_t Count() const { return count_; }
    uint32_t Length() const { return length_; }
    int Descriptor() const { return fd_.Get(); }

    // Gives up the camera's own mapping, for good, and says whether a program still has one: like the kernel,
    // a camera is in use until its memory is unmapped too. Nobody may use At any more.
    bool IsMappedElsewhere();

private:
    BufferPool() = default;
    void Unmap();

    UniqueFd fd_;
    uint8_t* base_ = nullptr;
    uint32_t count_ = 0;
    uint32_t length_ = 0;
    uint32_t stride_ = 0;
};

}  // namespace zumod::vcam
