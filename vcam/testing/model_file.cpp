#include "vcam/testing/model_file.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace zumod::vcam {

ModelFile::ModelFile(Camera& camera, int flags)
    : m_camera(camera), m_error(camera.Open(static_cast<uint32_t>(flags), m_fd, m_identity)) {}

int ModelFile::Call(void* context, const Request& request, const iovec* parts, int part_count, Reply& reply,
                    int* fd) {
    auto& camera = *static_cast<Camera*>(context);
    std::vector<uint8_t> payload;
    for (int i = 0; i < part_count; ++i) {
        const auto* bytes = static_cast<const uint8_t*>(parts[i].iov_base);
        payload.insert(payload.end(), bytes, bytes + parts[i].iov_len);
    }
    UniqueFd descriptor;
    reply.error = camera.Serve(request, payload, descriptor);
    size_t copied = 0;
    for (int i = 0; i < part_count; ++i) {
        const size_t size = std::min(parts[i].iov_len, payload.size() - copied);
        if (size != 0) {
            std::memcpy(parts[i].iov_base, payload.data() + copied, size);
            copied += size;
        }
    }
    if (fd != nullptr) {
        *fd = descriptor.Release();
    }
    return 0;
}

int ModelFile::Ioctl(unsigned long command, void* argument) {
    const Channel channel{&m_camera, &Call};
    return ClientIoctl(m_fd.Get(), m_identity, m_camera.Board(), channel, command, argument);
}

void* ModelFile::Map(size_t length, int protection, uint64_t offset) {
    Request request = MakeRequest(Operation::kMap, m_identity);
    request.value = offset;
    request.argument = length;
    request.flags = (protection & PROT_WRITE) != 0 ? 1 : 0;
    Reply reply{};
    int memory = -1;
    Call(&m_camera, request, nullptr, 0, reply, &memory);
    if (reply.error != 0) {
        errno = reply.error;
        return MAP_FAILED;
    }
    const UniqueFd owned(memory);
    return mmap(nullptr, length, protection, MAP_SHARED, memory, static_cast<off_t>(offset));
}

}  // namespace zumod::vcam
