// zu-camera-peer at a terminal that is stopped and not read: it must serve its session and end on a signal.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <csignal>
#include <cstdlib>

#include "tests/e2e/peer_process.h"
#include "tests/support/wire/encoded_stream.h"

namespace zumod::testing {
namespace {

class PeerTerminal : public PeerProcess {
protected:
    PeerTerminal() {
        EXPECT_EQ(grantpt(m_master.Get()), 0);
        EXPECT_EQ(unlockpt(m_master.Get()), 0);
        m_name = ptsname(m_master.Get());  // NOLINT(concurrency-mt-unsafe): one thread
        m_terminal.Reset(open(m_name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        EXPECT_TRUE(m_terminal);
    }

    // Connected to `host`, with standard output and standard error on the terminal.
    void StartAtTerminal(std::vector<std::string> words) {
        words.insert(words.begin(), {ZU_PEER_FILE, "--socket", socket});
        peer = std::make_unique<ChildProcess>(std::move(words), m_name, -1, m_terminal.Get());
        host.Accept();
    }

    // As ^S does.
    void Stop() { EXPECT_EQ(tcflow(m_terminal.Get(), TCOOFF), 0); }

    // Fills the terminal until it takes no byte.
    void Fill() {
        const UniqueFd writer(open(m_name.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        while (write(writer.Get(), "x", 1) == 1) {
        }
        EXPECT_EQ(errno, EAGAIN);
    }

    // What the terminal has shown so far; empty before the first text.
    std::string Shown() {
        pollfd wait{m_master.Get(), POLLIN, 0};
        char text[4096];
        while (poll(&wait, 1, 0) == 1) {
            const ssize_t count = read(m_master.Get(), text, sizeof text);
            if (count <= 0) {
                break;
            }
            m_shown.append(text, static_cast<size_t>(count));
        }
        return m_shown;
    }
    void WaitUntilShown(const std::string& text) {
        EXPECT_TRUE(WaitUntil([&] { return Shown().find(text) != std::string::npos; })) << m_shown;
    }

    // Standard error is the terminal, so it cannot be read as a file.
    void ExpectStatus(int status) {
        ASSERT_TRUE(WaitUntil([&] { return peer->HasEnded(); })) << "does not end";
        EXPECT_EQ(peer->Wait(), status);
    }

    // Sends frames at the rate of a camera; the peer must take all of them. They take longer than a line of
    // figures or of progress.
    void ExpectFramesTaken() {
        for (uint32_t i = 0; i < 80; ++i) {
            ASSERT_TRUE(host.Send(FrameBytes(0, m_stream.Next(m_counter++, 0))));
            poll(nullptr, 0, 15);
        }
        EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); })) << "the session is blocked";
    }

private:
    const UniqueFd m_master{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    std::string m_name;
    UniqueFd m_terminal;
    std::string m_shown;
    EncodedStream m_stream{640, 480};
    uint32_t m_counter = 0;
};

TEST_F(PeerTerminal, AStoppedTerminalDelaysNeitherFiguresNorASignal) {
    StartAtTerminal({"stats", "0"});
    AnswerOpen();
    ExpectFramesTaken();
    WaitUntilShown("camera 0 (Front) 640x480: ");
    Stop();
    Fill();
    ExpectFramesTaken();
    peer->Signal(SIGINT);
    AnswerClose();
    ExpectStatus(0);
}

TEST_F(PeerTerminal, AStoppedTerminalDelaysNeitherARecordingNorASignal) {
    StartAtTerminal({"record", "0", work / "film.mkv"});
    AnswerOpen();
    ExpectFramesTaken();
    WaitUntilShown("film.mkv: ");
    Stop();
    Fill();
    ExpectFramesTaken();
    peer->Signal(SIGTERM);
    AnswerClose();
    ExpectStatus(0);
    EXPECT_EQ(Files(), std::vector<std::string>{"film.mkv"});
}

TEST_F(PeerTerminal, AnErrorDoesNotWaitForAStoppedTerminal) {
    Stop();
    Fill();
    StartAtTerminal({"version"});
    host.Expect(kVersionRequestBytes);
    host.Close();
    ExpectStatus(1);
}

TEST_F(PeerTerminal, AnAnswerWaitsForAStoppedTerminalUntilASignal) {
    Stop();
    Fill();
    StartAtTerminal({"version"});
    host.Expect(kVersionRequestBytes);
    EXPECT_TRUE(host.Send(kVersionReplyBytes));
    EXPECT_TRUE(WaitUntil([&] { return host.AllTaken(); }));
    EXPECT_FALSE(peer->HasEnded()) << "the answer is lost";
    peer->Signal(SIGINT);
    ExpectStatus(1);
}

}  // namespace
}  // namespace zumod::testing
