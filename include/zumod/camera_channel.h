// The messages between the plugin and a peer on the host's byte stream: the layout of each, in host byte
// order, which is little-endian on the target. docs/protocol.md says when each is sent. ReadRecord and
// WriteRecord copy records from and to messages, which need not be aligned. They do not check lengths: the
// caller does.
//
// Thread rule: constants, types and pure functions; [any thread].
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

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
    // Between the peer and the host application, never the module.
    kHostNotice = 128,       // to the peer: why a request fails or the connection ends
    kGetControls = 129,      // from the peer; its body is the camera's id, 32 bits
    kCameraControls = 130,   // to the peer
    kHostInformation = 131,  // to the peer: something that the user should know; nothing ends
};

// The maximum length of the body of kHostNotice and of kHostInformation, which is UTF-8 text without a
// terminating zero.
inline constexpr uint32_t kHostNoticeLimit = 256;

enum CameraState : uint32_t {
    kCameraFailed = 1,
    kCameraOpen = 2,
    kCameraClosed = 4,
};

// The header of every message.
struct _MESSAGE_HEADER {
    uint32_t length;      // bytes that follow this header
    uint8_t type;         // MessageType
    uint8_t reserved[3];  // written as zero, ignored on receipt
};
static_assert(sizeof(_MESSAGE_HEADER) == 8);
static_assert(offsetof(_MESSAGE_HEADER, length) == 0);
static_assert(offsetof(_MESSAGE_HEADER, type) == 4);

// The body of kOpenCamera and of kSetFormat.
struct FormatRequest {
    uint32_t id;
    int32_t width;   // in pixels
    int32_t height;  // in pixels
    int32_t fps;     // frames per second
};
static_assert(sizeof(FormatRequest) == 16);

// The body of kSetProperty.
struct PropertyRequest {
    uint32_t id;
    int32_t property;
    int32_t value;
    int32_t automatic;
};
static_assert(sizeof(PropertyRequest) == 16);

// The body of kCameraState.
struct StateNotice {
    uint32_t state;  // CameraState
    uint32_t id;
};
static_assert(sizeof(StateNotice) == 8);

// The body of kCameraControls starts with this record. A ControlRecord for each control follows.
struct ControlsHeader {
    uint32_t id;
    uint32_t status;  // ControlsStatus
};
static_assert(sizeof(ControlsHeader) == 8);

enum ControlsStatus : uint32_t {
    kControlsRead = 0,
    kControlsFailed = 1,  // the host cannot open the camera
};

// One control of a camera. A PropertyRequest with its number changes it.
struct ControlRecord {
    int32_t property;
    int32_t value;
    int32_t minimum;
    int32_t maximum;
    int32_t step;
    int32_t default_value;
    uint32_t flags;  // bits of ControlFlag
};
static_assert(sizeof(ControlRecord) == 28);

enum ControlFlag : uint32_t {
    kHasAutomatic = 1,  // the camera can choose the value
    kIsAutomatic = 2,   // it does so now
    kIsReadOnly = 4,
};

// Precedes the encoded bytes in the body of kVideoFrame.
struct VideoFrameHeader {
    uint32_t id;
    uint32_t size;  // encoded bytes that follow
};
static_assert(sizeof(VideoFrameHeader) == 8);

inline constexpr size_t kCameraNameSize = 516;

// One camera in the body of kCameraList, which starts with the 32-bit number of cameras. The camera's sizes
// follow the record.
struct CameraRecord {
    uint32_t id;
    uint8_t in_use;
    uint8_t zero_1;
    char name[kCameraNameSize];  // no terminating zero when the field is full
    uint8_t zero_2[4];
    char display_name[kCameraNameSize];  // likewise
    uint8_t zero_3[258];
    uint8_t resolution_count;  // the number of sizes that follow, its low 8 bits
    uint8_t zero_4[3];
};
static_assert(offsetof(CameraRecord, in_use) == 4);
static_assert(offsetof(CameraRecord, name) == 6);
static_assert(offsetof(CameraRecord, display_name) == 526);
static_assert(offsetof(CameraRecord, resolution_count) == 1300);
static_assert(sizeof(CameraRecord) == 1304);

// One size of a camera, in pixels, after its CameraRecord.
struct ResolutionPair {
    uint32_t width;
    uint32_t height;
};
static_assert(sizeof(ResolutionPair) == 8);

// The record, or the number, at these bytes.
template <class Record>
Record ReadRecord(const void* bytes) {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record;
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

// Writes the record, or the number. Returns the position after it.
template <class Record>
uint8_t* WriteRecord(uint8_t* bytes, const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    std::memcpy(bytes, &record, sizeof record);
    return bytes + sizeof record;
}

inline _MESSAGE_HEADER ReadHeader(const void* message) {
    return ReadRecord<_MESSAGE_HEADER>(message);
}

// Writes the header of a message with a body of this many bytes. Returns the position of the body.
inline uint8_t* WriteHeader(uint8_t* message, MessageType type, uint32_t body_size) {
    return WriteRecord(message, _MESSAGE_HEADER{body_size, type, {}});
}

}  // namespace zumod
