// The requests to a host, each together with its answer.
//
// Thread rule: that of the session.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "common/error.h"
#include "peer/camera_list.h"
#include "peer/control_list.h"
#include "peer/message_reader.h"
#include "peer/session.h"

namespace zumod::peer {

// The messages that a peer sends, as bytes.
std::vector<uint8_t> ListRequest();
std::vector<uint8_t> VersionRequest();
std::vector<uint8_t> OpenRequest(uint32_t id, PictureSize size, int fps);
std::vector<uint8_t> SetFormatRequest(uint32_t id, PictureSize size, int fps);
std::vector<uint8_t> CloseRequest(uint32_t id);
std::vector<uint8_t> ControlsRequest(uint32_t id);
std::vector<uint8_t> SetControlRequest(uint32_t id, const ControlChange& change);

// "camera 0 (NAME)", safe for a terminal.
std::string CameraLabel(const CameraEntry& camera);

// Whether the camera is listed with this size.
bool Lists(const CameraEntry& camera, PictureSize size);

Expected<uint32_t> AskVersion(Session& session);
Expected<std::vector<CameraEntry>> AskCameras(Session& session);

// The controls of a camera, whether it is open or not.
Expected<std::vector<ControlEntry>> AskControls(Session& session, const CameraEntry& camera);

// The camera of this id, of this name, or whose name, as it is printed, is the only one that begins so (in
// any case of ASCII letters).
Expected<CameraEntry> FindCamera(const std::vector<CameraEntry>& cameras, const std::string& wanted);

// Closes the camera and waits for the answer, whose state it returns.
Expected<CameraState> CloseCamera(Session& session, uint32_t id);

// A camera that is open, and is closed with the object. The closing waits a little for the answer; a host
// that does not answer, and a signal, end the wait.
class OpenedCamera {
public:
    // Frames that arrive before the answer stay in the session, for NextFrame().
    static Expected<OpenedCamera> Open(Session& session, const CameraEntry& camera, PictureSize size,
                                       int fps);
    // The same, but if the host refuses `size` without a notice, tries smaller sizes of the list and stores
    // the one that was opened in `size`: some sizes exist only compressed, which a host does not open and the
    // list does not say.
    static Expected<OpenedCamera> OpenOrSmaller(Session& session, const CameraEntry& camera,
                                                PictureSize& size, int fps);

    OpenedCamera(OpenedCamera&& other) noexcept
        : m_session(std::exchange(other.m_session, nullptr)), m_id(other.m_id) {}
    OpenedCamera& operator=(OpenedCamera&&) = delete;
    ~OpenedCamera();

    // It is opened again under this id, maybe in another session.
    void Reopened(Session& session, uint32_t id) {
        m_session = &session;
        m_id = id;
    }
    // It is closed already, or its connection is lost.
    void Forget() { m_session = nullptr; }

private:
    OpenedCamera(Session* session, uint32_t id) : m_session(session), m_id(id) {}

    // Nothing if the host refuses.
    static Expected<std::optional<OpenedCamera>> Try(Session& session, const CameraEntry& camera,
                                                     PictureSize size, int fps);

    Session* m_session;  // null after a move
    uint32_t m_id;
};

struct Frame {
    uint32_t id;                 // the camera's
    std::vector<uint8_t> bytes;  // never empty
    Clock::time_point at;        // when it arrived
};

// The next frame of one of these cameras, or nothing at the deadline. Fails if the host closed one of them.
Expected<std::optional<Frame>> NextFrame(Session& session, std::span<const CameraEntry> cameras,
                                         Clock::time_point deadline);
inline Expected<std::optional<Frame>> NextFrame(Session& session, const CameraEntry& camera,
                                                Clock::time_point deadline) {
    return NextFrame(session, std::span(&camera, 1), deadline);
}

}  // namespace zumod::peer
