// Control of running cameras, from the command that uses them or from any program that knows their server's
// name.
//
// Thread rule: any thread.
#pragma once

#include <string>

#include "common/error.h"

namespace zumod::vcam {

// Sends "0 unplug", "0 errno/DQBUF/EIO", "0 clear" or "0 status" and returns the camera's answer. An empty
// server name means the one in the environment.
Expected<std::string> SendControl(const std::string& line, std::string server_name = {});

}  // namespace zumod::vcam
