// A reader of the bytes that a host sends: splits them into messages and checks each of them. Nothing in them
// is trusted.
//
// Thread rule: one thread at a time. No input or output, no clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "common/error.h"
#include "peer/camera_list.h"
#include "peer/control_list.h"
#include "zumod/camera_channel.h"

namespace zumod::peer {

struct CameraListMessage {
    std::vector<CameraEntry> cameras;
    bool operator==(const CameraListMessage&) const = default;
};
struct StateMessage {
    CameraState state;
    uint32_t id;
    bool operator==(const StateMessage&) const = default;
};
struct FrameMessage {
    uint32_t id;
    std::vector<uint8_t> bytes;
    bool operator==(const FrameMessage&) const = default;
};
struct VersionMessage {
    uint32_t version;
    bool operator==(const VersionMessage&) const = default;
};
struct NoticeMessage {
    std::string text;  // as the host sent it: not safe for a terminal
    bool operator==(const NoticeMessage&) const = default;
};
struct ControlsMessage {
    uint32_t id;
    bool read;  // by the host
    std::vector<ControlEntry> controls;
    bool operator==(const ControlsMessage&) const = default;
};
struct InformationMessage {
    std::string text;  // likewise
    bool operator==(const InformationMessage&) const = default;
};
using Message = std::variant<CameraListMessage, StateMessage, FrameMessage, VersionMessage, NoticeMessage,
                             ControlsMessage, InformationMessage>;

inline constexpr size_t kLargestFrame = size_t{64} << 20;

// The first line of text in `first`, the first bytes from the other end, safe for a terminal and in quotes.
// Empty if they are the beginning of a message: the bytes 5 to 7 of one are zero. The greeting of a login is
// not a message, for example.
std::string Greeting(std::span<const uint8_t> first);

class MessageReader {
public:
    // Accepts bytes in pieces of any size, and appends the messages that they complete. Messages of types
    // that a peer does not know are skipped. Fails once a message is malformed, and again at every later
    // call; the messages before it are still appended.
    Expected<void> Feed(std::span<const uint8_t> bytes, std::vector<Message>& messages);

    // Whether a message has begun and is not complete.
    bool InMessage() const { return m_header_bytes > 0; }

private:
    size_t FeedHeader(std::span<const uint8_t> bytes);
    size_t FeedBody(std::span<const uint8_t> bytes);
    Expected<void> CheckHeader();

    Expected<void> m_state;
    _MESSAGE_HEADER m_header{};
    size_t m_header_bytes = 0;
    bool m_known = false;         // the type of the current message
    size_t m_body_bytes = 0;      // of the current message, kept or skipped
    std::vector<uint8_t> m_body;  // grows with the bytes that arrive, never ahead of them
};

}  // namespace zumod::peer
