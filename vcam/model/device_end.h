// The camera's end of an open device file. The program's end is one half of a socket pair, so the kernel
// itself keeps it readable while there is a frame, raises POLLPRI for an event, says when its last copy is
// closed, and reports error and hang-up when the camera goes. Guarded by its camera's lock.
#pragma once

#include "common/unique_fd.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

class DeviceEnd {
public:
    // False, with errno set, when there are no descriptors left.
    bool Open(const FileIdentity& identity, UniqueFd& program_end);

    void Send(const Record& record) const;
    // Raises POLLPRI until the program takes the urgent byte.
    void SendEventMark() const;
    // Whether no process has the program's end any more.
    bool IsAbandoned() const;
    // Error and hang-up for whoever polls.
    void HangUp() { fd_.Reset(); }

    int Descriptor() const { return fd_.Get(); }

private:
    UniqueFd fd_;
};

}  // namespace zumod::vcam
