// Cuts the bytes that a host sends into messages and checks every one: nothing in them is trusted.
//
// Thread rule: one thread at a time. No input or output, no clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "peer/camera_list.h"
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
    std::string text;  // as the host sent it: not fit for a terminal
    bool operator==(const NoticeMessage&) const = default;
};
using Message = std::variant<CameraListMessage, StateMessage, FrameMessage, VersionMessage, NoticeMessage>;

inline constexpr size_t kLargestFrame = size_t{64} << 20;

class MessageReader {
public:
    // Takes bytes as they come, in pieces of any size, and appends the messages that they complete. Those of
    // types that a peer does not know are left out. Returns false once a message is malformed: Error says
    // how, and nothing is read any more.
    bool Feed(std::span<const uint8_t> bytes, std::vector<Message>& messages);

    // Empty while all is well.
    const std::string& Error() const { return m_error; }

    // Whether a message has begun and is not complete.
    bool InMessage() const { return m_header_bytes > 0; }

private:
    size_t FeedHeader(std::span<const uint8_t> bytes);
    size_t FeedBody(std::span<const uint8_t> bytes);
    void CheckHeader();
    void Finish(std::vector<Message>& messages);

    void FinishState(std::vector<Message>& messages);
    void FinishFrame(std::vector<Message>& messages);

    _MESSAGE_HEADER m_header{};
    size_t m_header_bytes = 0;
    bool m_known = false;         // the type of the message that has begun
    size_t m_body_bytes = 0;      // of it, kept or passed over
    std::vector<uint8_t> m_body;  // grows with what comes, never ahead of it
    std::string m_error;
};

}  // namespace zumod::peer
