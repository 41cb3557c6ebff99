// A connection with messages on it. Every wait has an end, and a signal ends it too.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "peer/connection.h"
#include "peer/deadline.h"
#include "peer/message_reader.h"
#include "peer/stop_signals.h"

namespace zumod::peer {

struct Arrived {
    Message message;
    Clock::time_point at;  // when its last byte was read
};

class Session {
public:
    // `limit` is how long an answer, or a write, may take. Borrows `signals`.
    Session(Connection connection, const StopSignals& signals, Clock::duration limit)
        : m_connection(std::move(connection)), m_signals(signals), m_limit(limit) {}

    Clock::duration Limit() const { return m_limit; }

    // Throws PeerError when the bytes cannot be written in time; a host that is gone is for Receive to tell,
    // after what it sent last.
    void Send(const std::vector<uint8_t>& bytes);

    // The next message, or nothing when the time has come. Throws PeerError when the host has closed the
    // connection, sent a notice or what is no message, and Interrupted.
    std::optional<Arrived> Receive(Clock::time_point deadline);

    // Messages to be received again, before all others, in this order.
    void PutBack(std::vector<Arrived> messages);

private:
    void ReadSome();
    std::string HowItClosed();

    Connection m_connection;
    const StopSignals& m_signals;
    const Clock::duration m_limit;
    MessageReader m_reader;
    std::deque<Arrived> m_messages;
    std::string m_failure;  // what is thrown when no message is left
};

}  // namespace zumod::peer
