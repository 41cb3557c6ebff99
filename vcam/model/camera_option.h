// The parser of the key=value list of a --camera option, and its help text.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

#include "common/error.h"
#include "vcam/model/camera_config.h"

namespace zumod::vcam {

// An error is one line.
Expected<CameraConfig> ParseCamera(std::string_view text);

// All keys, formats and faults with their meaning: the output of --list-options.
std::string DescribeOptions();

}  // namespace zumod::vcam
