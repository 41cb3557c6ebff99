// A client of the page that zu-camera-peer view serves: requests, streams of events and of video.
//
// Thread rule: one test thread. Every wait has a deadline; a wait that exceeds it is a failure of the test.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "common/unique_fd.h"

namespace zumod::testing {

// One connection: a request, and its answer.
class PageConnection {
public:
    PageConnection(uint16_t port, const std::string& request)
        : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(send(m_socket.Get(), request.data(), request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(request.size()));
    }

    // Reads more. Returns whether there was more.
    bool Read() {
        char bytes[65536];
        pollfd polled{m_socket.Get(), POLLIN, 0};
        if (poll(&polled, 1, 60'000) != 1) {
            ADD_FAILURE() << "no answer";
            return false;
        }
        const ssize_t count = recv(m_socket.Get(), bytes, sizeof bytes, 0);
        m_received.append(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
        return count > 0;
    }

    // The whole answer.
    std::string Answer() {
        while (Read()) {
        }
        return m_received;
    }

    // The next chunk of a stream; empty at its end.
    std::string Chunk() {
        for (;;) {
            if (!m_head_read) {
                if (const size_t end = m_received.find("\r\n\r\n"); end != std::string::npos) {
                    EXPECT_EQ(m_received.substr(0, 17), "HTTP/1.1 200 OK\r\n") << m_received;
                    EXPECT_NE(m_received.find("Transfer-Encoding: chunked\r\n"), std::string::npos);
                    m_received.erase(0, end + 4);
                    m_head_read = true;
                }
            }
            if (const size_t line = m_received.find("\r\n"); m_head_read && line != std::string::npos) {
                const size_t size = std::strtoul(m_received.c_str(), nullptr, 16);
                if (m_received.size() >= line + size + 4) {
                    std::string chunk = m_received.substr(line + 2, size);
                    m_received.erase(0, line + size + 4);
                    return chunk;
                }
            }
            if (!Read()) {
                return {};
            }
        }
    }

private:
    UniqueFd m_socket;
    std::string m_received;
    bool m_head_read = false;
};

class PageClient {
public:
    // The address that the program has printed.
    explicit PageClient(const std::string& address) {
        const std::string prefix = "http://127.0.0.1:";
        EXPECT_EQ(address.substr(0, prefix.size()), prefix);
        const size_t slash = address.find('/', prefix.size());
        EXPECT_NE(slash, std::string::npos) << address;
        m_port = static_cast<uint16_t>(std::strtoul(address.c_str() + prefix.size(), nullptr, 10));
        m_root = address.substr(slash, address.find('\n') - slash);
    }

    uint16_t Port() const { return m_port; }
    const std::string& Root() const { return m_root; }
    std::string Host() const { return "Host: 127.0.0.1:" + std::to_string(m_port) + "\r\n"; }
    std::string Origin() const { return "Origin: http://127.0.0.1:" + std::to_string(m_port) + "\r\n"; }

    std::string Ask(const std::string& request) const { return PageConnection(m_port, request).Answer(); }
    PageConnection Get(const std::string& path) const {
        return {m_port, "GET " + m_root + path + " HTTP/1.1\r\n" + Host() + "\r\n"};
    }
    std::string Post(const std::string& path, const nlohmann::json& body) const {
        const std::string text = body.dump();
        return Ask("POST " + m_root + path + " HTTP/1.1\r\n" + Host() + Origin() +
                   "Content-Type: application/json\r\nContent-Length: " + std::to_string(text.size()) +
                   "\r\n\r\n" + text);
    }

    // Waits until an event fulfils the condition, and returns it.
    template <class Condition>
    nlohmann::json WaitFor(Condition condition) const {
        PageConnection events = Get("events");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        nlohmann::json state;
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string chunk = events.Chunk();
            if (chunk.substr(0, 6) != "data: ") {
                break;
            }
            state = nlohmann::json::parse(chunk.substr(6), nullptr, false);
            if (!state.is_discarded() && condition(state)) {
                return state;
            }
        }
        ADD_FAILURE() << "the state does not come; the last one is " << state;
        return state;
    }
    // Likewise, of the first camera.
    nlohmann::json WaitForCamera(const char* field, const nlohmann::json& value) const {
        return WaitFor([&](const nlohmann::json& state) {
            return !state["cameras"].empty() && state["cameras"][0].value(field, nlohmann::json()) == value;
        });
    }

private:
    uint16_t m_port = 0;
    std::string m_root;
};

// The status line of an answer.
inline std::string StatusOf(const std::string& answer) {
    return answer.substr(0, answer.find("\r\n"));
}
inline std::string BodyOf(const std::string& answer) {
    const size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? "" : answer.substr(end + 4);
}

// A picture in a record of a video stream.
struct PageRecord {
    explicit PageRecord(const std::string& record)
        : type(static_cast<uint8_t>(record.at(4))), text(record.substr(5)) {
        if (type == 1) {
            is_key = record.at(5) == 1;
            index = static_cast<uint8_t>(record.at(6));
            text = record.substr(28);
        }
    }

    int type;
    bool is_key = false;
    int index = 0;
    std::string text;  // of a picture: Annex B
};

// The next record that is a picture.
inline std::optional<PageRecord> NextPicture(PageConnection& video) {
    for (;;) {
        const std::string chunk = video.Chunk();
        if (chunk.size() < 5) {
            ADD_FAILURE() << "the stream has ended";
            return std::nullopt;
        }
        const PageRecord record(chunk);
        if (record.type == 1) {
            return record;
        }
    }
}

}  // namespace zumod::testing
