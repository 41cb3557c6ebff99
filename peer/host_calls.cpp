#include "peer/host_calls.h"

#include <strings.h>

#include <algorithm>
#include <iterator>

#include "common/parse_number.h"
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

const StateMessage* StateOf(const Message& message, uint32_t id) {
    const auto* state = std::get_if<StateMessage>(&message);
    return state != nullptr && state->id == id ? state : nullptr;
}

Expected<void> Skip(ReceivedMessage& /*other*/) {
    return {};
}

// Sends a request and returns its answer: the first message of this kind for which `is_answer` is true. Calls
// `on_other` with each message before it. `name` is the request's, for an error.
template <class Answer, class IsAnswer, class OnOther = Expected<void> (*)(ReceivedMessage&)>
Expected<Answer> Ask(Session& session, const std::vector<uint8_t>& request, const std::string& name,
                     IsAnswer is_answer, OnOther on_other = Skip) {
    if (const auto sent = session.Send(request); !sent) {
        return Fail(sent.error());
    }
    const auto deadline = Clock::now() + session.Limit();
    for (;;) {
        auto received = session.Receive(deadline);
        if (!received) {
            return Fail(received.error());
        }
        if (!*received) {
            return Fail("the host did not answer within " + SecondsText(session.Limit()) + ": " + name);
        }
        Message& message = (*received)->message;
        if (auto* answer = std::get_if<Answer>(&message); answer != nullptr && is_answer(*answer)) {
            return std::move(*answer);
        }
        if (const auto handled = on_other(**received); !handled) {
            return Fail(handled.error());
        }
    }
}

// "camera 0 (NAME), camera 1 (NAME)"
std::string CameraLabels(const std::vector<CameraEntry>& cameras) {
    std::string labels;
    for (const CameraEntry& camera : cameras) {
        labels += labels.empty() ? "" : ", ";
        labels += CameraLabel(camera);
    }
    return labels;
}

template <class Answer>
bool Any(const Answer&) {
    return true;
}

std::string RefusalText(const CameraEntry& camera, PictureSize size) {
    return CameraLabel(camera) + " could not be opened" +
           (Lists(camera, size) ? "" : " at " + SizeText(size) + ", which it does not list");
}

