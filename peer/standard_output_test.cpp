#include "peer/standard_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "peer/frame_sink.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

// Standard output is a pipe whose reader is the test.
class StandardOutputTest : public ::testing::Test {
protected:
    StandardOutputTest() {
        std::signal(SIGPIPE, SIG_IGN);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_reader.Reset(ends[0]);
        m_writer.Reset(ends[1]);
        m_output.emplace(m_waiter, m_writer.Get());
    }
    ~StandardOutputTest() override { std::signal(SIGPIPE, SIG_DFL); }

    StandardOutput& Output() { return *m_output; }
    void CloseReader() { m_reader.Reset(); }

    // Serves what is ready now. Returns false if nothing is.
    bool Serve() { return m_waiter.Wait(Clock::time_point()).value(); }

    Bytes Read(size_t size) const {
        Bytes bytes(size);
        bytes.resize(static_cast<size_t>(read(m_reader.Get(), bytes.data(), size)));
        return bytes;
    }

    // Writes as much of the bytes as the pipe takes.
    size_t Fill(const Bytes& bytes) {
        size_t written = 0;
        do {
            written += Output().WriteSome(std::span(bytes).subspan(written)).value();
        } while (Serve());
        return written;
    }

private:
    UniqueFd m_reader;
    UniqueFd m_writer;
    Waiter m_waiter;
    std::optional<StandardOutput> m_output;
};

TEST_F(StandardOutputTest, WritesAPieceAfterEachWait) {
    const Bytes bytes(10000, 7);
    EXPECT_EQ(Output().WriteSome(bytes), 0U) << "not known to be writable";
    ASSERT_TRUE(Serve());
    EXPECT_EQ(Output().WriteSome(bytes), 4096U);
    EXPECT_EQ(Output().WriteSome(bytes), 0U);
    ASSERT_TRUE(Serve());
    EXPECT_EQ(Output().WriteSome(std::span(bytes).first(100)), 100U);
    EXPECT_FALSE(Serve()) << "waits although all was written";
    EXPECT_EQ(Read(10000).size(), 4196U);
}

TEST_F(StandardOutputTest, StopsAtAFullPipeAndGoesOnWhenItIsRead) {
    const Bytes bytes(200000, 7);
    const size_t written = Fill(bytes);
    EXPECT_EQ(written, 65536U);
    EXPECT_EQ(Read(65536).size(), 65536U);
    ASSERT_TRUE(Serve());
    EXPECT_EQ(Output().WriteSome(std::span(bytes).subspan(written)), 4096U);
}

TEST_F(StandardOutputTest, WritesATextToItsEnd) {
    const std::string text(50000, 'x');
    EXPECT_TRUE(Output().Write(text));
    EXPECT_EQ(Read(65536), Bytes(text.begin(), text.end()));
    EXPECT_TRUE(Output().Write(""));
}

TEST_F(StandardOutputTest, EndsQuietlyWhenTheReaderIsGone) {
    CloseReader();
    EXPECT_EQ(Output().Write("text").error(), OutputClosed());
}

TEST_F(StandardOutputTest, OfARecordingTakesAFrameOnceAllOfItIsWritten) {
    testing::EncodedStream stream(320, 240);
    const auto sink = MakeFrameSink("-", {}, Output()).value();
    Frame key{0, stream.Next(0, 0), {}};
    key.bytes.resize(100000);
    const Frame next{0, stream.Next(1, 0), {}};
    EXPECT_EQ(sink->Add(next), FrameSink::Result::kSkipped) << "not a key frame";
    do {
        ASSERT_EQ(sink->Add(key), FrameSink::Result::kNotNow);
    } while (Serve());
    Bytes written = Read(65536);
    EXPECT_EQ(written.size(), 65536U);
    while (sink->Add(key) == FrameSink::Result::kNotNow) {
        ASSERT_TRUE(Serve());
    }
    while (sink->Add(next) == FrameSink::Result::kNotNow) {
        ASSERT_TRUE(Serve());
    }
    const Bytes rest = Read(65536);
    written.insert(written.end(), rest.begin(), rest.end());
    Bytes expected = key.bytes;
    expected.insert(expected.end(), next.bytes.begin(), next.bytes.end());
    EXPECT_EQ(written, expected);
}

TEST_F(StandardOutputTest, OfARecordingReportsThatTheReaderIsGone) {
    testing::EncodedStream stream(320, 240);
    const auto sink = MakeFrameSink("-", {}, Output()).value();
    const Frame frame{0, stream.Next(0, 0), {}};
    CloseReader();
    EXPECT_EQ(sink->Add(frame), FrameSink::Result::kNotNow);
    ASSERT_TRUE(Serve());
    EXPECT_EQ(sink->Add(frame).error(), OutputClosed());
}

}  // namespace
}  // namespace zumod::peer
