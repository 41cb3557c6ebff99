#include "host/peer_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zumod::host {
namespace {

// A stream and the peer's descriptors.
struct Ends {
    std::unique_ptr<PeerStream> stream;
    UniqueFd to_stream;
    UniqueFd from_stream;  // none: the same as to_stream

    int From() const { return from_stream ? from_stream.Get() : to_stream.Get(); }
};

Ends OverSocket() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {std::make_unique<PeerStream>(UniqueFd(ends[0])), UniqueFd(ends[1]), UniqueFd()};
}

Ends OverPipes() {
    int in[2];
    int out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    return {std::make_unique<PeerStream>(UniqueFd(in[0]), UniqueFd(out[1])), UniqueFd(in[1]),
            UniqueFd(out[0])};
}

// The parameter says whether the stream uses pipes.
class Streams : public ::testing::TestWithParam<bool> {
protected:
    // As in the program.
    void SetUp() override { std::signal(SIGPIPE, SIG_IGN); }
    // What can be received now; nothing at the end.
    std::optional<std::string> Receive(size_t size) const {
        std::vector<uint8_t> bytes(size);
        const auto count = ends.stream->Receive(bytes);
        if (!count) {
            return std::nullopt;
        }
        return std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(*count));
    }
    std::optional<size_t> Send(const std::string& text) const {
        const std::vector<uint8_t> bytes(text.begin(), text.end());
        return ends.stream->Send(bytes);
    }
    // Reads until the end of the stream, at most `size` bytes.
    std::string ReadPeer(size_t size) const {
        std::string bytes;
        while (bytes.size() < size) {
            char some[4096];
            const ssize_t count = read(ends.From(), some, std::min(sizeof some, size - bytes.size()));
            if (count <= 0) {
                break;
            }
            bytes.append(some, static_cast<size_t>(count));
        }
        return bytes;
    }

    Ends ends = GetParam() ? OverPipes() : OverSocket();
};

TEST_P(Streams, BytesPassInBothDirections) {
    ASSERT_EQ(write(ends.to_stream.Get(), "request", 7), 7);
    EXPECT_EQ(Receive(100), "request");
    EXPECT_EQ(Send("answer"), 6U);
    EXPECT_EQ(ReadPeer(6), "answer");
}

TEST_P(Streams, NoMoreIsReceivedThanAskedFor) {
    ASSERT_EQ(write(ends.to_stream.Get(), "request", 7), 7);
    EXPECT_EQ(Receive(3), "req");
    EXPECT_EQ(Receive(100), "uest");
}

TEST_P(Streams, ReceivingDoesNotWaitForThePeer) {
    EXPECT_EQ(Receive(8), "");
    EXPECT_FALSE(ends.stream->IsHungUp());
}

TEST_P(Streams, APeerThatClosedIsTheEndAndNotNothingYet) {
    ASSERT_EQ(write(ends.to_stream.Get(), "last", 4), 4);
    ends.to_stream.Reset();
    EXPECT_EQ(Receive(8), "last");
    EXPECT_EQ(Receive(8), std::nullopt);
    EXPECT_TRUE(ends.stream->IsHungUp());
}

TEST_P(Streams, SendingToAPeerThatDoesNotReadTakesAPartAndThenNothing) {
    std::string sent(3 << 20, 0);
    for (size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<char>(i * 2654435761U >> 24);
    }
    const auto first = Send(sent);
    ASSERT_TRUE(first.has_value());
    EXPECT_GT(*first, 0U);
    EXPECT_LT(*first, sent.size());
    EXPECT_EQ(Send(sent), 0U);
    EXPECT_TRUE(ReadPeer(*first) == sent.substr(0, *first));
    const auto second = Send(sent.substr(*first));
    ASSERT_TRUE(second.has_value());
    EXPECT_GT(*second, 0U);
    EXPECT_TRUE(ReadPeer(*second) == sent.substr(*first, *second));
}

TEST_P(Streams, SendingToAPeerThatHasLeftFails) {
    ends.to_stream.Reset();
    ends.from_stream.Reset();
    EXPECT_EQ(Send("answer"), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Host, Streams, ::testing::Bool(),
                         [](const auto& one) { return one.param ? "OverPipes" : "OverASocket"; });

}  // namespace
}  // namespace zumod::host
