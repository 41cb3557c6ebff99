// Tells cameras that run what to do next, from any program below them or with their server's name. Any
// thread.
#pragma once

#include <string>

namespace zumod::vcam {

// Sends "0 unplug", "0 errno/DQBUF/EIO", "0 clear" or "0 status". The name of the server is taken from the
// environment when it is empty. False, with the reason in `answer`, when it did not work.
bool SendControl(const std::string& line, std::string& answer, std::string server_name = {});

}  // namespace zumod::vcam
