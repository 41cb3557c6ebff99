// A connection to a host, as a queue of messages. Every wait has a deadline, and a signal ends it.
//
// The session reads only while Receive() waits and no message is queued. A caller that does not receive
// (because standard output is blocked, for example) therefore holds the host back: the bytes stay in the
// socket. The memory is bounded by what one read completes: the message that was being read, of at most
// kLargestFrame bytes, and the messages in the kReadSize bytes after it.
//
// Thread rule: one thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/waiter.h"
#include "peer/connection.h"
#include "peer/message_reader.h"

namespace zumod::peer {

struct ReceivedMessage {
    Message message;
    Clock::time_point at;  // when its last byte was read
};

class Session {
public:
    // For the user; safe for a terminal. Called within Receive().
    using OnNotice = std::function<void(const std::string& text)>;

    // `limit`: how long an answer, or a write, may take. `waiter` is borrowed.
    Session(Connection connection, Waiter& waiter, Clock::duration limit, OnNotice on_notice)
        : m_connection(std::move(connection)),
          m_waiter(waiter),
          m_limit(limit),
          m_on_notice(std::move(on_notice)) {}

    Clock::duration Limit() const { return m_limit; }
    // See Connection.
    void LeaveCommand() { m_connection.LeaveCommand(); }
    // The process behind --exec; -1 if there is none.
    pid_t Command() const { return m_connection.Command(); }

    // Fails if the bytes cannot be written in time. If the host is gone, Receive() reports it once all
    // received messages are delivered.
    Expected<void> Send(const std::vector<uint8_t>& bytes);

    // The next message other than a notice and an information, or nothing at the deadline and after Wake().
    // Fails if the host closed the connection or sent a malformed message, and if a signal ends the wait.
    //
    // A notice says why the connection ends, or why what was requested does not happen. Followed by the end
    // of the connection it is the failure; followed by anything else it goes to OnNotice. What the host
    // informs about is kept for PrintInformation.
    Expected<std::optional<ReceivedMessage>> Receive(Clock::time_point deadline);

    // How many notices the host has sent.
    uint64_t Notices() const { return m_notices; }
    // A Receive() that waits, or the next one, returns without a message. For callbacks of the waiter.
    void Wake() { m_woken = true; }

    // Puts messages back to the front of the queue, in this order.
    void PutBack(std::vector<ReceivedMessage> messages);

    // Passes what the host has informed about since the last time to OnNotice.
    void PrintInformation();

private:
    static constexpr size_t kReadSize = 65536;
    static constexpr size_t kGreetingSize = 512;
    static constexpr int kMostNotices = 32;  // that are shown
    static constexpr size_t kMostInformation = 32;

    void Keep(const InformationMessage& information);
    // Reads once, without blocking.
    void OnReadable();
    // If what came first is not a message, that is the failure.
    void ReplaceFailureByGreeting();
    // Not again if it is the same as the one before.
    void ShowNotice();
    Error EndOfMessages();

    Connection m_connection;
    Waiter& m_waiter;
    const Clock::duration m_limit;
    const OnNotice m_on_notice;
    MessageReader m_reader;
    std::vector<uint8_t> m_first_bytes;  // at most kGreetingSize
    std::deque<ReceivedMessage> m_messages;
    std::string m_notice;  // what came last was a notice; empty if it was not
    std::string m_shown_notice;
    int m_notices_shown = 0;
    uint64_t m_notices = 0;
    bool m_woken = false;
    std::vector<std::string> m_information;  // at most kMostInformation texts, all different
    bool m_closed = false;                   // by the host
    std::string m_failure;                   // reported when no message is left; empty while more may arrive
};

}  // namespace zumod::peer
