// An open device file, seen from the camera. The program has one half of a socket pair and the camera the
// other, so the kernel itself keeps the program's half readable while there is a frame, raises POLLPRI for
// an event, reports when the last copy of the half is closed, and shows error and hang-up when the camera is
// unplugged. See wire.h.
//
// Thread rule: the camera's lock guards it.
#pragma once

#include "common/unique_fd.h"
#include "vcam/model/wire.h"

namespace zumod::vcam {

class OpenFile {
public:
    // Returns false, with errno set, if the descriptors cannot be created.
    bool Open(const FileIdentity& identity, UniqueFd& program_end);

    uint32_t Id() const { return m_id; }
    bool IsReadOnly() const;
    // Whether no process has the program's half open any more.
    bool IsAbandoned() const;

    void Send(const Record& record) const;
    // Makes the descriptor readable without a frame.
    void SendMark() const;
    // Raises POLLPRI until the program receives the urgent byte.
    void SendEventMark() const;

private:
    UniqueFd m_fd;
    uint32_t m_id = 0;
    uint32_t m_flags = 0;  // of open(2)
};

}  // namespace zumod::vcam
