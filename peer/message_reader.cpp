#include "peer/message_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zumod::peer {
namespace {

struct LengthRule {
    const char* name;
    size_t least;
    size_t most;
};

// Null for a type that a peer does not know.
const LengthRule* RuleOf(uint8_t type) {
    static constexpr LengthRule kList{"camera list", sizeof(uint32_t), kLongestList};
    static constexpr LengthRule kState{"camera state", sizeof(StateNotice), sizeof(StateNotice)};
    static constexpr LengthRule kFrame{"video frame", sizeof(VideoFrameHead),
                                       sizeof(VideoFrameHead) + kLargestFrame};
    static constexpr LengthRule kVersion{"version", sizeof(uint32_t), sizeof(uint32_t)};
    static constexpr LengthRule kNotice{"notice", 0, kHostNoticeLimit};
    switch (type) {
        case kCameraList:
            return &kList;
        case kCameraState:
            return &kState;
        case kVideoFrame:
            return &kFrame;
        case kVersionReply:
            return &kVersion;
        case kHostNotice:
            return &kNotice;
        default:
            return nullptr;
    }
}

constexpr size_t kLongestUnknown = sizeof(VideoFrameHead) + kLargestFrame;

}  // namespace

bool MessageReader::Feed(std::span<const uint8_t> bytes, std::vector<Message>& messages) {
    while (m_error.empty() && !bytes.empty()) {
        if (m_header_bytes < sizeof m_header) {
            bytes = bytes.subspan(FeedHeader(bytes));
            if (m_header_bytes < sizeof m_header) {
                break;
            }
            CheckHeader();
        } else {
            bytes = bytes.subspan(FeedBody(bytes));
        }
        if (m_error.empty() && m_body_bytes == m_header.length) {
            Finish(messages);
        }
    }
    return m_error.empty();
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

void MessageReader::CheckHeader() {
    const LengthRule* rule = RuleOf(m_header.type);
    m_known = rule != nullptr;
    const std::string length = std::to_string(m_header.length) + " bytes";
    if (!m_known) {
        if (m_header.length > kLongestUnknown) {
            m_error = "a message of type " + std::to_string(m_header.type) + " and " + length;
        }
    } else if (m_header.length < rule->least || m_header.length > rule->most) {
        m_error = "a " + std::string(rule->name) + " message of " + length;
    }
}

void MessageReader::Finish(std::vector<Message>& messages) {
    uint32_t version = 0;
    switch (m_known ? m_header.type : 0) {
        case kCameraList:
            if (auto cameras = ParseCameraList(m_body, m_error)) {
                messages.emplace_back(CameraListMessage{std::move(*cameras)});
            }
            break;
        case kCameraState:
            FinishState(messages);
            break;
        case kVideoFrame:
            FinishFrame(messages);
            break;
        case kVersionReply:
            std::memcpy(&version, m_body.data(), sizeof version);
            messages.emplace_back(VersionMessage{version});
            break;
        case kHostNotice:
            messages.emplace_back(NoticeMessage{{m_body.begin(), m_body.end()}});
            break;
        default:
            break;
    }
    m_header_bytes = 0;
    m_body_bytes = 0;
    m_body.clear();
}

void MessageReader::FinishState(std::vector<Message>& messages) {
    StateNotice notice{};
    std::memcpy(&notice, m_body.data(), sizeof notice);
    if (notice.state != kCameraFailed && notice.state != kCameraOpen && notice.state != kCameraClosed) {
        m_error = "the unknown camera state " + std::to_string(notice.state);
        return;
    }
    messages.emplace_back(StateMessage{static_cast<CameraState>(notice.state), notice.id});
}

void MessageReader::FinishFrame(std::vector<Message>& messages) {
    VideoFrameHead head{};
    std::memcpy(&head, m_body.data(), sizeof head);
    const size_t rest = m_body.size() - sizeof head;
    if (head.size != rest) {
        m_error = "a video frame of " + std::to_string(head.size) + " bytes in a message with " +
                  std::to_string(rest);
        return;
    }
    messages.emplace_back(FrameMessage{head.id, {m_body.begin() + sizeof head, m_body.end()}});
}

}  // namespace zumod::peer
