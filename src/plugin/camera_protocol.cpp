#include "src/plugin/camera_protocol.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace zumod {
namespace {

// The header and the number of cameras.
constexpr uint64_t kCameraListHeaderSize = sizeof(_MESSAGE_HEADER) + sizeof(int32_t);

template <class Request>
std::optional<Request> ReadExactly(const uint8_t* body, uint64_t length) {
    if (length != sizeof(Request)) {
        return std::nullopt;
    }
    return ReadRecord<Request>(body);
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
    message = WriteHeader(message, kCameraState, sizeof(StateNotice));
    WriteRecord(message, StateNotice{state, id});
}

void WriteVersionReply(uint8_t* message) {
    message = WriteHeader(message, kVersionReply, sizeof kProtocolVersion);
    WriteRecord(message, kProtocolVersion);
}

uint64_t CameraListSize(const std::vector<CameraDeviceInfo>& cameras) {
    uint64_t size = kCameraListHeaderSize;
    for (const CameraDeviceInfo& camera : cameras) {
        size += sizeof(CameraRecord) + sizeof(ResolutionPair) * camera.resolutions.size();
    }
    return size;
}

void WriteCameraList(uint8_t* message, const std::vector<CameraDeviceInfo>& cameras) {
    message = WriteHeader(message, kCameraList,
                          static_cast<uint32_t>(CameraListSize(cameras) - sizeof(_MESSAGE_HEADER)));
    message = WriteRecord(message, static_cast<int32_t>(cameras.size()));
    for (const CameraDeviceInfo& camera : cameras) {
        message = WriteRecord(message, RecordOf(camera));
        for (const auto& [width, height] : camera.resolutions) {
            message = WriteRecord(
                message, ResolutionPair{static_cast<uint32_t>(width), static_cast<uint32_t>(height)});
        }
    }
}

void WriteVideoFrameHeader(uint8_t* message, uint32_t id, uint32_t encoded_size) {
    message =
        WriteHeader(message, kVideoFrame, static_cast<uint32_t>(sizeof(VideoFrameHeader)) + encoded_size);
    WriteRecord(message, VideoFrameHeader{id, encoded_size});
}

}  // namespace zumod
