// The commands, each a function that returns when its work is done and throws when it cannot be.
//
// Thread rule: the main thread.
#pragma once

#include "peer/camera_list.h"
#include "peer/host_calls.h"
#include "peer/options.h"
#include "peer/session.h"
#include "peer/standard_output.h"

namespace zumod::peer {

// What a command works with.
struct Work {
    const PeerOptions& options;
    Waiter& waiter;
    StandardOutput& output;

    Session Connect() const;
};

// Closes a camera at the end of a block, however it ends.
class CameraHold {
public:
    // Opens it.
    CameraHold(Session& session, const CameraEntry& camera, PictureSize size, int fps)
        : m_session(session), m_id(camera.id) {
        OpenCamera(session, camera, size, fps);
    }
    ~CameraHold() { CloseCameraAtEnd(m_session, m_id); }
    CameraHold(const CameraHold&) = delete;
    CameraHold& operator=(const CameraHold&) = delete;

    // The camera has got another id, or has been closed: the one that is open now.
    void SetId(uint32_t id) { m_id = id; }

private:
    Session& m_session;
    uint32_t m_id;
};

// The size that was asked for, otherwise the usual one.
PictureSize SizeFor(const PeerOptions& options, const CameraEntry& camera);

void ListCameras(const Work& work);
void TakeSnapshot(const Work& work);
void RecordCameras(const Work& work);
void ShowStats(const Work& work);
void ChangeFormat(const Work& work);
void CloseOne(const Work& work);
void ShowVersion(const Work& work);

}  // namespace zumod::peer
