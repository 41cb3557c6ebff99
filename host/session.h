// One peer that is served, with its own plugin and thread.
//
// Thread rule: belongs to the thread that constructed it. Run, ExitInstance and the release of the plugin
// happen on the session's thread, in this order; another thread can only end the stream.
#pragma once

#include <atomic>
#include <thread>

#include "common/unique_fd.h"
#include "host/camera_module.h"
#include "host/peer_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// The plugin is created for this peer and destroyed with the session: no camera, queued frame or property of
// one peer reaches the next.
class Session {
public:
    Session(CameraModule& module, CRefPtr_T<PeerStream> stream);
    // Ends the stream and waits until every camera is closed.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Readable once everything that belongs to the session is closed.
    int Done() const { return m_done.Get(); }

    // Whether the peer has left, even if the session has not noticed it yet.
    bool PeerHasLeft() const { return m_leaving.load() || m_stream->IsHungUp(); }

private:
    void Serve();

    CameraModule& m_module;
    const CRefPtr_T<PeerStream> m_stream;
    const UniqueFd m_done;  // an eventfd
    // Set by the session's thread when Run has returned; nothing else depends on it.
    std::atomic<bool> m_leaving{false};
    std::thread m_thread;
};

}  // namespace zumod::host
