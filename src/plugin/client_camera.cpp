#include "src/plugin/client_camera.h"

#include <cstring>
#include <new>
#include <utility>

#include "src/base/mem_alloctor_ex.h"
#include "src/base/own_memory.h"
#include "src/module/log.h"
#include "src/plugin/channel_io.h"

namespace zumod {

ClientCamera::ClientCamera() {
    ZuModLog(kLogEvent, "[cameraclient] create");
    m_alloctor = Allocate([] { return CRefPtr_T<IMemAlloctor>(new CMemAlloctorEx<CMemBuffer>); });
    m_send_thread = Allocate([this] {
        auto thread = std::make_unique<CClientCameraThread>([this] { return SendPass(); });
        thread->SetName("cameraclient-send");
        return thread;
    });
}

ClientCamera::~ClientCamera() {
    try {
        ZuModLog(kLogEvent, "[cameraclient] destroy");
        CloseAllCameras();
    } catch (...) {
        // A destructor must not throw. Destroying a camera stops its capture too.
        m_devs.clear();
    }
    m_send_thread->Stop();
    m_send_thread.reset();
    m_queue.Close();
}

int ClientCamera::SetChannelStream(IChannelStream* stream) {
    m_stream.Set(CRefPtr_T<IChannelStream>(stream));
    return 0;
}

int ClientCamera::Run() {
    ZuModLog(kLogEvent, "[cameraclient] Run start");
    m_queue.Reset();
    m_send_thread->Start();
    if (const CRefPtr_T<IChannelStream> stream = m_stream.Get(); stream != nullptr) {
        try {
            ServePeer(*stream, *m_alloctor, *this);
        } catch (const OutOfMemory&) {
            // Ends the loop like a failed read, so the peer sees the stream end instead of missing answers.
        }
    }
    ZuModLog(kLogEvent, "[cameraclient] Run return");
    return 1;
}

int ClientCamera::ExitInstance() {
    if (m_send_thread->IsCurrent()) {
        // The thread would wait for its own end.
        ZuModLog(kLogFailure, "[cameraclient] ExitInstance ignored, called on the send thread");
        return 0;
    }
    try {
        ZuModLog(kLogEvent, "[cameraclient] ExitInstance");
        ZuModLog(kLogTrace, "[cameraclient] start to clear devs");
        CloseAllCameras();
        ZuModLog(kLogTrace, "[cameraclient] start to stop send thread");
    } catch (...) {
        // The host's log sink has thrown. Destroying a camera stops its capture too.
        m_devs.clear();
        m_send_thread->Stop();
        throw;
    }
    m_send_thread->Stop();
    ZuModLog(kLogTrace, "[cameraclient] ExitInstance finish");
    return 0;
}

// ---- Answers to the peer

CRefPtr_T<IBuffer> ClientCamera::AllocMessage(uint64_t size) {
    try {
        CRefPtr_T<IBuffer> message = m_alloctor->Alloc(size);
        if (message != nullptr) {
            message->SetSize(size);
        }
        return message;
    } catch (const std::bad_alloc&) {
        return {};
    }
}

template <class Write>
void ClientCamera::Reply(uint64_t size, Write write) {
    const CRefPtr_T<IBuffer> message = AllocMessage(size);
    if (message == nullptr) {
        return;
    }
    write(static_cast<uint8_t*>(message->GetData()));
    if (const CRefPtr_T<IChannelStream> stream = m_stream.Get(); stream != nullptr) {
        WriteAll(*stream, message->GetData(), message->GetSize());
    }
}

bool ClientCamera::SendCameraState(CameraState state, uint32_t id) {
    Reply(kStateNoticeSize, [&](uint8_t* message) { WriteStateNotice(message, state, id); });
    return true;
}

// ---- Requests of the peer

const ClientCamera::Entry ClientCamera::kDispatchTable[] = {
    {{kVersionRequest}, 1, static_cast<Handler>(&ClientCamera::OnProtoVersionRequest)},
    {{kGetCameraList}, 1, static_cast<Handler>(&ClientCamera::OnProtoGetCameraList)},
    {{kOpenCamera}, 1, static_cast<Handler>(&ClientCamera::OnProtoOpenCamera)},
    {{kCloseCamera}, 1, static_cast<Handler>(&ClientCamera::OnProtoCloseCamera)},
    {{kSetProperty}, 1, static_cast<Handler>(&ClientCamera::OnProtoSetProperty)},
    {{kSetFormat}, 1, static_cast<Handler>(&ClientCamera::OnProtoSetFormat)},
    {{}, 0, nullptr},
};

const ClientCamera::Entry* ClientCamera::GetDispatchTable(uint64_t* entry_size) {
    *entry_size = sizeof(Entry);
    return kDispatchTable;
}

bool ClientCamera::CallEntry(uint64_t index, const uint8_t* body, unsigned long length, IBuffer* context) {
    return (this->*kDispatchTable[index].handler)(body, length, context);
}

bool ClientCamera::OnProtoVersionRequest(const uint8_t* /*body*/, unsigned long /*length*/,
                                         IBuffer* /*context*/) {
    ZuModLog(kLogTrace, "[cameraclient] version req");
    Reply(kVersionReplySize, WriteVersionReply);
    return true;
}

bool ClientCamera::OnProtoGetCameraList(const uint8_t* /*body*/, unsigned long /*length*/,
                                        IBuffer* /*context*/) {
    const std::vector<CameraDeviceInfo> cameras = ListCameras();
    ZuModLog(kLogEvent, "[cameraclient] OnProtoGetCameraList, count %d", static_cast<int>(cameras.size()));
    Reply(CameraListSize(cameras), [&](uint8_t* message) { WriteCameraList(message, cameras); });
    return true;
}

bool ClientCamera::OnProtoOpenCamera(const uint8_t* body, unsigned long length, IBuffer* /*context*/) {
    const std::optional<FormatRequest> request = ReadFormatRequest(body, length);
    if (!request) {
        return false;
    }
    const int id = static_cast<int>(request->id);
    if (m_devs.count(request->id) != 0) {
        // Required by the contract: the text says "not found" although the camera is open.
        ZuModLog(kLogIgnored, "[cameraclient] OnProtoOpenCamera id %d w %d h %d fps %d camera not found", id,
                 request->width, request->height, request->fps);
        return SendCameraState(kCameraOpen, request->id);
    }
    ZuModLog(kLogEvent, "[cameraclient] OnProtoOpenCamera id %d w %d h %d fps %d", id, request->width,
             request->height, request->fps);
    IClientCamera* const camera = AddCamera(request->id);
    if (camera == nullptr) {
        return SendCameraState(kCameraFailed, request->id);
    }
    bool is_open = false;
    try {
        is_open = OpenCamera(*camera, *request);
    } catch (...) {
        // The host's log sink has thrown. The camera must not count as open in the next Run.
        m_devs.erase(request->id);
        throw;
    }
    if (!is_open) {
        CloseCamera(request->id);
        return SendCameraState(kCameraFailed, request->id);
    }
    return SendCameraState(kCameraOpen, request->id);
}

IClientCamera* ClientCamera::AddCamera(uint32_t id) {
    try {
        CRefPtr_T<IClientCamera> created = CreateClientCamera();
        if (created != nullptr) {
            // The map holds the only reference: a camera that fails to open is destroyed before the answer.
            return (m_devs[id] = std::move(created)).Get();
        }
    } catch (const std::bad_alloc&) {
        return nullptr;  // The module's own: no host object was called.
    }
    ZuModLog(kLogIgnored, "[cameraclient] OnProtoOpenCamera cureent platform not impl");
    return nullptr;
}

bool ClientCamera::OpenCamera(IClientCamera& camera, const FormatRequest& request) {
    camera.SetListener(this);
    camera.SetCameraId(request.id);
    camera.SetFormat(request.width, request.height, request.fps);
    return camera.Open();
}

bool ClientCamera::OnProtoCloseCamera(const uint8_t* body, unsigned long length, IBuffer* /*context*/) {
    const uint32_t id = ReadCloseRequest(body, length);
    ZuModLog(kLogEvent, "[cameraclient] OnProtoCloseCamera id %d", static_cast<int>(id));
    CloseCamera(id);
    return SendCameraState(kCameraClosed, id);
}

bool ClientCamera::OnProtoSetProperty(const uint8_t* body, unsigned long length, IBuffer* /*context*/) {
    const std::optional<PropertyRequest> request = ReadPropertyRequest(body, length);
    if (!request) {
        return false;
    }
    ZuModLog(kLogEvent, "[cameraclient] OnProtoSetProperty id %d prop %d value %d auto %d",
             static_cast<int>(request->id), request->property, request->value, request->automatic);
    if (const auto found = m_devs.find(request->id); found != m_devs.end()) {
        found->second->SetProperty(request->property, request->value, request->automatic);
    }
    return true;
}

bool ClientCamera::OnProtoSetFormat(const uint8_t* body, unsigned long length, IBuffer* /*context*/) {
    const std::optional<FormatRequest> request = ReadFormatRequest(body, length);
    if (!request) {
        return false;
    }
    ZuModLog(kLogEvent, "[cameraclient] OnProtoSetFormat id %d w %d h %d fps %d",
             static_cast<int>(request->id), request->width, request->height, request->fps);
    if (const auto found = m_devs.find(request->id); found != m_devs.end()) {
        found->second->SetFormat(request->width, request->height, request->fps);
    }
    return true;
}

void ClientCamera::CloseCamera(uint32_t id) {
    // Taken out first: the reference is released also if the host's log sink throws from inside Close.
    if (const auto taken = m_devs.extract(id); !taken.empty()) {
        taken.mapped()->Close(&id);
    }
}

void ClientCamera::CloseAllCameras() {
    for (const auto& [id, camera] : m_devs) {
        const CRefPtr_T<IClientCamera> held = camera;
        held->Close();
    }
    // Required by the contract: released in id order. clear() would release in tree order.
    while (!m_devs.empty()) {
        m_devs.erase(m_devs.begin());
    }
    ZuModLog(kLogTrace, "[cameraclient] finish to clear devs");
}

// ---- Frames to the peer

void ClientCamera::OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) {
    CRefPtr_T<IBuffer> message = AllocMessage(kVideoFrameHeaderSize + length);
    if (message == nullptr) {
        return;
    }
    auto* bytes = static_cast<uint8_t*>(message->GetData());
    WriteVideoFrameHeader(bytes, camera_id, static_cast<uint32_t>(length));
    if (length != 0) {
        std::memcpy(bytes + kVideoFrameHeaderSize, data, length);
    }
    m_queue.Enqueue(std::move(message));
}

void ClientCamera::OnAudioPacket(uint32_t /*camera_id*/, const void* /*data*/, unsigned long /*length*/) {
    ZuModLog(kLogIgnored, "[cameraclient] OnAudioPacket ignored");
}

bool ClientCamera::IsBusy(uint32_t /*camera_id*/) {
    return m_queue.IsBusy();
}

bool ClientCamera::SendPass() {
    if (const CRefPtr_T<IBuffer> message = m_queue.Take(); message != nullptr) {
        Send2StreamRaw(*message);
    }
    return true;
}

void ClientCamera::Send2StreamRaw(IBuffer& message) {
    const auto* bytes = static_cast<const uint8_t*>(message.GetData());
    IChannelStream* stream = m_stream.Borrow();
    const bool sent = stream != nullptr && WriteAll(*stream, bytes, message.GetSize());
    m_stream.Return();
    if (!sent) {
        // Only frames are queued: byte 4 is the type, byte 12 the low byte of the encoded length.
        ZuModLog(kLogFailure, "[cameraclient] Send2StreamRaw fail, type: %X/%X .", bytes[4], bytes[12]);
    }
}

}  // namespace zumod
