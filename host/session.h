// One peer being served, with a plugin and a thread of its own.
//
// Thread rule: belongs to the thread that made it. Run, ExitInstance and the plugin's release happen on the
// session's thread, one after the other; what comes from outside is the end of the stream alone.
#pragma once

#include <atomic>
#include <thread>

#include "common/unique_fd.h"
#include "host/camera_module.h"
#include "host/peer_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// The plugin is made for this peer and destroyed with the session: no camera, no queued frame and no property
// of one peer reaches the next.
class Session {
public:
    Session(CameraModule& module, CRefPtr_T<PeerStream> stream);
    // Ends the stream and waits until every camera is closed.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Readable once everything of the session is closed.
    int Done() const { return m_done.Get(); }

    // Whether the peer has gone, even if the session has not noticed yet.
    bool PeerIsGone() const { return m_leaving.load() || m_stream->IsHungUp(); }

private:
    void Serve();

    CameraModule& m_module;
    const CRefPtr_T<PeerStream> m_stream;
    const UniqueFd m_done;
    // Set by the session's thread when Run has returned; nothing else depends on it.
    std::atomic<bool> m_leaving{false};
    std::thread m_thread;
};

}  // namespace zumod::host
