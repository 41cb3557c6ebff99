// What is asked of a host, each with its answer or a PeerError that says what was missing.
//
// Thread rule: that of the session.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "peer/camera_list.h"
#include "peer/message_reader.h"
#include "peer/session.h"

namespace zumod::peer {

// "camera 0 (NAME)", fit for a terminal.
std::string CameraLabel(uint32_t id, const std::string& name);
inline std::string CameraLabel(const CameraEntry& camera) {
    return CameraLabel(camera.id, camera.name);
}

// Whether the camera is listed with this size.
bool Lists(const CameraEntry& camera, PictureSize size);

uint32_t AskVersion(Session& session);
std::vector<CameraEntry> AskCameras(Session& session);

// The camera of that id; throws when there is none.
CameraEntry FindCamera(const std::vector<CameraEntry>& cameras, uint32_t id);
// The same among those that the host lists now.
CameraEntry AskCamera(Session& session, uint32_t id);

// Frames of it that come before the answer are kept for NextFrame.
void OpenCamera(Session& session, const CameraEntry& camera, PictureSize size, int fps);

// Closes it and waits for the answer, whose state it returns.
CameraState CloseCamera(Session& session, uint32_t id);

// For the end of the work: closes it and waits a little for the answer; a host that does not answer any more,
// and an impatient user, are let go.
void CloseCameraAtEnd(Session& session, uint32_t id) noexcept;

struct Frame {
    uint32_t id;                 // the camera's
    std::vector<uint8_t> bytes;  // never empty
    Clock::time_point at;
};

// The next frame of one of these cameras; nothing when the time has come. Throws when the host has closed
// one.
std::optional<Frame> NextFrame(Session& session, std::span<const CameraEntry> cameras,
                               Clock::time_point deadline);
inline std::optional<Frame> NextFrame(Session& session, const CameraEntry& camera,
                                      Clock::time_point deadline) {
    return NextFrame(session, std::span(&camera, 1), deadline);
}

}  // namespace zumod::peer
