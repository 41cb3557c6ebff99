#include "peer/message_reader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/safe_text.h"

namespace zumod::peer {
namespace {

Expected<Message> ParseList(std::span<const uint8_t> body) {
    return ParseCameraList(body).map(
        [](std::vector<CameraEntry>&& cameras) { return Message(CameraListMessage{std::move(cameras)}); });
}

Expected<Message> ParseState(std::span<const uint8_t> body) {
    const auto notice = ReadRecord<StateNotice>(body.data());
    if (notice.state != kCameraFailed && notice.state != kCameraOpen && notice.state != kCameraClosed) {
        return Fail("the unknown camera state " + std::to_string(notice.state));
    }
    return StateMessage{static_cast<CameraState>(notice.state), notice.id};
}

Expected<Message> ParseFrame(std::span<const uint8_t> body) {
    const auto header = ReadRecord<VideoFrameHeader>(body.data());
    const auto frame = body.subspan(sizeof header);
    if (header.size != frame.size()) {
        return Fail("a video frame of " + std::to_string(header.size) + " bytes in a message with " +
                    std::to_string(frame.size()));
    }
    return FrameMessage{header.id, {frame.begin(), frame.end()}};
}

Expected<Message> ParseVersion(std::span<const uint8_t> body) {
    return VersionMessage{ReadRecord<uint32_t>(body.data())};
}

Expected<Message> ParseNotice(std::span<const uint8_t> body) {
    return NoticeMessage{{body.begin(), body.end()}};
}

Expected<Message> ParseControls(std::span<const uint8_t> body) {
    const auto header = ReadRecord<ControlsHeader>(body.data());
    return ParseControlList(body.subspan(sizeof header)).map([&](std::vector<ControlEntry>&& controls) {
        return Message(ControlsMessage{header.id, header.status == kControlsRead, std::move(controls)});
    });
}

Expected<Message> ParseInformation(std::span<const uint8_t> body) {
    return InformationMessage{{body.begin(), body.end()}};
}

// A type of message that a host sends. `parse` gets a body whose length is within the limits.
struct MessageKind {
    MessageType type;
    const char* name;
    size_t least;
    size_t most;
    Expected<Message> (*parse)(std::span<const uint8_t> body);
};

constexpr size_t kLongestFrame = sizeof(VideoFrameHeader) + kLargestFrame;
constexpr size_t kLongestControls = sizeof(ControlsHeader) + kMostControls * sizeof(ControlRecord);

constexpr std::array<MessageKind, 7> kKinds = {{
    {kCameraList, "camera list", sizeof(uint32_t), kLongestList, ParseList},
    {kCameraState, "camera state", sizeof(StateNotice), sizeof(StateNotice), ParseState},
    {kVideoFrame, "video frame", sizeof(VideoFrameHeader), kLongestFrame, ParseFrame},
    {kVersionReply, "version", sizeof(uint32_t), sizeof(uint32_t), ParseVersion},
    {kHostNotice, "notice", 0, kHostNoticeLimit, ParseNotice},
    {kCameraControls, "camera controls", sizeof(ControlsHeader), kLongestControls, ParseControls},
    {kHostInformation, "information", 0, kHostNoticeLimit, ParseInformation},
}};

// Null for a type that a peer does not know.
const MessageKind* KindOf(uint8_t type) {
    const auto* found = std::ranges::find(kKinds, static_cast<MessageType>(type), &MessageKind::type);
    return found != kKinds.end() ? found : nullptr;
}

}  // namespace

std::string Greeting(std::span<const uint8_t> first) {
    constexpr size_t kLongestGreeting = 60;
    const auto header = first.first(std::min(first.size(), sizeof(_MESSAGE_HEADER)));
    const auto is_text = [](uint8_t byte) { return byte >= '\t' && (byte < 0x0E || byte > 0x1A); };
    if (header.empty() || !std::ranges::all_of(header, is_text)) {
        return {};
    }
    std::string_view text(reinterpret_cast<const char*>(first.data()), first.size());
    text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
    text = text.substr(0, text.find_first_of("\r\n"));
    const bool cut = text.size() > kLongestGreeting;
    std::string quoted = "'";
    quoted += SafeText(text.substr(0, kLongestGreeting));
    quoted += cut ? "\u2026'" : "'";
    return quoted;
}

Expected<void> MessageReader::Feed(std::span<const uint8_t> bytes, std::vector<Message>& messages) {
    while (m_state && !bytes.empty()) {
        if (m_header_bytes < sizeof m_header) {
            bytes = bytes.subspan(FeedHeader(bytes));
            if (m_header_bytes < sizeof m_header) {
                break;
            }
            m_state = CheckHeader();
        } else {
            bytes = bytes.subspan(FeedBody(bytes));
        }
        if (!m_state || m_body_bytes < m_header.length) {
            continue;
        }
        if (m_known) {
            if (auto message = KindOf(m_header.type)->parse(m_body)) {
                messages.push_back(std::move(*message));
            } else {
                m_state = Fail(message.error());
            }
        }
        m_header_bytes = 0;
        m_body_bytes = 0;
        m_body.clear();
    }
    return m_state;
}

size_t MessageReader::FeedHeader(std::span<const uint8_t> bytes) {
    const size_t count = std::min(bytes.size(), sizeof m_header - m_header_bytes);
    std::memcpy(reinterpret_cast<uint8_t*>(&m_header) + m_header_bytes, bytes.data(), count);
    m_header_bytes += count;
    return count;
}

size_t MessageReader::FeedBody(std::span<const uint8_t> bytes) {
    const size_t count = std::min(bytes.size(), m_header.length - m_body_bytes);
    if (m_known) {
        m_body.insert(m_body.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    }
    m_body_bytes += count;
    return count;
}

Expected<void> MessageReader::CheckHeader() {
    const MessageKind* const kind = KindOf(m_header.type);
    m_known = kind != nullptr;
    const std::string length = std::to_string(m_header.length) + " bytes";
    if (!m_known && m_header.length > kLongestFrame) {
        return Fail("a message of type " + std::to_string(m_header.type) + " and " + length);
    }
    if (m_known && (m_header.length < kind->least || m_header.length > kind->most)) {
        return Fail("a " + std::string(kind->name) + " message of " + length);
    }
    return {};
}

}  // namespace zumod::peer
