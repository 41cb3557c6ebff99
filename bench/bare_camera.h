// A streaming camera as the benchmarks' bare loops use it: plain system calls and nothing else.
//
// Thread rule: one thread at a time.
#pragma once

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "bench/require.h"

namespace zumod::bench {

struct VideoMode {
    int width;
    int height;
    int fps;
};

// A streaming camera, used through plain system calls.
class BareCamera {
public:
    BareCamera(const char* file, VideoMode mode, uint32_t pixel_format = V4L2_PIX_FMT_NV12)
        : m_fd(open(file, O_RDWR | O_NONBLOCK)) {
        v4l2_format format{};
        format.type = kType;
        format.fmt.pix.width = static_cast<uint32_t>(mode.width);
        format.fmt.pix.height = static_cast<uint32_t>(mode.height);
        format.fmt.pix.pixelformat = pixel_format;
        v4l2_requestbuffers request{};
        request.type = kType;
        request.memory = V4L2_MEMORY_MMAP;
        request.count = 4;
        Require(m_fd >= 0 && ioctl(m_fd, VIDIOC_S_FMT, &format) == 0 &&
                    ioctl(m_fd, VIDIOC_REQBUFS, &request) == 0,
                "the camera does not open");
        for (uint32_t index = 0; index < request.count; ++index) {
            v4l2_buffer buffer = NewBuffer();
            buffer.index = index;
            Require(ioctl(m_fd, VIDIOC_QUERYBUF, &buffer) == 0, "the camera has no buffer");
            void* const start = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd,
                                     static_cast<off_t>(buffer.m.offset));
            Require(start != MAP_FAILED && ioctl(m_fd, VIDIOC_QBUF, &buffer) == 0,
                    "a buffer cannot be mapped");
            m_pool.emplace_back(start, buffer.length);
        }
        int type = kType;
        Require(ioctl(m_fd, VIDIOC_STREAMON, &type) == 0, "the camera does not start");
    }
    ~BareCamera() {
        int type = kType;
        ioctl(m_fd, VIDIOC_STREAMOFF, &type);
        for (const auto& [address, length] : m_pool) {
            munmap(address, length);
        }
        close(m_fd);
    }
    BareCamera(const BareCamera&) = delete;
    BareCamera& operator=(const BareCamera&) = delete;

    // Waits for the next frame, passes it to `take` and queues its buffer again. Returns whether there was a
    // frame.
    template <class Take>
    bool OneFrame(Take take) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(m_fd, &set);
        timeval timeout{1, 0};
        if (select(m_fd + 1, &set, nullptr, nullptr, &timeout) <= 0) {
            return false;
        }
        v4l2_buffer buffer = NewBuffer();
        if (ioctl(m_fd, VIDIOC_DQBUF, &buffer) != 0) {
            return false;
        }
        take(static_cast<const uint8_t*>(m_pool[buffer.index].first));
        Require(ioctl(m_fd, VIDIOC_QBUF, &buffer) == 0, "a buffer cannot be queued");
        return true;
    }

private:
    static constexpr uint32_t kType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    static v4l2_buffer NewBuffer() {
        v4l2_buffer buffer{};
        buffer.type = kType;
        buffer.memory = V4L2_MEMORY_MMAP;
        return buffer;
    }

    const int m_fd;
    std::vector<std::pair<void*, size_t>> m_pool;
};

}  // namespace zumod::bench
