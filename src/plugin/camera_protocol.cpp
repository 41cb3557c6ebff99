#include "src/plugin/camera_protocol.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace zumod {
namespace {

constexpr uint64_t kCameraListHeaderSize = 12;

template <class Value>
uint8_t* Put(uint8_t* out, const Value& value) {
    std::memcpy(out, &value, sizeof value);
    return out + sizeof value;
}

uint8_t* PutHeader(uint8_t* out, uint64_t message_size, MessageType type) {
    return Put(out, _MESSAGE_HEADER{static_cast<uint32_t>(message_size - sizeof(_MESSAGE_HEADER)), type, {}});
}

template <class Request>
std::optional<Request> ReadExactly(const uint8_t* body, uint64_t length) {
    if (length != sizeof(Request)) {
        return std::nullopt;
    }
    Request request;
    std::memcpy(&request, body, sizeof request);
    return request;
}

// A text that fills the field has no terminating zero.
void CopyName(char (&field)[kCameraNameSize], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), sizeof field));
}

CameraRecord RecordOf(const CameraDeviceInfo& camera) {
    CameraRecord record{};
    record.id = camera.id;
    record.in_use = camera.inUse ? 1 : 0;
    CopyName(record.name, camera.name);
    CopyName(record.display_name, camera.displayName);
    // Required by the contract: one byte, which wraps above 255 although all pairs are written.
    record.resolution_count = static_cast<uint8_t>(camera.resolutions.size());
    return record;
}

}  // namespace

std::optional<FormatRequest> ReadFormatRequest(const uint8_t* body, uint64_t length) {
    return ReadExactly<FormatRequest>(body, length);
}

std::optional<PropertyRequest> ReadPropertyRequest(const uint8_t* body, uint64_t length) {
    return ReadExactly<PropertyRequest>(body, length);
}

uint32_t ReadCloseRequest(const uint8_t* body, uint64_t length) {
    uint32_t id = 0;
    if (length != 0) {
        std::memcpy(&id, body, std::min<uint64_t>(length, sizeof id));
    }
    return id;
}

void WriteStateNotice(uint8_t* message, CameraState state, uint32_t id) {
    message = PutHeader(message, kStateNoticeSize, kCameraState);
    message = Put<uint32_t>(message, state);
    Put(message, id);
}

void WriteVersionReply(uint8_t* message) {
    message = PutHeader(message, kVersionReplySize, kVersionReply);
    Put(message, kProtocolVersion);
}

uint64_t CameraListSize(const std::vector<CameraDeviceInfo>& cameras) {
    uint64_t size = kCameraListHeaderSize;
    for (const CameraDeviceInfo& camera : cameras) {
        size += sizeof(CameraRecord) + sizeof(ResolutionPair) * camera.resolutions.size();
    }
    return size;
}

void WriteCameraList(uint8_t* message, const std::vector<CameraDeviceInfo>& cameras) {
    message = PutHeader(message, CameraListSize(cameras), kCameraList);
    message = Put(message, static_cast<int32_t>(cameras.size()));
    for (const CameraDeviceInfo& camera : cameras) {
        message = Put(message, RecordOf(camera));
        for (const auto& [width, height] : camera.resolutions) {
            message =
                Put(message, ResolutionPair{static_cast<uint32_t>(width), static_cast<uint32_t>(height)});
        }
    }
}

void WriteVideoFrameHeader(uint8_t* message, uint32_t id, uint32_t encoded_size) {
    message = PutHeader(message, kVideoFrameHeaderSize + encoded_size, kVideoFrame);
    message = Put(message, id);
    Put(message, encoded_size);
}

}  // namespace zumod
