// One local camera as the plugin drives it on this platform: captures, encodes and hands on.
//
// Thread rule: the operations of IClientCamera are [run thread]; OnCaptureFrame is [capture thread]. A
// recursive lock serialises the two.
#pragma once

#include <atomic>
#include <cstdint>

#include "src/base/mutex_lock.h"
#include "src/bridge/client_camera.h"
#include "src/bridge/client_camera_listenter.h"
#include "src/capture/linux_v4l2_camera_capture.h"
#include "src/capture/sigslot.h"
#include "zumod/codec.h"
#include "zumod/ref_ptr.h"

namespace zumod {

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
    // Does nothing: camera properties are deliberately not applied on this platform.
    void SetProperty(int32_t property, int32_t value, int32_t automatic) override;
    void SetCameraFlag(uint8_t flag) override;
    uint8_t GetCameraFlag() override;
    bool Open() override;
    // A later Open still returns true, without starting again: the plugin never reopens a closed camera
    // client.
    int32_t Close(const uint32_t* ignored) override;

    // [capture thread]. The slot of the capture's frame signal: encodes the picture and hands it to the
    // listener.
    void OnCaptureFrame(const unsigned char* data, unsigned long length, int width, int height, int fourcc);

private:
    bool LockForFrame() ZU_TRY_ACQUIRE(true, m_lock);
    void HandleFrame(const unsigned char* data, unsigned long length, int width, int height, int fourcc)
        ZU_REQUIRES(m_lock);
    void AdoptRequestedSize() ZU_REQUIRES(m_lock);
    void Encode(const VideoInputFormat& format, const unsigned char* data, unsigned long length)
        ZU_REQUIRES(m_lock);

    CMutexLock m_lock;
    // Borrowed: the plugin outlives its camera clients.
    IClientCameraListenter* m_listener ZU_GUARDED_BY(m_lock) = nullptr;
    uint32_t m_camera_id ZU_GUARDED_BY(m_lock) = 0;
    // Written under m_lock, read without it: one byte that stands for itself.
    std::atomic<uint8_t> m_camera_flag{0};
    int32_t m_requested_width ZU_GUARDED_BY(m_lock) = 640;
    int32_t m_requested_height ZU_GUARDED_BY(m_lock) = 480;
    // The requested size that the encoder was made for.
    int32_t m_encode_width ZU_GUARDED_BY(m_lock) = 0;
    int32_t m_encode_height ZU_GUARDED_BY(m_lock) = 0;
    int32_t m_fps ZU_GUARDED_BY(m_lock) = 15;
    bool m_started ZU_GUARDED_BY(m_lock) = false;
    // Set once, in the constructor. Stopped in the destructor but deliberately not deleted there.
    LinuxV4L2CameraCapture* const m_capture;
    CRefPtr_T<IVEncoder> m_encoder ZU_GUARDED_BY(m_lock);
};

static_assert(sizeof(std::atomic<uint8_t>) == 1 && std::atomic<uint8_t>::is_always_lock_free);

}  // namespace zumod
