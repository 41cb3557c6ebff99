#include "host/peer_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <string>
#include <vector>

#include "tests/support/watch/wait_until.h"
#include "zumod/ref_ptr.h"

namespace zumod::host {
namespace {

// A stream and the peer's descriptors.
struct Ends {
    CRefPtr_T<PeerStream> stream;
    UniqueFd to_stream;
    UniqueFd from_stream;  // none: the same as to_stream

    int From() const { return from_stream ? from_stream.Get() : to_stream.Get(); }
};

Ends OverSocket() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {CRefPtr_T<PeerStream>(new PeerStream(UniqueFd(ends[0]))), UniqueFd(ends[1]), UniqueFd()};
}

Ends OverPipes() {
    int in[2];
    int out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    return {CRefPtr_T<PeerStream>(new PeerStream(UniqueFd(in[0]), UniqueFd(out[1]))), UniqueFd(in[1]),
            UniqueFd(out[0])};
}

// The parameter says whether the stream uses pipes.
class Streams : public ::testing::TestWithParam<bool> {
protected:
    // As in the program.
    void SetUp() override { std::signal(SIGPIPE, SIG_IGN); }
    int Read(size_t size, std::string& bytes) {
        bytes.assign(size, 0);
        unsigned long done = 0;
        const int result = ends.stream->Read(bytes.data(), size, &done);
        bytes.resize(done);
        return result;
    }
    int Write(const std::string& bytes) {
        unsigned long done = 0;
        const int result = ends.stream->Write(bytes.data(), bytes.size(), &done);
        EXPECT_EQ(done, result == 0 ? bytes.size() : 0);
        return result;
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
    // A write that blocks because nobody reads. It has begun once a byte has arrived.
    std::future<int> StartStuckWrite() {
        auto result = std::async(std::launch::async, [this] { return Write(std::string(16 << 20, 'x')); });
        char byte = 0;
        EXPECT_EQ(read(ends.From(), &byte, 1), 1);
        return result;
    }

    Ends ends = GetParam() ? OverPipes() : OverSocket();
    std::string got;
};

TEST_P(Streams, BytesPassInBothDirections) {
    ASSERT_EQ(write(ends.to_stream.Get(), "request", 7), 7);
    EXPECT_EQ(Read(100, got), 0);
    EXPECT_EQ(got, "request");
    EXPECT_EQ(Write("answer"), 0);
    EXPECT_EQ(ReadPeer(6), "answer");
}

TEST_P(Streams, AReadReturnsAtMostTheSizeAskedFor) {
    ASSERT_EQ(write(ends.to_stream.Get(), "request", 7), 7);
    EXPECT_EQ(Read(3, got), 0);
    EXPECT_EQ(got, "req");
    EXPECT_EQ(Read(100, got), 0);
    EXPECT_EQ(got, "uest");
}

TEST_P(Streams, AReadWaitsForThePeer) {
    auto result = std::async(std::launch::async, [this] { return Read(8, got); });
    ASSERT_EQ(write(ends.to_stream.Get(), "late", 4), 4);
    EXPECT_EQ(result.get(), 0);
    EXPECT_EQ(got, "late");
}

TEST_P(Streams, APeerThatClosedIsAFailureAndNotASuccessOfNoBytes) {
    ends.to_stream.Reset();
    EXPECT_NE(Read(8, got), 0);
    EXPECT_TRUE(ends.stream->IsHungUp());
}

TEST_P(Streams, AConnectedStreamIsNotHungUp) {
    EXPECT_FALSE(ends.stream->IsHungUp());
}

TEST_P(Streams, AWriteLargerThanTheChannelsBufferArrivesComplete) {
    std::string sent(3 << 20, 0);
    for (size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<char>(i * 2654435761U >> 24);
    }
    auto result = std::async(std::launch::async, [&] { return Write(sent); });
    EXPECT_TRUE(ReadPeer(sent.size()) == sent);
    EXPECT_EQ(result.get(), 0);
}

TEST_P(Streams, TheBytesOfOneWriteStayTogether) {
    constexpr size_t kSize = 1 << 20;
    constexpr int kWrites = 4;
    std::vector<std::future<int>> writers;
    for (const char letter : {'a', 'b'}) {
        writers.push_back(std::async(std::launch::async, [this, letter] {
            int failures = 0;
            for (int i = 0; i < kWrites; ++i) {
                failures += Write(std::string(kSize, letter)) != 0 ? 1 : 0;
            }
            return failures;
        }));
    }
    for (size_t i = 0; i < writers.size() * kWrites; ++i) {
        const std::string piece = ReadPeer(kSize);
        EXPECT_TRUE(piece == std::string(kSize, piece[0]));
    }
    for (auto& writer : writers) {
        EXPECT_EQ(writer.get(), 0);
    }
}

TEST_P(Streams, EndInterruptsAReadThatWaits) {
    auto result = std::async(std::launch::async, [this] { return Read(8, got); });
    ends.stream->End();
    EXPECT_NE(result.get(), 0);
}

TEST_P(Streams, EndInterruptsAWriteThatIsStuck) {
    auto result = StartStuckWrite();
    ends.stream->End();
    EXPECT_NE(result.get(), 0);
}

TEST_P(Streams, AfterEndNothingIsReadOrWritten) {
    ASSERT_EQ(write(ends.to_stream.Get(), "request", 7), 7);
    ends.stream->End();
    EXPECT_NE(Read(8, got), 0);
    EXPECT_NE(Write("answer"), 0);
}

TEST_P(Streams, AWriteThatFailsEndsReadingToo) {
    ends.from_stream.Reset();
    if (ends.From() == ends.to_stream.Get()) {
        shutdown(ends.From(), SHUT_RD);
    }
    auto result = std::async(std::launch::async, [this] { return Read(8, got); });
    EXPECT_NE(Write("answer"), 0);
    EXPECT_NE(result.get(), 0);
}

TEST_P(Streams, APeerThatLeavesInterruptsAWriteThatIsStuck) {
    auto result = StartStuckWrite();
    ends.to_stream.Reset();
    ends.from_stream.Reset();
    EXPECT_NE(result.get(), 0);
}

INSTANTIATE_TEST_SUITE_P(Host, Streams, ::testing::Bool(),
                         [](const auto& one) { return one.param ? "OverPipes" : "OverASocket"; });

}  // namespace
}  // namespace zumod::host
