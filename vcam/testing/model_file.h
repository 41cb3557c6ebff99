// An open device file of a camera in the same process, for tests of the model without a preload: the calls a
// program makes, as methods that return 0 or errno. One thread at a time; the descriptor may be polled
// anywhere.
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

    int Error() const { return error_; }
    int Descriptor() const { return fd_.Get(); }
    void Close() { fd_.Reset(); }

    int Ioctl(unsigned long command, void* argument);
    // MAP_FAILED with errno set, as mmap does. Unmap with munmap.
    void* Map(size_t length, int protection, uint64_t offset);

private:
    static int Call(void* context, const Request& request, const iovec* parts, int part_count, Reply& reply,
                    int* fd);

    Camera& camera_;
    FileIdentity identity_{};
    UniqueFd fd_;
    int error_;
};

}  // namespace zumod::vcam
