#include "vcam/model/buffer_pool.h"

#include <fcntl.h>
#include <sys/mman.h>

namespace zumod::vcam {

std::shared_ptr<BufferPool> BufferPool::Create(uint32_t count, uint32_t length) {
    const auto page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
    std::shared_ptr<BufferPool> pool(new BufferPool);
    pool->m_count = count;
    pool->m_stride = (length + page - 1) / page * page;
    const size_t size = size_t{count} * pool->m_stride;
    pool->m_fd.Reset(memfd_create("zu-vcam-buffers", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!pool->m_fd || ftruncate(pool->m_fd.Get(), static_cast<off_t>(size)) != 0 ||
        fcntl(pool->m_fd.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0) {
        return nullptr;
    }
    // Populated, so that no frame waits for a page fault.
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, pool->m_fd.Get(), 0);
    if (base == MAP_FAILED) {
        return nullptr;
    }
    pool->m_base = static_cast<uint8_t*>(base);
    return pool;
}

BufferPool::~BufferPool() {
    Unmap();
}

void BufferPool::Unmap() {
    if (m_base != nullptr) {
        munmap(m_base, size_t{m_count} * m_stride);
        m_base = nullptr;
    }
}

bool BufferPool::IsMappedElsewhere() {
    Unmap();
    // The kernel refuses to seal memory against writing while it is mapped for writing.
    return fcntl(m_fd.Get(), F_ADD_SEALS, F_SEAL_WRITE) != 0;
}

}  // namespace zumod::vcam
