// How a camera client hands encoded frames to the plugin.
#pragma once

#include <cstdint>

#include "zumod/reference.h"

namespace zumod {

// Binary table: slots 0 to 3 are IReference's.
//
// Thread rule: [capture threads], one for each open camera, at the same time as each other and as request
// handling.
class IClientCameraListenter : public virtual IReference {
public:
    // Slots 2 and 3, declared again: whoever calls them through this interface needs no more of an object
    // than its table.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4. One encoded frame, copied before the call returns.
    virtual void OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) = 0;
    // Slot 5. Nothing is sent for audio.
    virtual void OnAudioPacket(uint32_t camera_id, const void* data, unsigned long length) = 0;
    // Slot 6. True while more than 5 messages wait to be sent: the frame should be dropped before it is
    // encoded.
    virtual bool IsBusy(uint32_t camera_id) = 0;
};

static_assert(sizeof(IClientCameraListenter) == sizeof(void*), "IReference must be the primary base");

}  // namespace zumod
