// The host's main loop: waits for peers, for the end of a session and for the signals.
//
// Thread rule: main thread. A session runs on a thread of its own, so that the main thread is always there
// for the next peer, which is told that it has to come back, and for a signal.
#pragma once

#include "host/camera_module.h"
#include "host/host_log.h"
#include "host/listener.h"
#include "host/peer_stream.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {

// Serves one peer after another until `signals` is readable.
void ServePeers(const Listener& listener, CameraModule& module, HostLog& log, int signals);

// Serves this one peer until it goes or `signals` is readable.
void ServeOnePeer(CRefPtr_T<PeerStream> stream, CameraModule& module, int signals);

}  // namespace zumod::host
