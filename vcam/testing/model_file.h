// An open device file of a camera in this process. Its methods make a program's calls without the preload
// library.
//
// Thread rule: one thread at a time; the descriptor may be polled on any thread.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>

#include "vcam/model/camera.h"
#include "vcam/preload/client_file.h"

namespace zumod::vcam {

class ModelFile {
public:
    // Check Error() before anything else.
    explicit ModelFile(Camera& camera, int flags = O_RDWR | O_NONBLOCK);
    ModelFile(const ModelFile&) = delete;
    ModelFile& operator=(const ModelFile&) = delete;

    int Error() const { return m_error; }
    int Descriptor() const { return m_fd.Get(); }
    void Close() { m_fd.Reset(); }

    // Returns 0 or errno.
    int Ioctl(unsigned long command, void* argument);
    // As mmap: MAP_FAILED with errno set on failure. Unmap with munmap.
    void* Map(size_t length, int protection, uint64_t offset);

private:
    static int Call(void* context, const Request& request, const iovec* parts, int part_count, Reply& reply,
                    int* fd);

    Camera& m_camera;
    FileIdentity m_identity{};
    UniqueFd m_fd;
    int m_error;
};

}  // namespace zumod::vcam
