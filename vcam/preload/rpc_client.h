// Requests to the server of virtual cameras. Each has its own connection, so threads, forks and programs that
// close unknown descriptors cannot disturb it.
//
// Thread rule: any thread; no C++ runtime library.
#pragma once

#include <sys/uio.h>

#include "vcam/model/wire.h"
#include "vcam/preload/client_file.h"

namespace zumod::vcam {

inline constexpr int kMaxRequestParts = 2;

// A new connection to the server, closed on exec, or a negative errno: -EACCES if another user has its name.
int ConnectServer(const char* server_name);

// Sends the request with its parts and receives the reply into the same parts. Returns 0, or an errno if the
// server cannot be reached: EACCES if another user has its name. *fd becomes the descriptor in the reply, or
// -1.
int CallServer(const char* server_name, const Request& request, const iovec* parts, int part_count,
               Reply& reply, int* fd, bool close_on_exec = true);

// The channel of a device file over its server's socket.
Channel ServerChannel(const FileIdentity& identity);

}  // namespace zumod::vcam
