// The parser of the key=value list of a --camera option, and its help text.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

#include "vcam/model/camera_config.h"

namespace zumod::vcam {

// On failure `error` holds the reason, in one line.
bool ParseCamera(std::string_view text, CameraConfig& config, std::string& error);

// All keys, formats and faults with their meaning: the output of --list-options.
std::string DescribeOptions();

}  // namespace zumod::vcam
