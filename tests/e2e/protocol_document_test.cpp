// The sessions that docs/protocol.md shows byte by byte are those of the reference host.
#include <algorithm>
#include <deque>
#include <optional>
#include <sstream>

#include "tests/e2e/host_process.h"
#include "tests/support/process/file_content.h"

namespace zumod::testing {
namespace {

constexpr char kCamera[] = "card=Front,formats=NV12,sizes=640x480,fps=30";

// One message of the document. In `bytes` nothing stands for any byte; `gaps` are the positions where any
// number of bytes may follow.
struct Line {
    bool from_peer = false;
    std::vector<std::optional<uint8_t>> bytes;
    std::vector<size_t> gaps;
    std::string text;

    void Read(const std::string& word) {
        if (word == "...") {
            gaps.push_back(bytes.size());
        } else if (word == "..") {
            bytes.push_back(std::nullopt);
        } else {
            size_t digits = 0;
            const auto byte = static_cast<uint8_t>(std::stoul(word, &digits, 16));
            ASSERT_EQ(digits, 2U) << word;
            ASSERT_TRUE(word.size() == digits || word[digits] == '*') << word;
            bytes.insert(bytes.end(), word.size() == digits ? 1 : std::stoul(word.substr(digits + 1)), byte);
        }
    }

    Bytes Sent() const {
        Bytes sent;
        for (const auto& byte : bytes) {
            EXPECT_TRUE(byte.has_value()) << text;
            sent.push_back(byte.value_or(0));
        }
        return sent;
    }

    bool Matches(const Bytes& message) const {
        auto at = message.begin();
        size_t begin = 0;
        for (size_t part = 0; part <= gaps.size(); ++part) {
            const size_t end = part < gaps.size() ? gaps[part] : bytes.size();
            const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin);
            const auto last = bytes.begin() + static_cast<std::ptrdiff_t>(end);
            const auto found = std::search(at, message.end(), first, last,
                                           [](uint8_t byte, const std::optional<uint8_t>& wanted) {
                                               return !wanted || *wanted == byte;
                                           });
            if ((found == message.end() && first != last) || (part == 0 && found != message.begin())) {
                return false;
            }
            at = found + (last - first);
            begin = end;
        }
        return at == message.end() || (!gaps.empty() && gaps.back() == bytes.size());
    }
};

// The blocks of the document that are marked as sessions.
std::vector<std::vector<Line>> ReadSessions(const std::string& document) {
    std::vector<std::vector<Line>> sessions;
    bool inside = false;
    std::istringstream lines(document);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("```", 0) == 0) {
            inside = line == "```session";
            if (inside) {
                sessions.emplace_back();
            }
            continue;
        }
        if (!inside || line.empty()) {
            continue;
        }
        std::vector<Line>& session = sessions.back();
        if (line[0] == '>' || line[0] == '<') {
            session.push_back({line[0] == '>', {}, {}, line});
        } else if (session.empty()) {
            ADD_FAILURE() << "belongs to no message: " << line;
            continue;
        }
        std::istringstream words(line.substr(1, line.find(';') - 1));
        for (std::string word; words >> word;) {
            session.back().Read(word);
        }
    }
    return sessions;
}

class ProtocolDocument : public HostProcess {
protected:
    ProtocolDocument() : HostProcess({kCamera}) {}

    // The next message of this type. The document leaves out frames, and the order of an answer and a frame
    // is not fixed: messages of other types are kept.
    std::optional<Bytes> Next(const PeerClient& peer, uint8_t type) {
        for (auto at = m_kept.begin(); at != m_kept.end(); ++at) {
            if (at->type == type) {
                const Bytes bytes = MessageBytes(type, at->body);
                m_kept.erase(at);
                return bytes;
            }
        }
        while (auto message = peer.Receive()) {
            if (message->type == type) {
                return MessageBytes(type, message->body);
            }
            // Any other message than a frame must be in the document, here.
            EXPECT_TRUE(message->type == 7 || type == 7)
                << "type " << int{message->type} << ", not " << int{type};
            m_kept.push_back(std::move(*message));
        }
        return std::nullopt;
    }

    // Plays one session of the document at a host. Returns the number of messages.
    size_t Play(const std::vector<Line>& session, const PeerClient& peer) {
        for (const Line& line : session) {
            if (line.bytes.size() < 8) {
                ADD_FAILURE() << "no header: " << line.text;
                continue;
            }
            if (line.from_peer) {
                EXPECT_TRUE(peer.Send(line.Sent()));
                continue;
            }
            const auto message = Next(peer, line.bytes[4].value_or(0));
            if (!message) {
                ADD_FAILURE() << "the channel was closed before: " << line.text;
                break;
            }
            EXPECT_TRUE(line.Matches(*message))
                << line.text << "\nbut " << message->size() << " bytes came, first "
                << ::testing::PrintToString(
                       Bytes(message->begin(), message->begin() + static_cast<std::ptrdiff_t>(std::min(
                                                                      message->size(), size_t{48}))));
            if ((*message)[4] == 7) {
                EXPECT_EQ(Bytes(message->begin() + 12, message->begin() + 16),
                          Number32(static_cast<uint32_t>(message->size() - 16)));
            }
        }
        // Nothing but frames was left out.
        for (const PeerMessage& message : m_kept) {
            EXPECT_EQ(message.type, 7);
        }
        m_kept.clear();
        return session.size();
    }

private:
    std::deque<PeerMessage> m_kept;
};

TEST_F(ProtocolDocument, ShowsTheBytesOfRealSessions) {
    const std::string document = FileContent(ZU_PROTOCOL_DOCUMENT);
    EXPECT_NE(document.find(std::string("zu-vcam --camera ") + kCamera + " "), std::string::npos);
    const auto host = Start();
    size_t messages = 0;
    for (const auto& session : ReadSessions(document)) {
        messages += Play(session, Connect());
    }
    EXPECT_GE(messages, 20U) << "the sessions are missing in the document";
}

}  // namespace
}  // namespace zumod::testing
