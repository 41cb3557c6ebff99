// Drives one camera: opens its device, streams into mapped buffers and hands each filled buffer to the frame
// signal, on a work thread of its own.
//
// Thread rule: every operation is [any thread] but the work thread; start, stop and the stores of setFormat
// and setDevId take turns under the capture lock. Connecting to the signal is [owner & not capturing].
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "src/base/mutex_lock.h"
#include "src/capture/read_set.h"
#include "src/capture/sigslot.h"
#include "src/capture/v4l2_thread.h"

namespace zumod {

class LinuxV4L2CameraCapture {
public:
    // Data, size, width, height, FourCC; emitted on the work thread. The data is the driver's own memory: it
    // is valid until the last slot returns. Width, height and FourCC are the capture's, not read from the
    // frame.
    using FrameSignal =
        sigslot::signal5<const unsigned char*, unsigned long, int, int, int, sigslot::single_threaded>;
    FrameSignal SignalCaptureFrame;

    LinuxV4L2CameraCapture() = default;
    // Stops; the connected slots are cut off.
    ~LinuxV4L2CameraCapture();
    LinuxV4L2CameraCapture(const LinuxV4L2CameraCapture&) = delete;
    LinuxV4L2CameraCapture& operator=(const LinuxV4L2CameraCapture&) = delete;

    // Returns whether the camera is captured afterwards; at once when it already was. A failure leaves the
    // capture idle. An exception of the host's log sink goes on to the caller and leaves it idle as well.
    bool startCapture();
    // Waits for the work thread, so also for a slot that runs. Harmless when nothing runs.
    void stopCapture();
    // Stops and starts, whether or not it captured before.
    void resetCapture();
    // A change is followed by resetCapture, so it also starts a capture that was idle.
    void setFormat(int32_t width, int32_t height, int32_t fps);
    void setDevId(int32_t id);

    // [any thread, a slot too]; takes no lock. True from the moment a stop asks the work thread to end, and
    // after it ended, until the next start. stopCapture waits for the slots: one that waits for a lock its
    // stopper may hold asks this while it waits, and gives up.
    bool isStopping() const { return m_stop_request.load(std::memory_order_relaxed); }

private:
    using DevicePath = std::array<char, 20>;

    struct MappedBuffer {
        void* start;
        size_t length;
    };

    // What the work thread needs of the fields below, taken under the lock before the thread is created. None
    // of it changes while the thread runs: a stop joins the thread before it touches anything.
    struct Work {
        int descriptor;
        int32_t width;
        int32_t height;
        uint32_t pixel_format;
        int32_t dev_id;
        std::span<const MappedBuffer> pool;
        ReadSet read_set;
    };

    // The steps of a start; false after a failure, which is logged.
    bool Start() ZU_REQUIRES(m_lock);
    bool FindDevice(DevicePath& path) ZU_REQUIRES(m_lock);
    bool OpenDevice(const DevicePath& path) ZU_REQUIRES(m_lock);
    bool ChooseFormat(const DevicePath& path) ZU_REQUIRES(m_lock);
    bool SetDeviceFormat() ZU_REQUIRES(m_lock);
    // Whether the device took the rate; capturing goes on either way.
    bool SetFrameRate() ZU_REQUIRES(m_lock);
    bool MakeBufferPool() ZU_REQUIRES(m_lock);
    bool StartStream() ZU_REQUIRES(m_lock);
    void StartWorkThread() ZU_REQUIRES(m_lock);

    // False with errno as the failing request left it, whatever was logged in between.
    bool allocBufferPool() ZU_REQUIRES(m_lock);
    bool AddBuffer(uint32_t index) ZU_REQUIRES(m_lock);
    void UnmapPool() ZU_REQUIRES(m_lock);
    void deallocBufferPool() ZU_REQUIRES(m_lock);

    void Stop() ZU_REQUIRES(m_lock);
    void CloseDevice() ZU_REQUIRES(m_lock);
    // Whatever is left of a capture is given back, and nothing logged: for when the log itself has failed.
    void Abandon() ZU_REQUIRES(m_lock);

    // On the work thread. Returns false.
    bool workLoop(Work& work);
    // One wait, and one frame if there is one. False ends the loop.
    bool DeliverFrame(Work& work);

    CMutexLock m_lock;
    int32_t m_descriptor ZU_GUARDED_BY(m_lock) = -1;
    int32_t m_width ZU_GUARDED_BY(m_lock) = 640;
    int32_t m_height ZU_GUARDED_BY(m_lock) = 480;
    // V4L2 FourCC, chosen anew by each start.
    uint32_t m_pixel_format ZU_GUARDED_BY(m_lock) = 0;
    int32_t m_fps ZU_GUARDED_BY(m_lock) = 15;
    // The id of a CameraDeviceInfo.
    int32_t m_dev_id ZU_GUARDED_BY(m_lock) = 0;
    // Stays true when the work thread ends by itself, until the next stop.
    bool m_capturing ZU_GUARDED_BY(m_lock) = false;
    // Written by a start and a stop, and by the work thread as it ends; polled by the work thread and its
    // slots. Relaxed: nothing but the flag is handed over, thread creation and join order everything else.
    std::atomic<bool> m_stop_request{false};
    std::unique_ptr<CV4L2Thread> m_thread ZU_GUARDED_BY(m_lock);
    // By the driver's buffer index.
    std::vector<MappedBuffer> m_pool ZU_GUARDED_BY(m_lock);
};

}  // namespace zumod
