// One camera as the plugin drives it, and the factory that makes the platform's implementation.
//
// Thread rule: [run thread] for every operation; AddRef and Release are [any thread].
#pragma once

#include <cstdint>

#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

class IClientCameraListenter;

// Binary table: slots 0 to 3 are IReference's. Called in this order: SetListener, SetCameraId, SetFormat,
// Open; then any number of SetFormat and SetProperty; finally Close and Release.
class IClientCamera : public virtual IReference {
public:
    // Slots 2 and 3, declared again: whoever calls them through this interface needs no more of an object
    // than its table.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. Borrowed: the listener outlives the camera.
    virtual void SetListener(IClientCameraListenter* listener) = 0;
    // Slot 5. The id that goes with every frame to the listener.
    virtual void SetCameraId(uint32_t id) = 0;
    // Slot 6. Pixels and frames per second.
    virtual void SetFormat(int32_t width, int32_t height, int32_t fps) = 0;
    // Slot 7. Property code and value as the peer sent them; `automatic` is non-zero for automatic control.
    virtual void SetProperty(int32_t property, int32_t value, int32_t automatic) = 0;
    // Slots 8 and 9. A byte that is stored and read back.
    virtual void SetCameraFlag(uint8_t flag) = 0;
    virtual uint8_t GetCameraFlag() = 0;
    // Slot 10. Starts capture and encoding; false when the camera cannot be started.
    virtual bool Open() = 0;
    // Slot 11. Stops and releases the device. The argument is ignored. Returns 0.
    virtual int32_t Close(const uint32_t* ignored = nullptr) = 0;
};

static_assert(sizeof(IClientCamera) == sizeof(void*), "IReference must be the primary base");

// A camera client of this platform; empty where none is built in.
CRefPtr_T<IClientCamera> CreateClientCamera();

}  // namespace zumod
