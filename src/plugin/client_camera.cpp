#include "src/plugin/client_camera.h"

#include <cstring>
#include <new>
#include <utility>

#include "src/base/mem_alloctor_ex.h"
#include "src/module/log.h"
#include "src/plugin/receive_loop.h"
#include "src/plugin/stream_io.h"

namespace zumod {

ClientCamera::ClientCamera() {
    ZuModLog(kLogEvent, "[cameraclient] create");
    m_alloctor = CRefPtr_T<IMemAlloctor>(new CMemAlloctorEx<CMemBuffer>);
    m_send_thread = std::make_unique<CClientCameraThread>([this] { return SendPass(); });
    m_send_thread->SetName("cameraclient-send");
}

ClientCamera::~ClientCamera() {
    ZuModLog(kLogEvent, "[cameraclient] destroy");
    CloseAllCameras();
    m_send_thread->Stop();
    m_send_thread.reset();
    m_queue.Close();
}

bool ClientCamera::QueryInterface(const char* /*name*/, void** /*out*/) {
    return false;
}

bool ClientCamera::SetProperty(const char* /*key*/, IZUModData* /*value*/) {
    return false;
}

IZUModData* ClientCamera::GetProperty(const char* /*key*/) {
    return nullptr;
}

void ClientCamera::ReservedPlugin11() {}

int ClientCamera::ReservedAutoConfig() {
    return 0;
}

uint64_t ClientCamera::AddRef() {
    return CReference::AddRef();
}

int64_t ClientCamera::Release() {
    return CReference::Release();
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
        } catch (const std::bad_alloc&) {
            // As after a failed read: the peer learns from the end of the stream, not from a missing reply.
        }
    }
    ZuModLog(kLogEvent, "[cameraclient] Run return");
    return 1;
}

int ClientCamera::ExitInstance() {
    ZuModLog(kLogEvent, "[cameraclient] ExitInstance");
    ZuModLog(kLogTrace, "[cameraclient] start to clear devs");
    CloseAllCameras();
    ZuModLog(kLogTrace, "[cameraclient] start to stop send thread");
    m_send_thread->Stop();
    ZuModLog(kLogTrace, "[cameraclient] ExitInstance finish");
    return 0;
}

void ClientCamera::CloseAllCameras() {
    for (const auto& [id, camera] : m_devs) {
        const CRefPtr_T<IClientCamera> held = camera;
        held->Close();
    }
    // One by one: the map's own clearing would release in the order of its tree.
    while (!m_devs.empty()) {
        m_devs.erase(m_devs.begin());
    }
    ZuModLog(kLogTrace, "[cameraclient] finish to clear devs");
}

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

void ClientCamera::SendDirectly(IBuffer& message) {
    if (const CRefPtr_T<IChannelStream> stream = m_stream.Get(); stream != nullptr) {
        WriteAll(*stream, message.GetData(), message.GetSize());
    }
}

bool ClientCamera::SendCameraState(CameraState state, uint32_t id) {
    if (const CRefPtr_T<IBuffer> notice = AllocMessage(kStateNoticeSize); notice != nullptr) {
        WriteStateNotice(static_cast<uint8_t*>(notice->GetData()), state, id);
        SendDirectly(*notice);
    }
    return true;
}

void ClientCamera::OnVideoPacket(uint32_t camera_id, const void* data, unsigned long length) {
    CRefPtr_T<IBuffer> message = AllocMessage(kVideoFrameHeadSize + length);
    if (message == nullptr) {
        return;
    }
    auto* bytes = static_cast<uint8_t*>(message->GetData());
    WriteVideoFrameHead(bytes, camera_id, static_cast<uint32_t>(length));
    if (length != 0) {
        std::memcpy(bytes + kVideoFrameHeadSize, data, length);
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
    m_stream.GiveBack();
    if (!sent) {
        // For a frame the second number is the low byte of its encoded length.
        ZuModLog(kLogFailure, "[cameraclient] Send2StreamRaw fail, type: %X/%X .", bytes[4], bytes[12]);
    }
}

}  // namespace zumod
