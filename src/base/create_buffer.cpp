#include "src/base/create_buffer.h"

#include <cstring>

namespace zumod {

CRefPtr_T<IBuffer> CreateBuffer(IMemAlloctor* alloctor, const void* bytes, uint64_t length) {
    if (alloctor == nullptr) {
        return {};
    }
    CRefPtr_T<IBuffer> buffer = alloctor->Alloc(length);
    if (buffer != nullptr) {
        if (length != 0) {
            std::memcpy(buffer->GetData(), bytes, length);
        }
        buffer->SetSize(length);
    }
    return buffer;
}

CRefPtr_T<IBuffer> CreateBuffer(const void* bytes, uint64_t length) {
    return CreateBuffer(g_pDefaultAlloctor.Get(), bytes, length);
}

}  // namespace zumod
