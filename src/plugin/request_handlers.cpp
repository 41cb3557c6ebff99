// ClientCamera's handlers, one for each request of the peer, and the table that leads to them.
#include <new>
#include <utility>

#include "src/capture/camera_enumerator.h"
#include "src/module/log.h"
#include "src/plugin/client_camera.h"

namespace zumod {

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
    if (const CRefPtr_T<IBuffer> reply = AllocMessage(kVersionReplySize); reply != nullptr) {
        WriteVersionReply(static_cast<uint8_t*>(reply->GetData()));
        SendDirectly(*reply);
    }
    return true;
}

bool ClientCamera::OnProtoGetCameraList(const uint8_t* /*body*/, unsigned long /*length*/,
                                        IBuffer* /*context*/) {
    const std::vector<CameraDeviceInfo> cameras = CameraEnumerator::GetInstance()->getCameraList();
    ZuModLog(kLogEvent, "[cameraclient] OnProtoGetCameraList, count %d", static_cast<int>(cameras.size()));
    if (const CRefPtr_T<IBuffer> reply = AllocMessage(CameraListSize(cameras)); reply != nullptr) {
        WriteCameraList(static_cast<uint8_t*>(reply->GetData()), cameras);
        SendDirectly(*reply);
    }
    return true;
}

bool ClientCamera::OnProtoOpenCamera(const uint8_t* body, unsigned long length, IBuffer* /*context*/) {
    const std::optional<FormatRequest> request = ReadFormatRequest(body, length);
    if (!request) {
        return false;
    }
    const int id = static_cast<int>(request->id);
    if (m_devs.count(request->id) != 0) {
        // The text says "not found" although the camera is open: kept as it is.
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
    if (!OpenCamera(*camera, *request)) {
        camera->Close(&request->id);
        m_devs.erase(request->id);
        return SendCameraState(kCameraFailed, request->id);
    }
    return SendCameraState(kCameraOpen, request->id);
}

IClientCamera* ClientCamera::AddCamera(uint32_t id) {
    try {
        CRefPtr_T<IClientCamera> created = CreateClientCamera();
        if (created == nullptr) {
            ZuModLog(kLogIgnored, "[cameraclient] OnProtoOpenCamera cureent platform not impl");
            return nullptr;
        }
        // The map's reference is the only one: a camera that does not open is gone before the peer hears of
        // it.
        return (m_devs[id] = std::move(created)).Get();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
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
    if (const auto found = m_devs.find(id); found != m_devs.end()) {
        found->second->Close(&id);
        m_devs.erase(found);
    }
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

}  // namespace zumod
