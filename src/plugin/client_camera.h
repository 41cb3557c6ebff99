// The plugin: serves a remote peer's camera requests over the host's stream.
//
// Run reads requests on the host's thread and calls a handler for each. Answers are written to the stream
// directly, on that same thread. Encoded frames arrive on the capture threads; OnVideoPacket copies each one
// behind its header into a buffer and queues it, and the send thread writes the queued buffers.
//
// Thread rule: SetChannelStream, Run and ExitInstance are called by the host, one at a time; OnVideoPacket,
// OnAudioPacket and IsBusy are [capture threads]; SendPass is [send thread].
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "src/base/buffer.h"
#include "src/bridge/camera_client.h"
#include "src/plugin/camera_protocol.h"
#include "src/plugin/channel_slot.h"
#include "src/plugin/client_camera_thread.h"
#include "src/plugin/send_queue.h"
#include "zumod/client_camera_plugin.h"

namespace zumod {

// Required by the contract: the bases contain IReference twice, which GCC warns about.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winaccessible-base"

class ClientCamera final : public CameraMessageSeparation,
                           public IClientCameraPlugin,
                           public IClientCameraListenter,
                           private CReference {
public:
    // Starts no thread.
    ClientCamera();
    ~ClientCamera() override;

    // Slots of the object's own table: 2 and 3 override CMessageSeparation_T's; the others are slots 5 to 17
    // in the order of their declaration here.
    const Entry* GetDispatchTable(uint64_t* entry_size) override;
    bool CallEntry(uint64_t index, const uint8_t* body, unsigned long length, IBuffer* context) override;

    bool QueryInterface(const char* /*name*/, void** /*out*/) override { return false; }
    bool SetProperty(const char* /*key*/, IZUModData* /*value*/) override { return false; }
    IZUModData* GetProperty(const char* /*key*/) override { return nullptr; }
    void ReservedPlugin11() override {}

    uint64_t AddRef() override { return CReference::AddRef(); }
    int64_t Release() override { return CReference::Release(); }

    void OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) override;
    void OnAudioPacket(uint32_t camera_id, const void* data, unsigned long length) override;
    bool IsBusy(uint32_t camera_id) override;

    int SetChannelStream(IChannelStream* stream) override;
    int Run() override;
    int ExitInstance() override;
    int ReservedAutoConfig() override { return 0; }

private:
    static const Entry kDispatchTable[];

    // Handlers. Each returns false if the request is malformed and was ignored.
    bool OnProtoVersionRequest(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoGetCameraList(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoOpenCamera(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoCloseCamera(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoSetProperty(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoSetFormat(const uint8_t* body, unsigned long length, IBuffer* context);

    // Adds a new camera to the map. Returns null if none can be created.
    IClientCamera* AddCamera(uint32_t id);
    bool OpenCamera(IClientCamera& camera, const FormatRequest& request);
    // Closes and forgets the camera, if it is open.
    void CloseCamera(uint32_t id);
    // Closes, then forgets every camera. If the host's log sink throws, the caller clears m_devs.
    void CloseAllCameras();

    // Returns a buffer of exactly `size` bytes, all in use, or null if memory runs out.
    CRefPtr_T<IBuffer> AllocMessage(uint64_t size);
    // Writes a message of this size on the calling thread, bypassing the send queue. `write` fills it. A
    // failed write is not reported.
    template <class Write>
    void Reply(uint64_t size, Write write);
    // Returns true.
    bool SendCameraState(CameraState state, uint32_t id);

    // One pass of the send thread: waits for a queued message and writes it. Returns true.
    bool SendPass();
    void Send2StreamRaw(IBuffer& message);

    // Used only by Run, ExitInstance and the destructor, which never run concurrently, so no lock.
    std::map<uint32_t, CRefPtr_T<IClientCamera>> m_devs;
    ChannelSlot m_stream;
    CRefPtr_T<IMemAlloctor> m_alloctor;
    std::unique_ptr<CClientCameraThread> m_send_thread;
    CSendQueue m_queue;
};

#pragma GCC diagnostic pop

}  // namespace zumod
