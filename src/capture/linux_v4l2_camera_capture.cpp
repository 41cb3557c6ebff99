#include "src/capture/linux_v4l2_camera_capture.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <optional>
#include <utility>

#include "src/capture/camera_enumerator.h"
#include "src/capture/device_calls.h"
#include "src/capture/fourcc_text.h"
#include "src/capture/pixel_format_choice.h"
#include "src/capture/supported_formats.h"
#include "src/module/log.h"

// errno is kept in a local before anything is logged: a host's sink may change it.

namespace zumod {

LinuxV4L2CameraCapture::~LinuxV4L2CameraCapture() {
    try {
        stopCapture();
    } catch (...) {
        // The log sink's exception cannot leave a destructor; the capture is idle all the same.
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
    } catch (const std::bad_alloc&) {
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
    if (!FindDevice(path) || !OpenDevice(path)) {
        return false;
    }
    if (!ChooseFormat(path) || !SetDeviceFormat()) {
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
    enumSupportedFormats(m_descriptor, entries);
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
        // No request of its own fails here; the number is the probe's last.
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

    // The driver's other fields are kept.
    v4l2_format wanted = current;
    wanted.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    wanted.fmt.pix.width = width;
    wanted.fmt.pix.height = height;
    wanted.fmt.pix.pixelformat = m_pixel_format;
    if (device::Ioctl(m_descriptor, VIDIOC_S_FMT, &wanted) >= 0) {
        // The width in the place of the device id is deliberate, and kept. What the driver made of the
        // request is not adopted.
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

void LinuxV4L2CameraCapture::StartWorkThread() {
    ZuModLog(kLogTrace, "[LinuxV4L2CameraCapture] startCapture, devid %d, create work thread", m_dev_id);
    m_stop_request.store(false, std::memory_order_relaxed);
    m_thread = std::make_unique<CV4L2Thread>();
    m_thread->SetName("v4l2-cap");
    m_thread->SetWork([this, work = Work{m_descriptor, m_width, m_height, m_pixel_format, m_dev_id, m_pool,
                                         ReadSet(m_descriptor)}]() mutable { return workLoop(work); });
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

void LinuxV4L2CameraCapture::CloseDevice() {
    if (m_descriptor != -1) {
        device::Close(m_descriptor);
        m_descriptor = -1;
    }
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

}  // namespace zumod
