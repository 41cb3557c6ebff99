// The messages of the camera channel, byte by byte: the one place that knows their layout. Pure functions;
// every length from the wire is checked here.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "capture/camera_device_info.h"

namespace zumod {

inline constexpr uint32_t kProtocolVersion = 5;

enum MessageType : uint8_t {
    kGetCameraList = 1,    // from the peer
    kCameraList = 2,       // to the peer
    kOpenCamera = 3,       // from the peer
    kCloseCamera = 4,      // from the peer
    kCameraState = 5,      // to the peer
    kVideoFrame = 7,       // to the peer
    kSetProperty = 8,      // from the peer
    kSetFormat = 9,        // from the peer
    kVersionRequest = 10,  // from the peer
    kVersionReply = 11,    // to the peer
};

enum CameraState : uint32_t {
    kCameraFailed = 1,
    kCameraOpen = 2,
    kCameraClosed = 4,
};

struct FormatRequest {
    uint32_t id;
    int32_t width;
    int32_t height;
    int32_t fps;
};

struct PropertyRequest {
    uint32_t id;
    int32_t property;
    int32_t value;
    int32_t automatic;
};

// The body of an open or a set-format request; nothing unless it has exactly 16 bytes.
std::optional<FormatRequest> ReadFormatRequest(const uint8_t* body, uint64_t length);

// The body of a set-property request; nothing unless it has exactly 16 bytes.
std::optional<PropertyRequest> ReadPropertyRequest(const uint8_t* body, uint64_t length);

// The id of a close request. The length is not checked: bytes that are missing count as 0, more are ignored.
uint32_t ReadCloseRequest(const uint8_t* body, uint64_t length);

// Each writer fills a whole message, or the head of one, of the size that stands above it.
inline constexpr uint64_t kStateNoticeSize = 16;
void WriteStateNotice(uint8_t* message, CameraState state, uint32_t id);

inline constexpr uint64_t kVersionReplySize = 12;
void WriteVersionReply(uint8_t* message);

uint64_t CameraListSize(const std::vector<CameraDeviceInfo>& cameras);
void WriteCameraList(uint8_t* message, const std::vector<CameraDeviceInfo>& cameras);

// The head alone: the encoded bytes follow it.
inline constexpr uint64_t kVideoFrameHeadSize = 16;
void WriteVideoFrameHead(uint8_t* message, uint32_t id, uint32_t encoded_size);

}  // namespace zumod
