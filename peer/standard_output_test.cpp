#include "peer/standard_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "peer/frame_sink.h"
#include "tests/support/process/child_process.h"
#include "tests/support/process/work_directory.h"
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
    int Reader() const { return m_reader.Get(); }
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
    PeerOptions options;
    options.container = "h264";
    const auto sink = MakeFrameSink("-", options, Output()).value();
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
    const PeerOptions options;
    const auto sink = MakeFrameSink("-", options, Output()).value();
    const Frame frame{0, stream.Next(0, 0), {}};
    CloseReader();
    EXPECT_EQ(sink->Add(frame), FrameSink::Result::kNotNow);
    ASSERT_TRUE(Serve());
    EXPECT_EQ(sink->Add(frame).error(), OutputClosed());
}

// What a player that reads a pipe finds after three frames.
class StandardOutputContainer : public StandardOutputTest,
                                public ::testing::WithParamInterface<const char*> {};

TEST_P(StandardOutputContainer, ContainsEachFrameWhenItArrives) {
    testing::EncodedStream stream(320, 240);
    PeerOptions options;
    options.container = GetParam();
    const auto sink = MakeFrameSink("-", options, Output()).value();
    const testing::WorkDirectory work;
    const std::string path = work / "piped";
    std::ofstream piped(path, std::ios::binary);
    for (uint32_t i = 0; i < 3; ++i) {
        const Frame frame{0, stream.Next(i, 0), Clock::time_point(std::chrono::milliseconds(1000 + 40 * i))};
        while (sink->Add(frame) == FrameSink::Result::kNotNow) {
            ASSERT_TRUE(Serve());
        }
        const Bytes bytes = Read(65536);
        piped.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        piped.flush();
        const std::string command =
            "ffprobe -v quiet -count_frames -show_entries stream=nb_read_frames -of csv=p=0 - <'" + path +
            "'";
        const std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), &pclose);
        unsigned frames = 0;
        EXPECT_EQ(std::fscanf(out.get(), "%u", &frames), 1);
        EXPECT_EQ(frames, i + 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Containers, StandardOutputContainer, ::testing::Values("mkv", "ts", "h264"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(StandardOutputTest, OfARecordingShowsAPlayerItsFirstPictureSoon) {
    testing::EncodedStream stream(320, 240);
    const PeerOptions options;
    const auto sink = MakeFrameSink("-", options, Output()).value();
    const testing::WorkDirectory work;
    testing::ChildProcess player(
        {"/usr/bin/env", "ffmpeg", "-v", "error", "-i", "-", "-frames:v", "1", "-f", "null", "-"},
        work / "errors", Reader());
    for (uint32_t i = 0; i < 10; ++i) {
        const Frame frame{0, stream.Next(i, 0), Clock::time_point(std::chrono::milliseconds(1000 + 40 * i))};
        while (sink->Add(frame) == FrameSink::Result::kNotNow) {
            ASSERT_TRUE(Serve());
        }
    }
    // It does not wait for more.
    EXPECT_EQ(player.Wait(), 0);
    EXPECT_EQ(player.Errors(), "");
}

TEST(StandardOutput, OfARecordingIsNotATerminal) {
    const UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(master.Get()), 0);
    ASSERT_EQ(unlockpt(master.Get()), 0);
    const UniqueFd terminal(open(ptsname(master.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    Waiter waiter;
    StandardOutput output(waiter, terminal.Get());
    const PeerOptions options;
    const auto sink = MakeFrameSink("-", options, output);
    ASSERT_FALSE(sink);
    EXPECT_EQ(sink.error().text,
              "standard output is a terminal; use a file, or a program as in \"| ffplay -\" (see --help)");
    EXPECT_EQ(sink.error().status, 2);
}

}  // namespace
}  // namespace zumod::peer
