// The one message that a host itself sends: why it closes a connection.
#pragma once

#include <string>

namespace zumod::host {

// Header and text, which is cut at a character's end if it is longer than a notice may be.
std::string HostNotice(const std::string& text);

// [any thread]. Sends the notice on a fresh socket, which has room for it, without ever waiting.
void SendHostNotice(int socket, const std::string& text);

}  // namespace zumod::host
