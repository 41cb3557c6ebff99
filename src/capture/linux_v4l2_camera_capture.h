// Capture of one V4L2 camera: opens its device, streams into mapped buffers and emits each filled buffer
// through a signal, on a work thread.
//
// A capture is idle (no descriptor, no thread) or capturing. A start runs its steps in a fixed order under
// m_lock; the first step that fails ends it, and the device is closed again.
//
// A stop, also under m_lock, requests the stop, joins the work thread, unmaps the buffers, stops the stream
// and closes the device. The join comes first, so no slot can still read a frame when its buffer is unmapped.
// The thread notices the request within its select() timeout of one second, or when the running slot returns.
//
// The stopping thread holds m_lock while it joins, so the work thread must never take that lock. It uses a
// copy of the settings instead (Work), made under the lock before the thread is created; thread creation
// orders the copy before the thread's reads. The two threads share only m_stop_request. Relaxed order is
// enough for it: the flag publishes no other data, since creation and join order everything else.
//
// A slot runs on the work thread, so a slot that waits for a lock held by the stopping thread would deadlock
// with the join. Such a slot polls isStopping() while it waits, and gives up.
//
// Required by the contract: a start that fails while it queues buffers leaves them mapped; and after the work
// thread has ended by itself, as when the camera is unplugged, the capture counts as capturing until a stop.
//
// Thread rule: may be called from any thread except the work thread. m_lock serialises start, stop and
// changes of format or device. Connect slots only while idle.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "src/base/lock.h"
#include "src/capture/read_set.h"
#include "src/capture/sigslot.h"
#include "src/capture/v4l2_thread.h"

namespace zumod {

class LinuxV4L2CameraCapture {
public:
    // Data, size, width, height, FourCC; emitted on the work thread. The data is the driver's buffer and is
    // valid until the last slot returns. The size is what the driver reports, but never more than the mapping
    // holds. Width, height and FourCC are the capture's settings.
    using FrameSignal =
        sigslot::signal5<const unsigned char*, unsigned long, int, int, int, sigslot::single_threaded>;
    FrameSignal SignalCaptureFrame;

    LinuxV4L2CameraCapture() = default;
    // Stops, and disconnects all slots.
    ~LinuxV4L2CameraCapture();
    LinuxV4L2CameraCapture(const LinuxV4L2CameraCapture&) = delete;
    LinuxV4L2CameraCapture& operator=(const LinuxV4L2CameraCapture&) = delete;

    // Returns whether the camera is being captured, immediately if it already was. A failure leaves the
    // capture idle. So does an exception of the host's log sink, which propagates to the caller.
    bool startCapture();
    // Waits for the work thread, including a running slot. Does nothing but log if the capture is idle.
    void stopCapture();
    // Stops, then starts, even if the capture was idle.
    void resetCapture();
    // A change of any value calls resetCapture, so it also starts an idle capture.
    void setFormat(int32_t width, int32_t height, int32_t fps);
    void setDevId(int32_t id);

    // [any thread, slots included]; takes no lock. True from the stop request, or from the end of the work
    // thread, until the next start.
    bool isStopping() const { return m_stop_request.load(std::memory_order_relaxed); }

private:
    using DevicePath = std::array<char, 20>;

    struct MappedBuffer {
        void* start;
        size_t length;
    };

    // The work thread's copy of the fields below. The pool is a view of m_pool, which does not change while
    // the thread runs.
    struct Work {
        int descriptor;
        int32_t width;
        int32_t height;
        uint32_t pixel_format;
        int32_t dev_id;
        std::span<const MappedBuffer> pool;
        ReadSet read_set;
    };

    // The steps of a start. Each returns false after it has logged a failure.
    bool Start() ZU_REQUIRES(m_lock);
    bool FindDevice(DevicePath& path) ZU_REQUIRES(m_lock);
    bool OpenDevice(const DevicePath& path) ZU_REQUIRES(m_lock);
    bool ChooseFormat(const DevicePath& path) ZU_REQUIRES(m_lock);
    bool SetDeviceFormat() ZU_REQUIRES(m_lock);
    // Returns whether the device accepted the rate. A refusal is not a failure of the start.
    bool SetFrameRate() ZU_REQUIRES(m_lock);
    bool MakeBufferPool() ZU_REQUIRES(m_lock);
    bool StartStream() ZU_REQUIRES(m_lock);
    void StartWorkThread() ZU_REQUIRES(m_lock);

    // On failure, errno is that of the failed request, even after the line is logged.
    bool allocBufferPool() ZU_REQUIRES(m_lock);
    bool AddBuffer(uint32_t index) ZU_REQUIRES(m_lock);
    void UnmapPool() ZU_REQUIRES(m_lock);
    void deallocBufferPool() ZU_REQUIRES(m_lock);

    void Stop() ZU_REQUIRES(m_lock);
    void CloseDevice() ZU_REQUIRES(m_lock);
    // Releases everything without logging, for use after the log sink has thrown.
    void Abandon() ZU_REQUIRES(m_lock);

    // [work thread]. Always returns false.
    bool workLoop(Work& work);
    // [work thread]. Waits once and emits at most one frame. Returns false to end the loop.
    bool DeliverFrame(Work& work);

    CMutexLock m_lock;
    int32_t m_descriptor ZU_GUARDED_BY(m_lock) = -1;
    int32_t m_width ZU_GUARDED_BY(m_lock) = 640;
    int32_t m_height ZU_GUARDED_BY(m_lock) = 480;
    // V4L2 FourCC; each start chooses it again.
    uint32_t m_pixel_format ZU_GUARDED_BY(m_lock) = 0;
    int32_t m_fps ZU_GUARDED_BY(m_lock) = 15;
    // The id of a CameraDeviceInfo.
    int32_t m_dev_id ZU_GUARDED_BY(m_lock) = 0;
    bool m_capturing ZU_GUARDED_BY(m_lock) = false;
    // Written by start and stop under m_lock and by the work thread when it ends; read without the lock by
    // the work thread and its slots. Relaxed order; see above.
    std::atomic<bool> m_stop_request{false};
    std::unique_ptr<CV4L2Thread> m_thread ZU_GUARDED_BY(m_lock);
    // Indexed by the driver's buffer index.
    std::vector<MappedBuffer> m_pool ZU_GUARDED_BY(m_lock);
};

}  // namespace zumod