auto IsStateOf(uint32_t id) {
    return [id](const StateMessage& message) { return message.id == id; };
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

std::vector<uint8_t> ControlsRequest(uint32_t id) {
    return Request(kGetControls, id);
}

std::vector<uint8_t> SetControlRequest(uint32_t id, const ControlChange& change) {
    return Request(kSetProperty,
                   PropertyRequest{id, change.property, change.value.value_or(0), change.value ? 0 : 1});
}

std::string CameraLabel(const CameraEntry& camera) {
    return "camera " + std::to_string(camera.id) + " (" + SafeText(camera.name) + ")";
}

bool Lists(const CameraEntry& camera, PictureSize size) {
    return std::ranges::find(camera.sizes, size) != camera.sizes.end();
}

Expected<uint32_t> AskVersion(Session& session) {
    return Ask<VersionMessage>(session, VersionRequest(), "version request", Any<VersionMessage>)
        .map([](const VersionMessage& answer) { return answer.version; });
}

Expected<std::vector<CameraEntry>> AskCameras(Session& session) {
    return Ask<CameraListMessage>(session, ListRequest(), "camera list request", Any<CameraListMessage>)
        .map([](CameraListMessage&& answer) { return std::move(answer.cameras); });
}

Expected<std::vector<ControlEntry>> AskControls(Session& session, const CameraEntry& camera) {
    // A host that does not know the request drops it. Answers keep the order of the requests, so the answer
    // to a second request tells that there will be none to the first.
    std::vector<uint8_t> requests = ControlsRequest(camera.id);
    const std::vector<uint8_t> second = VersionRequest();
    requests.insert(requests.end(), second.begin(), second.end());
    std::optional<ControlsMessage> controls;
    const auto answered =
        Ask<VersionMessage>(session, requests, "controls of " + CameraLabel(camera), Any<VersionMessage>,
                            [&](ReceivedMessage& other) {
                                if (auto* message = std::get_if<ControlsMessage>(&other.message);
                                    message != nullptr && message->id == camera.id) {
                                    controls = std::move(*message);
                                }
                                return Expected<void>();
                            });
    if (!answered) {
        return Fail(answered.error());
    }
    if (!controls) {
        return Fail("the host is too old: it does not offer the controls of its cameras");
    }
    if (!controls->read) {
        return Fail("the host cannot open " + CameraLabel(camera));
    }
    return std::move(controls->controls);
}

Expected<CameraEntry> FindCamera(const std::vector<CameraEntry>& cameras, const std::string& wanted) {
    const auto matches = [&](auto&& is_match) {
        std::vector<CameraEntry> found;
        std::ranges::copy_if(cameras, std::back_inserter(found), is_match);
        return found;
    };
    const auto id = ParseNumber<uint32_t>(wanted);
    auto found = matches([&](const CameraEntry& camera) { return id == camera.id; });
    if (found.empty()) {
        found = matches([&](const CameraEntry& camera) { return SafeText(camera.name) == wanted; });
    }
    const bool is_name = !found.empty();
    if (!is_name) {
        found = matches([&](const CameraEntry& camera) {
            return strncasecmp(SafeText(camera.name).c_str(), wanted.c_str(), wanted.size()) == 0;
        });
    }
    if (found.size() == 1) {
        return found.front();
    }
    const std::string shown = SafeText(wanted);
    if (found.empty()) {
        return Fail("there is no camera " + shown + "; the host lists " +
                    (cameras.empty() ? "none" : CameraLabels(cameras)));
    }
    const std::string count = std::to_string(found.size());
    return Fail(
        (is_name ? count + " cameras are called " : "the names of " + count + " cameras begin with ") +
        shown + "; use the number: " + CameraLabels(found));
}

Expected<CameraState> CloseCamera(Session& session, uint32_t id) {
    return Ask<StateMessage>(session, CloseRequest(id), "close camera " + std::to_string(id), IsStateOf(id))
        .map([](const StateMessage& answer) { return answer.state; });
}

Expected<OpenedCamera> OpenedCamera::Open(Session& session, const CameraEntry& camera, PictureSize size,
                                          int fps) {
    return Try(session, camera, size, fps)
        .and_then([&](std::optional<OpenedCamera>&& opened) -> Expected<OpenedCamera> {
            if (opened) {
                return std::move(*opened);
            }
            return Fail(RefusalText(camera, size));
        });
}

Expected<OpenedCamera> OpenedCamera::OpenOrSmaller(Session& session, const CameraEntry& camera,
                                                   PictureSize& size, int fps) {
    const PictureSize wanted = size;
    const uint64_t notices = session.Notices();
    for (int tried = 1;; ++tried) {
        auto opened = Try(session, camera, size, fps);
        if (!opened) {
            return Fail(opened.error());
        }
        if (*opened) {
            return std::move(**opened);
        }
        const auto smaller = SmallerSize(camera.sizes, size);
        if (!smaller || tried == kMostSizesTried || session.Notices() != notices) {
            return Fail(tried == 1 ? RefusalText(camera, size)
                                   : CameraLabel(camera) + " could not be opened at " + SizeText(wanted) +
                                         ", nor at smaller sizes down to " + SizeText(size) +
                                         ": another program may use it, or the host may not");
        }
        size = *smaller;
    }
}

Expected<std::optional<OpenedCamera>> OpenedCamera::Try(Session& session, const CameraEntry& camera,
                                                        PictureSize size, int fps) {
    std::vector<ReceivedMessage> early_frames;
    size_t early_bytes = 0;
    const auto keep_frame = [&](ReceivedMessage& other) -> Expected<void> {
        if (const auto* frame = std::get_if<FrameMessage>(&other.message)) {
            early_bytes += frame->bytes.size() + sizeof(ReceivedMessage);
            if (early_bytes > kLargestFrame) {
                return Fail("the host sent frames without end and no answer");
            }
            early_frames.push_back(std::move(other));
        }
        return {};
    };
    const auto answer = Ask<StateMessage>(session, OpenRequest(camera.id, size, fps),
                                          "open " + CameraLabel(camera), IsStateOf(camera.id), keep_frame);
    if (!answer) {
        return Fail(answer.error());
    }
    if (answer->state != kCameraOpen) {
        return std::nullopt;
    }
    session.PutBack(std::move(early_frames));
    return std::optional(OpenedCamera(&session, camera.id));
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
            return Fail(received.error());
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
