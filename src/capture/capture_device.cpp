// The steps of a capture on its device: find, open, negotiate, map buffers, start the stream, and undo each.
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

#include "src/base/own_memory.h"
#include "src/capture/camera_enumerator.h"
#include "src/capture/device_calls.h"
#include "src/capture/linux_v4l2_camera_capture.h"
#include "src/capture/pixel_formats.h"
#include "src/module/log.h"

// errno is copied before every log line: the host's log sink may change it.

namespace zumod {
namespace {

constexpr uint32_t kPoolSize = 4;

bool FailWith(int error) {
    errno = error;
    return false;
}

}  // namespace

bool LinuxV4L2CameraCapture::FindDevice(DevicePath& path) {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, get device info", m_dev_id);
    CameraDeviceInfo info;
    if (!CameraEnumerator::GetInstance()->getCameraInfo(static_cast<uint32_t>(m_dev_id), info)) {
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] startCapture, camera not founded, devid %d",
                 m_dev_id);
        return false;
    }
    std::snprintf(path.data(), path.size(), "%s", info.file.c_str());
    return true;
}

bool LinuxV4L2CameraCapture::OpenDevice(const DevicePath& path) {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, open device file %s", m_dev_id,
             path.data());
    m_descriptor = device::Open(path.data(), O_RDWR | O_NONBLOCK);
    if (m_descriptor < 0) {
        const int error = errno;
        m_descriptor = -1;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] startCapture, open device fail, devid %d, err: %d",
                 m_dev_id, error);
        return false;
    }
    return true;
}

bool LinuxV4L2CameraCapture::ChooseFormat(const DevicePath& path) {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d file %s, enum capabilities",
             m_dev_id, path.data());
    std::vector<SupportedFormat> entries;
    Allocate([&]() ZU_REQUIRES(m_lock) { enumSupportedFormats(m_descriptor, entries); });
    const int error = errno;
    if (entries.empty()) {
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] query device capabilities fail, devid %d, err: %d",
                 m_dev_id, error);
        return false;
    }
    for (const SupportedFormat& entry : entries) {
        ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] startCapture, devid %d support %dx%d fmt %s", m_dev_id,
                 entry.width, entry.height, FourCcText(entry.pixel_format).Get());
    }

    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, search mached format", m_dev_id);
    const std::optional<uint32_t> chosen = ChoosePixelFormat(entries, m_width, m_height);
    if (!chosen) {
        // Required by the contract: the line has an error number although no request failed. It is the errno
        // of the last refused format.
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] query supported format fail, devid %d, err: %d",
                 m_dev_id, error);
        return false;
    }
    m_pixel_format = *chosen;
    return true;
}

bool LinuxV4L2CameraCapture::SetDeviceFormat() {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, set input format %dx%d fmt %s",
             m_dev_id, m_width, m_height, FourCcText(m_pixel_format).Get());
    const auto width = static_cast<uint32_t>(m_width);
    const auto height = static_cast<uint32_t>(m_height);

    v4l2_format current{};
    current.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    const v4l2_pix_format& now = current.fmt.pix;
    if (device::Ioctl(m_descriptor, VIDIOC_G_FMT, &current) < 0) {
        const int error = errno;
        ZuModLog(kLogIgnored, "[LinuxV4L2CameraCapture] get capture format fail, devid %d, err: %d", m_dev_id,
                 error);
    } else {
        const bool need_set = now.width != width || now.height != height || now.pixelformat != m_pixel_format;
        ZuModLog(kLogIgnored,
                 "[LinuxV4L2CameraCapture] current size %dx%d fmt %d, requresize %dx%d fmt %d devid %d, need "
                 "set device %d",
                 static_cast<int>(now.width), static_cast<int>(now.height), static_cast<int>(now.pixelformat),
                 m_width, m_height, static_cast<int>(m_pixel_format), m_dev_id, need_set ? 1 : 0);
        if (!need_set) {
            return true;
        }
    }

    // Keeps the driver's other fields.
    v4l2_format wanted = current;
    wanted.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    wanted.fmt.pix.width = width;
    wanted.fmt.pix.height = height;
    wanted.fmt.pix.pixelformat = m_pixel_format;
    if (device::Ioctl(m_descriptor, VIDIOC_S_FMT, &wanted) >= 0) {
        // Required by the contract: "devid" prints the requested width, and the size that the driver chose is
        // logged but not adopted.
        ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] set success %dx%d fmt %d devid %d",
                 static_cast<int>(wanted.fmt.pix.width), static_cast<int>(wanted.fmt.pix.height),
                 static_cast<int>(wanted.fmt.pix.pixelformat), m_width);
        return true;
    }
    const int error = errno;
    if (now.width == width && now.height == height && IsCapturable(now.pixelformat)) {
        m_pixel_format = now.pixelformat;
        ZuModLog(kLogIgnored,
                 "[LinuxV4L2CameraCapture] set capture format fail, use current fmt %d, devid %d, err: %d",
                 static_cast<int>(m_pixel_format), m_dev_id, error);
        return true;
    }
    ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] set capture format fail, devid %d, err: %d", m_dev_id,
             error);
    return false;
}

bool LinuxV4L2CameraCapture::SetFrameRate() {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, set fps", m_dev_id);
    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (device::Ioctl(m_descriptor, VIDIOC_G_PARM, &parameters) < 0) {
        const int error = errno;
        ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] query support change fps fail, devid %d, err: %d",
                 m_dev_id, error);
        return false;
    }
    if ((parameters.parm.capture.capability & V4L2_CAP_TIMEPERFRAME) == 0) {
        ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] device not support change fps, devid %d", m_dev_id);
        return false;
    }

    parameters = {};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parameters.parm.capture.timeperframe.numerator = 1;
    parameters.parm.capture.timeperframe.denominator = static_cast<uint32_t>(m_fps);
    if (device::Ioctl(m_descriptor, VIDIOC_S_PARM, &parameters) < 0) {
        const int error = errno;
        ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] set capture fps fail, devid %d, err: %d", m_dev_id,
                 error);
        return false;
    }
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] set capture fps success, devid %d", m_dev_id);
    return true;
}

bool LinuxV4L2CameraCapture::MakeBufferPool() {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, alloc buffer pool", m_dev_id);
    if (!allocBufferPool()) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid %d, err: %d", m_dev_id,
                 error);
        return false;
    }
    return true;
}

bool LinuxV4L2CameraCapture::StartStream() {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, start capture device ", m_dev_id);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (device::Ioctl(m_descriptor, VIDIOC_STREAMON, &type) == -1) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] alloc video buffer fail, devid %d, err: %d", m_dev_id,
                 error);
        deallocBufferPool();
        return false;
    }
    return true;
}

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

    // Required by the contract: forgets the mappings of a failed start without unmapping them.
    m_pool.clear();
    Allocate([this]() ZU_REQUIRES(m_lock) { m_pool.reserve(kPoolSize); });
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
    // Required by the contract: unmapped before the stream stops. The close releases the driver's buffers.
    UnmapPool();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (device::Ioctl(m_descriptor, VIDIOC_STREAMOFF, &type) < 0) {
        const int error = errno;
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] dealloc buffer pool fail, devid %d, err %d", m_dev_id,
                 error);
    }
}

void LinuxV4L2CameraCapture::CloseDevice() {
    if (m_descriptor != -1) {
        device::Close(m_descriptor);
        m_descriptor = -1;
    }
}

}  // namespace zumod
