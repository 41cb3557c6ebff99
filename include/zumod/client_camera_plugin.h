// The camera plugin as its host sees it.
//
//     created -> SetChannelStream -> Run (returns when the stream fails) -> ... Run again on a new stream ...
//     -> ExitInstance -> Release
//
// Thread rule: at each operation; the run thread is the host's thread that calls Run. The threads of the
// module (the send thread, which calls Write, and the capture threads, which log) must call none of them, and
// must not drop the last reference: both would wait for the calling thread's own end.
#pragma once

#include <cstdint>

#include "zumod/channel_stream.h"
#include "zumod/mod_interface.h"
#include "zumod/ref_ptr.h"
#include "zumod/reference.h"

namespace zumod {

inline constexpr char kClientCameraPluginName[] = "IClientCameraPlugin";
// The version to ask for, and the version of the module. Only the major version (the top 16 bits) is
// compared.
inline constexpr uint64_t kClientCameraPluginVersion = 0x0002000000000000;

// Slots 0 to 3 are IReference's.
class IAutoConfigRaw : public virtual IReference {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 4, reserved. Returns 0.
    virtual int ReservedAutoConfig() { return 0; }
};

// Slots 0 to 4 are IAutoConfigRaw's.
class IPluginRaw : public IAutoConfigRaw {
public:
    // Slot 5 [run thread, not during Run]. Adds a reference to `stream` (null allowed) and releases the
    // previous stream. If the send thread is in a Write of the previous stream, that thread releases it when
    // the Write has returned. Returns 0.
    virtual int SetChannelStream(IChannelStream* stream) = 0;

    // Slot 6 [run thread, not during ExitInstance]. Serves the peer on the calling thread until a read on the
    // stream fails, or there is no memory for a request or the camera list; returns at once if no stream is
    // set. After the return the send thread keeps running and cameras stay open. May be called again. Returns
    // 1. What a host object throws goes on to the caller, std::bad_alloc included.
    virtual int Run() = 0;

    // Slot 7 [any thread except the module's own, not during Run]. Closes every camera and ends the plugin's
    // threads, within about 500 ms; waits for a Write in progress, however long the stream takes. On the send
    // thread it logs one line and does nothing else. Returns 0. What a host object throws goes on to the
    // caller, after all cameras and threads have ended.
    virtual int ExitInstance() = 0;

    // Slots 8 and 9, reserved. Return 0.
    virtual int ReservedPlugin8() { return 0; }
    virtual int ReservedPlugin9() { return 0; }

    // Slot 10, reserved. Returns an empty reference, by value (hidden return slot).
    virtual CRefPtr_T<IReference> ReservedPlugin10() { return {}; }
};

// Slots 0 to 10 are IPluginRaw's. The operations of IZUModInterface are reached through a pointer to that
// interface.
class IClientCameraPlugin : public virtual IPluginRaw, public virtual IZUModInterface {
public:
    // Slots 2, 3: see reference.h.
    uint64_t AddRef() override = 0;
    int64_t Release() override = 0;

    // Slot 11, reserved. Does nothing.
    virtual void ReservedPlugin11() {}
};

static_assert(sizeof(IAutoConfigRaw) == sizeof(void*), "IReference must be the primary base");
static_assert(sizeof(IPluginRaw) == sizeof(void*), "IAutoConfigRaw must be the primary base");

}  // namespace zumod
