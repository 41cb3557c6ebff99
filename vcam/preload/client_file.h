// The client half of an open device file: what ioctl on its descriptor does inside the program. Queueing and
// dequeueing are done here on the shared board; everything else is carried to the camera. Any thread.
#pragma once

#include <sys/uio.h>

#include "vcam/model/camera_board.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

// How a request gets to the camera: over a socket from another program, by a plain call from a unit test.
struct Channel {
    void* context;
    // The request's and the reply's payload are gathered from and scattered to `parts`. A descriptor in the
    // reply goes to *fd when fd is not null. Returns 0, or the errno for a camera that cannot be reached.
    int (*call)(void* context, const Request& request, const iovec* parts, int part_count, Reply& reply,
                int* fd);
};

Request MakeRequest(Operation operation, const FileIdentity& identity);

// ioctl of a device file: 0 or errno.
int ClientIoctl(int fd, const FileIdentity& identity, CameraBoard& board, const Channel& channel,
                unsigned long command, void* argument);

}  // namespace zumod::vcam
