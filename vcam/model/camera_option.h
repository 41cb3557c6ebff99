// Reads the key=value list of a --camera option. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

#include "vcam/model/camera_config.h"

namespace zumod::vcam {

// On failure `error` says what is wrong, in one line.
bool ParseCamera(std::string_view text, CameraConfig& config, std::string& error);

// Every key, every fault and what each means, as --list-options prints it.
std::string DescribeOptions();

}  // namespace zumod::vcam
