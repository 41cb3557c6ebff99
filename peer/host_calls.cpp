#include "peer/host_calls.h"

#include <algorithm>
#include <functional>

#include "common/safe_text.h"
#include "zumod/camera_channel.h"

namespace zumod::peer {
namespace {

constexpr auto kLastAnswerLimit = std::chrono::seconds(2);

std::vector<uint8_t> Request(MessageType type) {
    std::vector<uint8_t> message(sizeof(_MESSAGE_HEADER));
    WriteHeader(message.data(), type, 0);
    return message;
}

template <class Body>
std::vector<uint8_t> Request(MessageType type, const Body& body) {
    std::vector<uint8_t> message(sizeof(_MESSAGE_HEADER) + sizeof body);
    WriteRecord(WriteHeader(message.data(), type, sizeof body), body);
    return message;
}

FormatRequest Format(uint32_t id, PictureSize size, int fps) {
    return {id, static_cast<int32_t>(size.width), static_cast<int32_t>(size.height), fps};
}

// Frames that arrive before the answer to the request that they belong to.
class EarlyFrames {
public:
    // Returns false if there are too many.
    bool Add(ReceivedMessage frame) {
        m_bytes += std::get<FrameMessage>(frame.message).bytes.size() + sizeof frame;
        m_frames.push_back(std::move(frame));
        return m_bytes <= kLargestFrame;
    }
    std::vector<ReceivedMessage> Release() { return std::move(m_frames); }

private:
    std::vector<ReceivedMessage> m_frames;
    size_t m_bytes = 0;
};

using Predicate = std::function<bool(const Message&)>;

template <class Kind>
bool Is(const Message& message) {
    return std::holds_alternative<Kind>(message);
}

const StateMessage* StateOf(const Message& message, uint32_t id) {
    const auto* state = std::get_if<StateMessage>(&message);
    return state != nullptr && state->id == id ? state : nullptr;
}

Predicate IsStateOf(uint32_t id) {
    return [id](const Message& message) { return StateOf(message, id) != nullptr; };
}

CameraState StateIn(const Message& message) {
    return std::get<StateMessage>(message).state;
}

// Sends a request and returns its answer, the first message for which `is_answer` is true. Other messages are
// skipped, frames are kept in `early_frames` if it is given. `name` is the request's, for an error.
Expected<Message> Ask(Session& session, const std::vector<uint8_t>& request, const std::string& name,
                      const Predicate& is_answer, EarlyFrames* early_frames = nullptr) {
    if (const auto sent = session.Send(request); !sent) {
        return tl::make_unexpected(sent.error());
    }
    const auto deadline = Clock::now() + session.Limit();
    for (;;) {
        auto received = session.Receive(deadline);
        if (!received) {
            return tl::make_unexpected(received.error());
        }
        if (!*received) {
            return Fail("the host did not answer within " + SecondsText(session.Limit()) + ": " + name);
        }
        ReceivedMessage& message = **received;
        if (is_answer(message.message)) {
            return std::move(message.message);
        }
        if (early_frames != nullptr && Is<FrameMessage>(message.message) &&
            !early_frames->Add(std::move(message))) {
            return Fail("the host sent frames without end and no answer");
        }
    }
}

}  // namespace

std::vector<uint8_t> ListRequest() {
    return Request(kGetCameraList);
}

std::vector<uint8_t> VersionRequest() {
    return Request(kVersionRequest);
}

std::vector<uint8_t> OpenRequest(uint32_t id, PictureSize size, int fps) {
    return Request(kOpenCamera, Format(id, size, fps));
}

std::vector<uint8_t> SetFormatRequest(uint32_t id, PictureSize size, int fps) {
    return Request(kSetFormat, Format(id, size, fps));
}

std::vector<uint8_t> CloseRequest(uint32_t id) {
    return Request(kCloseCamera, id);
}

std::string CameraLabel(const CameraEntry& camera) {
    return "camera " + std::to_string(camera.id) + " (" + SafeText(camera.name) + ")";
}

bool Lists(const CameraEntry& camera, PictureSize size) {
    return std::find(camera.sizes.begin(), camera.sizes.end(), size) != camera.sizes.end();
}

Expected<uint32_t> AskVersion(Session& session) {
    return Ask(session, VersionRequest(), "version request", Is<VersionMessage>)
        .map([](const Message& answer) { return std::get<VersionMessage>(answer).version; });
}

Expected<std::vector<CameraEntry>> AskCameras(Session& session) {
    return Ask(session, ListRequest(), "camera list request", Is<CameraListMessage>)
        .map([](Message&& answer) { return std::move(std::get<CameraListMessage>(answer).cameras); });
}

Expected<CameraEntry> FindCamera(const std::vector<CameraEntry>& cameras, uint32_t id) {
    const auto found = std::find_if(cameras.begin(), cameras.end(),
                                    [id](const CameraEntry& camera) { return camera.id == id; });
    if (found != cameras.end()) {
        return *found;
    }
    std::string listed;
    for (const CameraEntry& camera : cameras) {
        listed += (listed.empty() ? "" : ", ") + CameraLabel(camera);
    }
    return Fail("there is no camera " + std::to_string(id) + "; the host lists " +
                (listed.empty() ? "none" : listed));
}

Expected<CameraState> CloseCamera(Session& session, uint32_t id) {
    return Ask(session, CloseRequest(id), "close camera " + std::to_string(id), IsStateOf(id)).map(StateIn);
}

Expected<OpenedCamera> OpenedCamera::Open(Session& session, const CameraEntry& camera, PictureSize size,
                                          int fps) {
    EarlyFrames early_frames;
    const auto state = Ask(session, OpenRequest(camera.id, size, fps), "open " + CameraLabel(camera),
                           IsStateOf(camera.id), &early_frames)
                           .map(StateIn);
    if (!state) {
        return tl::make_unexpected(state.error());
    }
    if (*state != kCameraOpen) {
        return Fail(CameraLabel(camera) + " could not be opened" +
                    (Lists(camera, size) ? "" : " at " + SizeText(size) + ", which it does not list"));
    }
    session.PutBack(early_frames.Release());
    return OpenedCamera(&session, camera.id);
}

OpenedCamera::~OpenedCamera() {
    if (m_session == nullptr || !m_session->Send(CloseRequest(m_id))) {
        return;
    }
    const auto deadline = Clock::now() + std::min<Clock::duration>(m_session->Limit(), kLastAnswerLimit);
    for (;;) {
        const auto received = m_session->Receive(deadline);
        if (!received || !*received) {
            return;
        }
        const StateMessage* state = StateOf((*received)->message, m_id);
        if (state != nullptr && state->state == kCameraClosed) {
            return;
        }
    }
}

Expected<std::optional<Frame>> NextFrame(Session& session, std::span<const CameraEntry> cameras,
                                         Clock::time_point deadline) {
    for (;;) {
        auto received = session.Receive(deadline);
        if (!received) {
            return tl::make_unexpected(received.error());
        }
        if (!*received) {
            return std::nullopt;
        }
        ReceivedMessage& message = **received;
        auto* frame = std::get_if<FrameMessage>(&message.message);
        for (const CameraEntry& camera : cameras) {
            const StateMessage* state = StateOf(message.message, camera.id);
            if (state != nullptr && state->state != kCameraOpen) {
                return Fail("the host closed " + CameraLabel(camera));
            }
            if (frame != nullptr && frame->id == camera.id && !frame->bytes.empty()) {
                return Frame{camera.id, std::move(frame->bytes), message.at};
            }
        }
    }
}

}  // namespace zumod::peer
