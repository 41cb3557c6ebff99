// The host's main loop: waits for peers, for the end of a session and for stop signals.
//
// Thread rule: main thread. A session runs on a separate thread, so the main thread can always turn a second
// peer away and react to signals.
#pragma once

#include "common/waiter.h"
#include "host/camera_module.h"
#include "host/host_log.h"
#include "host/listener.h"
#include "host/peer_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// Serves one peer after another until a stop signal.
void ServePeers(const Listener& listener, CameraModule& module, HostLog& log, Waiter& waiter);

// Serves this peer until it leaves or a stop signal.
void ServeOnePeer(CRefPtr_T<PeerStream> stream, CameraModule& module, Waiter& waiter);

}  // namespace zumod::host
