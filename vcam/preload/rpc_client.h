// A request to the server of virtual cameras, from any program. Opens a connection for each, so threads,
// forks and programs that close descriptors they do not know need no care. No C++ runtime; any thread.
#pragma once

#include <sys/uio.h>

#include "vcam/model/wire.h"
#include "vcam/preload/client_file.h"

namespace zumod::vcam {

inline constexpr int kMaxRequestParts = 2;

// Sends the request with its parts and receives the reply into the same parts. Returns 0, or the errno for a
// server that cannot be reached. A descriptor goes to *fd, which is -1 otherwise; it closes on exec if asked
// for.
int CallServer(const char* server_name, const Request& request, const iovec* parts, int part_count,
               Reply& reply, int* fd, bool close_on_exec = true);

// The channel of a device file over its server's socket.
Channel ServerChannel(const FileIdentity& identity);

}  // namespace zumod::vcam
