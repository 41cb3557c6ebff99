#include "vcam/model/feed_input.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <string>

#include "vcam/picture/picture_stream.h"

namespace zumod::vcam {

std::unique_ptr<FeedInput> FeedInput::Create(const CameraConfig& config) {
    std::unique_ptr<FeedInput> input(new FeedInput);
    input->m_slot_size = kMostLivePixels * 3 / 2;
    for (const Mode& mode : config.modes) {
        input->m_slot_size = std::max(input->m_slot_size, mode.size.width * mode.size.height * 3 / 2);
    }
    const size_t size = FeedMemorySize(input->m_slot_size);
    input->m_memory.Reset(memfd_create("zu-vcam-feed", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!input->m_memory || ftruncate(input->m_memory.Get(), static_cast<off_t>(size)) != 0 ||
        fcntl(input->m_memory.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, input->m_memory.Get(), 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    input->m_header = static_cast<FeedMemory*>(memory);
    return input;
}

FeedInput::~FeedInput() {
    if (m_header != nullptr) {
        munmap(m_header, FeedMemorySize(m_slot_size));
    }
}

Expected<std::optional<PlanarImage>> FeedInput::Take() {
    if ((m_header->newest.load(std::memory_order_relaxed) & FeedMemory::kNew) == 0) {
        return std::nullopt;
    }
    const uint32_t slot =
        m_header->newest.exchange(m_slot, std::memory_order_acq_rel) & FeedMemory::kSlotMask;
    if (slot >= FeedMemory::kSlots) {
        return Fail("it names a slot that does not exist");
    }
    m_slot = slot;
    const uint32_t width = m_header->pictures[slot].width.load(std::memory_order_relaxed);
    const uint32_t height = m_header->pictures[slot].height.load(std::memory_order_relaxed);
    if (!FitsSlot(width, height, m_slot_size)) {
        return Fail("its picture of " + std::to_string(width) + "x" + std::to_string(height) +
                    " does not fit");
    }
    PlanarImage image(width, height);
    const uint8_t* from =
        reinterpret_cast<const uint8_t*>(m_header) + kFeedHeaderSize + size_t{slot} * m_slot_size;
    for (std::vector<uint8_t>* plane : {&image.y, &image.u, &image.v}) {
        std::copy_n(from, plane->size(), plane->begin());
        from += plane->size();
    }
    return image;
}

}  // namespace zumod::vcam
