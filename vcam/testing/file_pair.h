// An open device file without a camera: the camera's side, and the program's descriptor. For tests of a
// camera's parts.
//
// Thread rule: one thread at a time.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>

#include "vcam/model/open_file.h"

namespace zumod::vcam {

class FilePair {
public:
    explicit FilePair(uint32_t id, uint32_t flags = O_RDWR | O_NONBLOCK) {
        // Tests that run at the same time need different names.
        static unsigned count = 0;
        const std::string server = "pair." + std::to_string(getpid()) + "." + std::to_string(count++);
        FileIdentity identity{};
        std::memcpy(identity.server, server.data(), server.size());
        identity.file = id;
        identity.flags = flags;
        EXPECT_TRUE(m_file.Open(identity, m_program));
    }

    const OpenFile& File() const { return m_file; }
    void CloseProgram() { m_program.Reset(); }

    // What poll() reports at once: POLLIN, POLLPRI.
    short Poll() const {
        pollfd state{m_program.Get(), POLLIN | POLLPRI, 0};
        poll(&state, 1, 0);
        return state.revents;
    }
    bool HasUrgentByte() const { return (Poll() & POLLPRI) != 0; }
    bool TakeUrgentByte() const {
        char byte = 0;
        return recv(m_program.Get(), &byte, 1, MSG_OOB | MSG_DONTWAIT) == 1;
    }
    // The next record, if there is one.
    std::optional<Record> Receive() const {
        Record record{};
        const bool whole = recv(m_program.Get(), &record, sizeof record, MSG_DONTWAIT) == sizeof record;
        return whole ? std::optional(record) : std::nullopt;
    }

private:
    OpenFile m_file;
    UniqueFd m_program;
};

}  // namespace zumod::vcam
