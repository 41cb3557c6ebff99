// One connection to a host whose cameras the programs of this machine read as virtual cameras: decodes what
// programs want to see, and feeds it to the server of the virtual cameras.
//
// It runs in a separate process, because it decodes what the host sends: it connects to the server of the
// virtual cameras, enters the sandbox, and only then decodes. Another connection needs another process.
//
// A virtual camera is plugged in while the host lists its camera. The camera at the host is open while a
// program streams, and 2 s longer (published_camera.h).
//
// Thread rule: the main thread of its process. A picture is put into the feed by the thread that decodes it,
// while the main thread waits for that.
#pragma once

#include <string>
#include <vector>

#include "common/error.h"
#include "peer/commands.h"

namespace zumod::peer {

// `--camera` of zu-vcam for this camera. `size` comes first in the list of its sizes.
std::string VirtualCameraOption(const CameraEntry& camera, PictureSize size, int fps);

// Whether programs can agree on this size with a virtual camera.
bool CanBeVirtual(PictureSize size);

struct RunPlan {
    std::string server;             // of the virtual cameras
    std::vector<CameraEntry> lent;  // as first listed: camera n of the server is the nth
};

// How a session ended that no signal ended.
struct RunEnd {
    bool is_server_gone;
    std::string text;  // empty if the program and its cameras have ended
};

// Feeds until a signal comes (nothing is returned), or the host or the server is gone. `listed`: the host's
// cameras now.
std::optional<RunEnd> FeedVirtualCameras(const CommandContext& context, Session& session,
                                         const std::vector<CameraEntry>& listed, const RunPlan& plan);

}  // namespace zumod::peer
