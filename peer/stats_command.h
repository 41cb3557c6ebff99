// The output of the command "stats", for its tests.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>

#include "peer/camera_list.h"
#include "peer/camera_watch.h"
#include "peer/stream_meter.h"

namespace zumod::peer {

// Without a line end. `size` is 0x0 while no picture was decoded.
std::string FiguresText(const CameraEntry& camera, PictureSize size, const StreamFigures& figures);

// One object and the line end.
std::string FiguresJson(const CameraEntry& camera, PictureSize size, const StreamFigures& figures);
std::string EventJson(const CameraEntry& camera, CameraEvent event, const std::string& text);

}  // namespace zumod::peer
