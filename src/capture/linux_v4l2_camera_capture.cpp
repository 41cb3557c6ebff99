#include "src/capture/linux_v4l2_camera_capture.h"

#include <linux/videodev2.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "src/base/own_memory.h"
#include "src/capture/device_calls.h"
#include "src/capture/pixel_formats.h"
#include "src/module/log.h"

namespace zumod {

LinuxV4L2CameraCapture::~LinuxV4L2CameraCapture() {
    try {
        stopCapture();
    } catch (...) {
        // A destructor must not throw. The capture is idle even if the host's log sink threw.
    }
}

bool LinuxV4L2CameraCapture::startCapture() {
    const LockGuard guard(m_lock);
    if (m_capturing) {
        return true;
    }
    try {
        if (Start()) {
            return true;
        }
    } catch (const OutOfMemory&) {
        Abandon();
        return false;
    } catch (...) {
        Abandon();
        throw;
    }
    CloseDevice();
    return false;
}

void LinuxV4L2CameraCapture::stopCapture() {
    const LockGuard guard(m_lock);
    try {
        Stop();
    } catch (...) {
        Abandon();
        throw;
    }
}

void LinuxV4L2CameraCapture::resetCapture() {
    int32_t dev_id = 0;
    {
        const LockGuard guard(m_lock);
        dev_id = m_dev_id;
    }
    ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] resetCapture, devId %d", dev_id);
    stopCapture();
    startCapture();
}

void LinuxV4L2CameraCapture::setFormat(int32_t width, int32_t height, int32_t fps) {
    {
        const LockGuard guard(m_lock);
        if (width == m_width && height == m_height && fps == m_fps) {
            return;
        }
        ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] setFormat, devid %d, size %dx%d fps %d", m_dev_id,
                 width, height, fps);
        m_width = width;
        m_height = height;
        m_fps = fps;
    }
    resetCapture();
}

void LinuxV4L2CameraCapture::setDevId(int32_t id) {
    {
        const LockGuard guard(m_lock);
        if (id == m_dev_id) {
            return;
        }
        ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] setDevId, from %d to %d", m_dev_id, id);
        m_dev_id = id;
    }
    resetCapture();
}

bool LinuxV4L2CameraCapture::Start() {
    DevicePath path{};
    if (!FindDevice(path) || !OpenDevice(path) || !ChooseFormat(path) || !SetDeviceFormat()) {
        return false;
    }
    const bool rate_set = SetFrameRate();
    if (!MakeBufferPool() || !StartStream()) {
        return false;
    }
    StartWorkThread();
    m_capturing = true;
    ZuModLog(kLogEvent,
             "[LinuxV4L2CameraCapture] startCapture success, devid %d, width %d height %d format %s fps %d "
             "setfps %d",
             m_dev_id, m_width, m_height, FourCcText(m_pixel_format).Get(), m_fps, rate_set ? 1 : 0);
    return true;
}

void LinuxV4L2CameraCapture::StartWorkThread() {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, create work thread", m_dev_id);
    m_stop_request.store(false, std::memory_order_relaxed);
    m_thread = Allocate([this]() ZU_REQUIRES(m_lock) {
        auto thread = std::make_unique<CV4L2Thread>();
        thread->SetName("v4l2-cap");
        thread->SetWork([this, work = Work{m_descriptor, m_width, m_height, m_pixel_format, m_dev_id, m_pool,
                                           ReadSet(m_descriptor)}]() mutable { return workLoop(work); });
        return thread;
    });
    m_thread->Start();
}

void LinuxV4L2CameraCapture::Stop() {
    ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] stopCapture, devid %d", m_dev_id);
    m_stop_request.store(true, std::memory_order_relaxed);
    if (m_thread != nullptr) {
        ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] stopCapture, devid %d begin stop work thread",
                 m_dev_id);
        m_thread->Stop();
        m_thread.reset();
        ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] stopCapture, devid %d finish stop work thread",
                 m_dev_id);
    }
    if (m_descriptor != -1) {
        ZuModLog(kLogTrace,
                 "[LinuxV4L2CameraCapture] stopCapture, devid %d release buffer pool and close device",
                 m_dev_id);
        deallocBufferPool();
        CloseDevice();
    }
    m_capturing = false;
}

void LinuxV4L2CameraCapture::Abandon() {
    m_stop_request.store(true, std::memory_order_relaxed);
    if (m_thread != nullptr) {
        m_thread->Stop();
        m_thread.reset();
    }
    if (m_descriptor != -1) {
        UnmapPool();
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        device::Ioctl(m_descriptor, VIDIOC_STREAMOFF, &type);
        CloseDevice();
    }
    m_capturing = false;
}

bool LinuxV4L2CameraCapture::workLoop(Work& work) {
    ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] work thread start, devid %d", work.dev_id);
    while (!isStopping() && DeliverFrame(work)) {
    }
    // Required by the contract: also set when the loop ended without a stop.
    m_stop_request.store(true, std::memory_order_relaxed);
    ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] work thread finish, devid %d", work.dev_id);
    return false;
}

bool LinuxV4L2CameraCapture::DeliverFrame(Work& work) {
    usleep(1);
    work.read_set.Reset();
    timeval timeout{1, 0};
    const int ready = device::Select(work.descriptor + 1, work.read_set.Get(), &timeout);
    const int select_error = errno;
    if (isStopping()) {
        return false;
    }
    if (ready == 0) {
        return true;
    }
    if (ready < 0 && select_error != EINTR) {
        ZuModLog(kLogFailure, "[LinuxV4L2CameraCapture] workLoop, select fail, devid %d, err: %d",
                 work.dev_id, select_error);
        return false;
    }
    // An interrupted select() leaves the set unchanged, so the loop goes on to dequeue.
    if (!work.read_set.HoldsDescriptor()) {
        return true;
    }

    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    while (device::Ioctl(work.descriptor, VIDIOC_DQBUF, &buffer) < 0) {
        const int dequeue_error = errno;
        if (isStopping()) {
            return false;
        }
        if (dequeue_error != EINTR) {
            return true;
        }
    }
    if (isStopping()) {
        return false;
    }
    // A driver may return the index of a buffer that was never mapped: requeue it without emitting a frame.
    if (buffer.index < work.pool.size()) {
        const MappedBuffer& mapped = work.pool[buffer.index];
        // A driver may report more bytes than the buffer has. The encoder would read past the mapping and
        // send other memory of the process to the peer.
        const unsigned long length = std::min<unsigned long>(buffer.bytesused, mapped.length);
        SignalCaptureFrame(static_cast<const unsigned char*>(mapped.start), length, work.width, work.height,
                           static_cast<int>(work.pixel_format));
    }
    if (device::Ioctl(work.descriptor, VIDIOC_QBUF, &buffer) == -1) {
        ZuModLog(kLogIgnored, "[LinuxV4L2CameraCapture] qbuf fail, devid %d", work.dev_id);
    }
    return true;
}

}  // namespace zumod
