// Reads the peer's requests and writes the answers, in the layouts of zumod/camera_channel.h. Pure functions;
// every length from the wire is checked here.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "src/capture/camera_device_info.h"
#include "zumod/camera_channel.h"

namespace zumod {

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
