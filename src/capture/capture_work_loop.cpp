// What the work thread of a capture does: waits for filled buffers and hands them to the frame signal.
#include <linux/videodev2.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "src/capture/device_calls.h"
#include "src/capture/linux_v4l2_camera_capture.h"
#include "src/module/log.h"

namespace zumod {

bool LinuxV4L2CameraCapture::workLoop(Work& work) {
    ZuModLog(kLogEvent, "[LinuxV4L2CameraCapture] work thread start, devid %d", work.dev_id);
    while (!isStopping() && DeliverFrame(work)) {
    }
    // Also marks that the loop has ended by itself.
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
    // An interrupted wait leaves the set as it was, so a frame is asked for.
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
    // A driver may name a buffer that was never mapped: there is nothing to show, it is only given back.
    if (buffer.index < work.pool.size()) {
        SignalCaptureFrame(static_cast<const unsigned char*>(work.pool[buffer.index].start), buffer.bytesused,
                           work.width, work.height, static_cast<int>(work.pixel_format));
    }
    if (device::Ioctl(work.descriptor, VIDIOC_QBUF, &buffer) == -1) {
        ZuModLog(kLogIgnored, "[LinuxV4L2CameraCapture] qbuf fail, devid %d", work.dev_id);
    }
    return true;
}

}  // namespace zumod
