// The plugin: serves a remote peer's camera requests over the host's stream.
//
// Thread rule: SetChannelStream, Run and ExitInstance are the host's, one at a time; OnVideoPacket,
// OnAudioPacket and IsBusy are [capture threads]; the send loop is [send thread].
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "src/base/buffer.h"
#include "src/bridge/client_camera.h"
#include "src/bridge/client_camera_listenter.h"
#include "src/plugin/camera_message_separation.h"
#include "src/plugin/camera_protocol.h"
#include "src/plugin/channel_slot.h"
#include "src/plugin/client_camera_thread.h"
#include "src/plugin/send_queue.h"
#include "zumod/client_camera_plugin.h"

namespace zumod {

class ClientCamera final : public CameraMessageSeparation,
                           public IClientCameraPlugin,
                           public IClientCameraListenter,
                           private CReference {
public:
    // Starts nothing.
    ClientCamera();
    ~ClientCamera() override;

    // The order of declaration from here to the end of the virtual operations is the order of slots 5 to 17
    // of the object's own table, behind those of CMessageSeparation_T.
    const Entry* GetDispatchTable(uint64_t* entry_size) override;
    bool CallEntry(uint64_t index, const uint8_t* body, unsigned long length, IBuffer* context) override;

    bool QueryInterface(const char* name, void** out) override;
    bool SetProperty(const char* key, IZUModData* value) override;
    IZUModData* GetProperty(const char* key) override;
    void ReservedPlugin11() override;

    uint64_t AddRef() override;
    int64_t Release() override;

    void OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) override;
    void OnAudioPacket(uint32_t camera_id, const void* data, unsigned long length) override;
    bool IsBusy(uint32_t camera_id) override;

    int SetChannelStream(IChannelStream* stream) override;
    int Run() override;
    int ExitInstance() override;
    int ReservedAutoConfig() override;

private:
    static const Entry kDispatchTable[];

    // Handlers: the result says whether the request was taken.
    bool OnProtoVersionRequest(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoGetCameraList(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoOpenCamera(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoCloseCamera(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoSetProperty(const uint8_t* body, unsigned long length, IBuffer* context);
    bool OnProtoSetFormat(const uint8_t* body, unsigned long length, IBuffer* context);

    // A new camera client in the map; null when none can be made.
    IClientCamera* AddCamera(uint32_t id);
    bool OpenCamera(IClientCamera& camera, const FormatRequest& request);
    void CloseAllCameras();

    // A buffer of exactly `size` bytes, all in use; empty when memory is short.
    CRefPtr_T<IBuffer> AllocMessage(uint64_t size);
    bool SendCameraState(CameraState state, uint32_t id);
    // Writes a reply past the send queue, on the calling thread. A failed write is not reported.
    void SendDirectly(IBuffer& message);

    bool SendPass();
    void Send2StreamRaw(IBuffer& message);

    // [run thread, ExitInstance, destructor]: never two of them at a time, so no lock.
    std::map<uint32_t, CRefPtr_T<IClientCamera>> m_devs;
    ChannelSlot m_stream;
    CRefPtr_T<IMemAlloctor> m_alloctor;
    std::unique_ptr<CClientCameraThread> m_send_thread;
    CSendQueue m_queue;
};

}  // namespace zumod
