// The camera channel: reads the peer's requests and writes the plugin's messages, in the layouts of
// zumod/camera_channel.h. Every length that a request states is checked here.
//
// Thread rule: pure functions, [any thread].
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "src/base/buffer.h"
#include "src/bridge/camera_client.h"
#include "src/plugin/message_separation.h"
#include "zumod/camera_channel.h"

namespace zumod {

// The matcher of this channel: at most two headers in a row; handlers get the buffer with the whole message.
using CameraMessageSeparation = CMessageSeparation_T<_MESSAGE_HEADER, IBuffer*, 2, unsigned long, bool>;

// The body of an open or set-format request, or nullopt unless it has exactly 16 bytes.
std::optional<FormatRequest> ReadFormatRequest(const uint8_t* body, uint64_t length);

// The body of a set-property request, or nullopt unless it has exactly 16 bytes.
std::optional<PropertyRequest> ReadPropertyRequest(const uint8_t* body, uint64_t length);

// The id of a close request. Required by the contract: any length is accepted. Missing bytes count as 0,
// further bytes are ignored.
uint32_t ReadCloseRequest(const uint8_t* body, uint64_t length);

// Each writer fills a message of the size that is declared above it.
inline constexpr uint64_t kStateNoticeSize = sizeof(_MESSAGE_HEADER) + sizeof(StateNotice);
void WriteStateNotice(uint8_t* message, CameraState state, uint32_t id);

inline constexpr uint64_t kVersionReplySize = sizeof(_MESSAGE_HEADER) + sizeof kProtocolVersion;
void WriteVersionReply(uint8_t* message);

uint64_t CameraListSize(const std::vector<CameraDeviceInfo>& cameras);
void WriteCameraList(uint8_t* message, const std::vector<CameraDeviceInfo>& cameras);

// Only the part before the encoded bytes.
inline constexpr uint64_t kVideoFrameHeaderSize = sizeof(_MESSAGE_HEADER) + sizeof(VideoFrameHeader);
void WriteVideoFrameHeader(uint8_t* message, uint32_t id, uint32_t encoded_size);

}  // namespace zumod
