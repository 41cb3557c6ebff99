// The program's side of an open device file. QBUF and DQBUF are done here, on the shared board; every other
// ioctl is sent to the camera. See wire.h for the protocol.
//
// Thread rule: any thread; no C++ runtime library.
#pragma once

#include <sys/uio.h>

#include "vcam/model/camera_board.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

// How a request reaches the camera: over a socket from a program, by a function call in a unit test.
struct Channel {
    void* context;
    // Gathers the request's payload from `parts` and scatters the reply's to them. Stores a descriptor in the
    // reply in *fd unless fd is null. Returns 0, or an errno if the camera cannot be reached.
    int (*call)(void* context, const Request& request, const iovec* parts, int part_count, Reply& reply,
                int* fd);
};

// The identity is that of the open file, if the request concerns one.
Request MakeRequest(Operation operation, const FileIdentity& identity = {});

// ioctl on a device file. Returns 0 or errno.
int ClientIoctl(int fd, const FileIdentity& identity, CameraBoard& board, const Channel& channel,
                unsigned long command, void* argument);

}  // namespace zumod::vcam
