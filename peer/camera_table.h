// The list of cameras as a table and as JSON.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>
#include <vector>

#include "peer/camera_list.h"

namespace zumod::peer {

// Lines of id, name and sizes below a heading, or one line if there is no camera.
std::string CameraTable(const std::vector<CameraEntry>& cameras);

// An array of objects, in ASCII. Bytes of a name that are not UTF-8 become U+FFFD.
std::string CameraJson(const std::vector<CameraEntry>& cameras);

}  // namespace zumod::peer
