// The driver's buffers of a capture: asked for, mapped and queued; unmapped and stopped.
#include <linux/videodev2.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

#include "src/capture/device_calls.h"
#include "src/capture/linux_v4l2_camera_capture.h"
#include "src/module/log.h"

namespace zumod {
namespace {

constexpr uint32_t kPoolSize = 4;

bool FailWith(int error) {
    errno = error;
    return false;
}

}  // namespace

bool LinuxV4L2CameraCapture::allocBufferPool() {
    v4l2_requestbuffers request{};
    request.count = kPoolSize;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (device::Ioctl(m_descriptor, VIDIOC_REQBUFS, &request) < 0) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] req buf fail, devid %d, err %d", m_dev_id, error);
        return FailWith(error);
    }

    // Forgets, without unmapping, what a failed start left mapped.
    m_pool.clear();
    m_pool.reserve(kPoolSize);
    const uint32_t count = std::min(request.count, kPoolSize);
    for (uint32_t index = 0; index < count; ++index) {
        if (!AddBuffer(index)) {
            return false;
        }
    }
    return true;
}

bool LinuxV4L2CameraCapture::AddBuffer(uint32_t index) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    if (device::Ioctl(m_descriptor, VIDIOC_QUERYBUF, &buffer) < 0) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] query buf fail, devid %d, err %d", m_dev_id, error);
        return FailWith(error);
    }

    void* start = device::Map(buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor,
                              static_cast<off_t>(buffer.m.offset));
    if (start == MAP_FAILED) {
        const int error = errno;
        UnmapPool();
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] map buf fail, devid %d, err %d", m_dev_id, error);
        return FailWith(error);
    }
    m_pool.push_back({start, buffer.length});

    if (device::Ioctl(m_descriptor, VIDIOC_QBUF, &buffer) < 0) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] qbuf fail, devid %d, err %d", m_dev_id, error);
        return FailWith(error);
    }
    return true;
}

void LinuxV4L2CameraCapture::UnmapPool() {
    for (const MappedBuffer& buffer : m_pool) {
        device::Unmap(buffer.start, buffer.length);
    }
    m_pool.clear();
}

void LinuxV4L2CameraCapture::deallocBufferPool() {
    // Before the stream stops, deliberately. The close of the device gives the buffers back.
    UnmapPool();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (device::Ioctl(m_descriptor, VIDIOC_STREAMOFF, &type) < 0) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid %d, err %d", m_dev_id,
                 error);
    }
}

}  // namespace zumod
