// One camera of this platform: captures pictures, encodes them and passes them to the listener.
//
// Two threads meet here. The run thread calls the operations of IClientCamera; the capture's work thread
// calls OnCaptureFrame for each picture. m_lock serialises them, so a change of format never interleaves with
// an encode, and Close and SetFormat wait for the frame that is being encoded.
//
// Open, SetFormat and Close hold m_lock while the capture stops and joins its work thread. The work thread
// may at that moment wait for m_lock with a frame in hand: each thread would wait for the other. So
// OnCaptureFrame never waits without a limit. It tries the lock for kStopCheckInterval at a time, and in
// between asks the capture whether it is being stopped. If it is, the frame is dropped and the thread can
// end. A frame that already holds the lock is completed; the join waits for it.
//
// The mutex is not fair: the thread that unlocks it may lock it again before a waiting thread has woken up.
// With an encoder slower than the camera, the work thread could so keep the lock from an operation for any
// number of frames. Therefore an operation announces itself in m_waiting_operations until it has the lock,
// and a frame that sees an announcement is dropped. At the next release only operations compete for the lock.
// verify/close.pml and verify/set_format.pml check that Close and SetFormat then end.
//
// The lock is recursive because a listener may call back into the camera from OnVideoPacket or IsBusy, on the
// work thread.
//
// The destructor stops the capture first and disconnects the signal second: the signal's list of connections
// is not protected against a concurrent emission. It does not take m_lock, so it announces nothing. Required
// by the contract: the capture object is stopped but never deleted, and m_started stays true after Close.
//
// Thread rule: IClientCamera's operations are [run thread]; OnCaptureFrame is [capture thread].
#pragma once

#include <atomic>
#include <cstdint>

#include "src/base/lock.h"
#include "src/bridge/camera_client.h"
#include "src/capture/linux_v4l2_camera_capture.h"
#include "src/capture/sigslot.h"
#include "zumod/codec.h"
#include "zumod/ref_ptr.h"

namespace zumod {

// Required by the contract: the bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

class CCameraClientLinux final : public IClientCamera,
                                 public sigslot::has_slots<sigslot::single_threaded>,
                                 private CReference {
public:
    // Opens nothing.
    CCameraClientLinux();
    ~CCameraClientLinux() override;

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    void SetListener(IClientCameraListenter* listener) override;
    void SetCameraId(uint32_t id) override;
    void SetFormat(int32_t width, int32_t height, int32_t fps) override;
    // Required by the contract: does nothing on this platform.
    void SetProperty(int32_t property, int32_t value, int32_t automatic) override;
    void SetCameraFlag(uint8_t flag) override;
    uint8_t GetCameraFlag() override;
    bool Open() override;
    // Required by the contract: an Open after Close returns true without starting. The plugin never does so.
    int32_t Close(const uint32_t* ignored) override;

    // [capture thread]. Slot of the capture's frame signal.
    void OnCaptureFrame(const unsigned char* data, unsigned long length, int width, int height, int fourcc);

private:
    // Holds m_lock for an operation. Announces the operation until it has the lock.
    class ZU_SCOPED_CAPABILITY OperationGuard {
    public:
        explicit OperationGuard(CCameraClientLinux& client) ZU_ACQUIRE(client.m_lock);
        ~OperationGuard() ZU_RELEASE() { m_lock.Unlock(); }
        OperationGuard(const OperationGuard&) = delete;
        OperationGuard& operator=(const OperationGuard&) = delete;

    private:
        CMutexLock& m_lock;
    };

    // Returns false, without the lock, if an operation waits for it or the capture is being stopped.
    bool LockForFrame() ZU_TRY_ACQUIRE(true, m_lock);
    void HandleFrame(const unsigned char* data, unsigned long length, int width, int height, int fourcc)
        ZU_REQUIRES(m_lock);
    void AdoptRequestedSize() ZU_REQUIRES(m_lock);
    void Encode(const VideoInputFormat& format, const unsigned char* data, unsigned long length)
        ZU_REQUIRES(m_lock);

    CMutexLock m_lock;
    // Operations that wait for m_lock. Changed by their threads, read by the capture thread. Relaxed: a late
    // read costs one more frame.
    std::atomic<uint32_t> m_waiting_operations{0};
    // Borrowed: the plugin outlives its cameras.
    IClientCameraListenter* m_listener ZU_GUARDED_BY(m_lock) = nullptr;
    uint32_t m_camera_id ZU_GUARDED_BY(m_lock) = 0;
    // Written under m_lock, read without it. Relaxed: no other data depends on it.
    std::atomic<uint8_t> m_camera_flag{0};
    int32_t m_requested_width ZU_GUARDED_BY(m_lock) = 640;
    int32_t m_requested_height ZU_GUARDED_BY(m_lock) = 480;
    // The requested size for which the encoder was created.
    int32_t m_encode_width ZU_GUARDED_BY(m_lock) = 0;
    int32_t m_encode_height ZU_GUARDED_BY(m_lock) = 0;
    int32_t m_fps ZU_GUARDED_BY(m_lock) = 15;
    bool m_started ZU_GUARDED_BY(m_lock) = false;
    // Set by the constructor. Stopped but not deleted by the destructor; see above.
    LinuxV4L2CameraCapture* const m_capture;
    CRefPtr_T<IVEncoder> m_encoder ZU_GUARDED_BY(m_lock);
};

#pragma GCC diagnostic pop

static_assert(sizeof(std::atomic<uint8_t>) == 1 && std::atomic<uint8_t>::is_always_lock_free);

}  // namespace zumod
