// The interfaces between the plugin and the cameras of the platform: IClientCamera, through which the plugin
// drives one camera; IClientCameraListenter, through which a camera delivers its encoded frames; and the
// factory of the platform.
//
// Thread rule: IClientCamera is [run thread]. IClientCameraListenter is [capture threads], one for each open
// camera, concurrently with each other and with request handling. AddRef and Release are [any thread].
#pragma once

#include <cstdint>
#include <vector>

#include "src/capture/camera_device_info.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

class IClientCameraListenter : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. One encoded frame. The callee copies it before it returns.
    virtual void OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) = 0;
    // Slot 5. The plugin sends nothing for audio.
    virtual void OnAudioPacket(uint32_t camera_id, const void* data, unsigned long length) = 0;
    // Slot 6. True while more than 5 messages wait to be sent: the camera should drop the frame unencoded.
    virtual bool IsBusy(uint32_t camera_id) = 0;
};

static_assert(sizeof(IClientCameraListenter) == sizeof(void*), "IReference must be the primary base");

// Called in this order: SetListener, SetCameraId, SetFormat, Open; then any number of SetFormat and
// SetProperty; finally Close and Release.
class IClientCamera : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. Borrowed: the listener outlives the camera.
    virtual void SetListener(IClientCameraListenter* listener) = 0;
    // Slot 5. The id is passed to the listener with every frame.
    virtual void SetCameraId(uint32_t id) = 0;
    // Slot 6. Pixels and frames per second.
    virtual void SetFormat(int32_t width, int32_t height, int32_t fps) = 0;
    // Slot 7. Property code and value as the peer sent them; `automatic` is non-zero for automatic control.
    virtual void SetProperty(int32_t property, int32_t value, int32_t automatic) = 0;
    // Slots 8, 9. A byte that is stored and read back.
    virtual void SetCameraFlag(uint8_t flag) = 0;
    virtual uint8_t GetCameraFlag() = 0;
    // Slot 10. Starts capture and encoding. Returns false if the camera cannot be started.
    virtual bool Open() = 0;
    // Slot 11. Stops the capture and releases the device. The argument is ignored. Returns 0.
    virtual int32_t Close(const uint32_t* ignored = nullptr) = 0;
};

static_assert(sizeof(IClientCamera) == sizeof(void*), "IReference must be the primary base");

// The factory of the platform, a link seam: tests link a double of these two functions.

// Returns a new camera of this platform, or null if the build has no implementation.
CRefPtr_T<IClientCamera> CreateClientCamera();

// Returns the cameras that are present now.
std::vector<CameraDeviceInfo> ListCameras();

}  // namespace zumod
