// The list of cameras as people and as programs read it.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>
#include <vector>

#include "peer/camera_list.h"

namespace zumod::peer {

// Lines of id, name and sizes below a heading; one line that says so when there is no camera.
std::string CameraTable(const std::vector<CameraEntry>& cameras);

// An array of objects, in ASCII; bytes of a name that are no UTF-8 become U+FFFD.
std::string CameraJson(const std::vector<CameraEntry>& cameras);

}  // namespace zumod::peer
