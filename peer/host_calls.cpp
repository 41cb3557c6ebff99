#include "peer/host_calls.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "common/safe_text.h"
#include "peer/peer_error.h"
#include "peer/picture_size.h"
#include "peer/requests.h"

namespace zumod::peer {
namespace {

constexpr auto kGoodbye = std::chrono::seconds(2);

// Sends a request and waits for the message that `is_answer` takes; others are passed over.
void Ask(Session& session, const std::vector<uint8_t>& request, const std::string& for_what,
         const std::function<bool(ReceivedMessage&)>& is_answer) {
    session.Send(request);
    const auto deadline = Clock::now() + session.Limit();
    while (auto arrived = session.Receive(deadline)) {
        if (is_answer(*arrived)) {
            return;
        }
    }
    throw PeerError("the host did not answer within " + SecondsText(session.Limit()) + ": " + for_what);
}

const StateMessage* StateOf(const ReceivedMessage& arrived, uint32_t id) {
    const auto* state = std::get_if<StateMessage>(&arrived.message);
    return state != nullptr && state->id == id ? state : nullptr;
}

// Frames that arrive before the answer to the request that they belong to.
class EarlyFrames {
public:
    void Keep(ReceivedMessage arrived) {
        m_bytes += std::get<FrameMessage>(arrived.message).bytes.size() + sizeof(ReceivedMessage);
        if (m_bytes > kLargestFrame) {
            throw PeerError("the host sent frames without end and no answer");
        }
        m_frames.push_back(std::move(arrived));
    }
    std::vector<ReceivedMessage> Take() { return std::move(m_frames); }

private:
    std::vector<ReceivedMessage> m_frames;
    size_t m_bytes = 0;
};

}  // namespace

std::string CameraLabel(uint32_t id, const std::string& name) {
    return "camera " + std::to_string(id) + " (" + SafeText(name) + ")";
}

bool Lists(const CameraEntry& camera, PictureSize size) {
    return std::find(camera.sizes.begin(), camera.sizes.end(), size) != camera.sizes.end();
}

uint32_t AskVersion(Session& session) {
    uint32_t version = 0;
    Ask(session, VersionRequest(), "version request", [&](ReceivedMessage& arrived) {
        const auto* answer = std::get_if<VersionMessage>(&arrived.message);
        version = answer != nullptr ? answer->version : 0;
        return answer != nullptr;
    });
    return version;
}

std::vector<CameraEntry> AskCameras(Session& session) {
    std::vector<CameraEntry> cameras;
    Ask(session, ListRequest(), "camera list request", [&](ReceivedMessage& arrived) {
        auto* answer = std::get_if<CameraListMessage>(&arrived.message);
        if (answer != nullptr) {
            cameras = std::move(answer->cameras);
        }
        return answer != nullptr;
    });
    return cameras;
}

CameraEntry AskCamera(Session& session, uint32_t id) {
    return FindCamera(AskCameras(session), id);
}

CameraEntry FindCamera(const std::vector<CameraEntry>& cameras, uint32_t id) {
    const auto found = std::find_if(cameras.begin(), cameras.end(),
                                    [id](const CameraEntry& camera) { return camera.id == id; });
    if (found != cameras.end()) {
        return *found;
    }
    std::string listed;
    for (const CameraEntry& camera : cameras) {
        listed += (listed.empty() ? "" : ", ") + CameraLabel(camera);
    }
    throw PeerError("there is no camera " + std::to_string(id) + "; the host lists " +
                    (listed.empty() ? "none" : listed));
}

void OpenCamera(Session& session, const CameraEntry& camera, PictureSize size, int fps) {
    EarlyFrames early;
    CameraState state{};
    Ask(session, OpenRequest(camera.id, size, fps), "open " + CameraLabel(camera),
        [&](ReceivedMessage& arrived) {
            if (const StateMessage* answer = StateOf(arrived, camera.id)) {
                state = answer->state;
                return true;
            }
            if (std::holds_alternative<FrameMessage>(arrived.message)) {
                early.Keep(std::move(arrived));
            }
            return false;
        });
    if (state != kCameraOpen) {
        throw PeerError(CameraLabel(camera) + " could not be opened" +
                        (Lists(camera, size) ? "" : " at " + SizeText(size) + ", which it does not list"));
    }
    session.PutBack(early.Take());
}

CameraState CloseCamera(Session& session, uint32_t id) {
    CameraState state{};
    Ask(session, CloseRequest(id), "close camera " + std::to_string(id), [&](ReceivedMessage& arrived) {
        const StateMessage* answer = StateOf(arrived, id);
        state = answer != nullptr ? answer->state : state;
        return answer != nullptr;
    });
    return state;
}

void CloseCameraAtEnd(Session& session, uint32_t id) noexcept {
    try {
        session.Send(CloseRequest(id));
        const auto deadline = Clock::now() + std::min<Clock::duration>(session.Limit(), kGoodbye);
        while (const auto arrived = session.Receive(deadline)) {
            if (const StateMessage* answer = StateOf(*arrived, id);
                answer && answer->state == kCameraClosed) {
                return;
            }
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): the work is done
    }
}

std::optional<Frame> NextFrame(Session& session, std::span<const CameraEntry> cameras,
                               Clock::time_point deadline) {
    while (auto arrived = session.Receive(deadline)) {
        auto* frame = std::get_if<FrameMessage>(&arrived->message);
        for (const CameraEntry& camera : cameras) {
            const StateMessage* state = StateOf(*arrived, camera.id);
            if (state != nullptr && state->state != kCameraOpen) {
                throw PeerError("the host closed " + CameraLabel(camera));
            }
            if (frame != nullptr && frame->id == camera.id && !frame->bytes.empty()) {
                return Frame{camera.id, std::move(frame->bytes), arrived->at};
            }
        }
    }
    return std::nullopt;
}

}  // namespace zumod::peer
