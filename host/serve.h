// The host's main loop: accepts peers, moves bytes between their connections and the broker, and reacts to
// stop signals.
//
// Thread rule: main thread. The plugin runs on a separate thread, so the main thread never waits for a
// camera while a peer is connected.
#pragma once

#include <cstddef>
#include <memory>

#include "common/error.h"
#include "common/waiter.h"
#include "host/broker.h"
#include "host/camera_gate.h"
#include "host/camera_module.h"
#include "host/helper.h"
#include "host/host_log.h"
#include "host/listener.h"
#include "host/peer_stream.h"

namespace zumod::host {

struct ServeLimits {
    size_t peers = 16;  // that are served at once
    PeerLimits each;
};

// What all peers share. Borrowed.
struct HostParts {
    CameraModule& module;
    CameraGate& gate;
    HelperProcess* helper;  // null if no command is to be run
    HostLog& log;
    Waiter& waiter;
};

// Serves peers until a stop signal.
void ServePeers(const Listener& listener, const ServeLimits& limits, const HostParts& parts);

// Serves this peer until it leaves or a stop signal.
Expected<void> ServeOnePeer(std::unique_ptr<PeerStream> stream, const ServeLimits& limits,
                            const HostParts& parts);

}  // namespace zumod::host
