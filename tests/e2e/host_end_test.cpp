// How the reference host ends: on a signal, in any state of its peer, and when it is killed.
#include <poll.h>
#include <sys/socket.h>

#include <random>

#include "tests/e2e/host_process.h"

namespace zumod::testing {
namespace {

class HostEnd : public HostProcess {
protected:
    void ExpectEnd(ChildProcess& host, int signal) const {
        host.Signal(signal);
        EXPECT_EQ(host.Wait(), 0) << host.Errors();
        EXPECT_FALSE(std::filesystem::exists(socket));
    }
    // A host that was not killed has closed its camera and destroyed the plugin before it ended.
    static void ExpectOrderlySession(const ChildProcess& host) {
        const std::string errors = host.Errors();
        const size_t returned = errors.find("[cameraclient] Run return");
        const size_t exit = errors.find("[cameraclient] ExitInstance");
        const size_t destroyed = errors.rfind("[cameraclient] destroy");
        EXPECT_TRUE(returned < exit && exit < destroyed && destroyed != std::string::npos) << errors;
    }
};

// Sends requests until both directions are full: the host blocks in a write and does not read.
void FillBothWays(const PeerClient& peer) {
    constexpr int kFullForMilliseconds = 300;
    for (;;) {
        pollfd watched{peer.Descriptor(), POLLOUT, 0};
        if (poll(&watched, 1, kFullForMilliseconds) == 0) {
            return;
        }
        const auto& request = kGetListBytes;
        if (send(peer.Descriptor(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            ASSERT_EQ(errno, EAGAIN);
        }
    }
}

TEST_F(HostEnd, ASignalEndsAHostWithoutAPeer) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ExpectEnd(*Start(), signal);
    }
}

TEST_F(HostEnd, ASignalEndsAHostWhosePeerSendsNothing) {
    const auto host = Start();
    const PeerClient peer = Connect();
    ExpectServed(peer);
    ExpectEnd(*host, SIGINT);
    EXPECT_TRUE(peer.IsClosed());
    EXPECT_NE(host->Errors().find(": 0 frames, 0 bytes (the host ends)\n"), std::string::npos)
        << host->Errors();
    ExpectOrderlySession(*host);
}

TEST_F(HostEnd, ASignalEndsAHostWhileACameraStreams) {
    const auto host = Start();
    const PeerClient peer = Connect();
    ExpectPictures(peer);
    ExpectEnd(*host, SIGTERM);
    ExpectOrderlySession(*host);
    const auto next = Start();
    ExpectPictures(Connect());
}

TEST_F(HostEnd, ASignalEndsAHostWhosePeerIsStuck) {
    const auto host = Start();
    const PeerClient peer = Connect();
    ExpectPictures(peer);
    FillBothWays(peer);
    ExpectEnd(*host, SIGTERM);
    ExpectOrderlySession(*host);
}

TEST_F(HostEnd, ASignalEndsAHostWhosePipeIsStuck) {
    int to_host[2];
    int from_host[2];
    ASSERT_EQ(pipe2(to_host, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(from_host, O_CLOEXEC), 0);
    const auto host = StartWith({"--stdio", "--log-level", "info"}, to_host[0], from_host[1]);
    close(to_host[0]);
    close(from_host[1]);
    const PeerClient peer{UniqueFd(from_host[0]), UniqueFd(to_host[1])};
    ExpectPictures(peer);
    // More than a pipe holds.
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(peer.Send(kGetListBytes));
    }
    host->Signal(SIGTERM);
    EXPECT_EQ(host->Wait(), 0);
    ExpectOrderlySession(*host);
}

TEST_F(HostEnd, ASignalEndsAHostWhoseTerminalNobodyReads) {
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    char screen[64];
    ASSERT_TRUE(terminal && grantpt(terminal.Get()) == 0 && unlockpt(terminal.Get()) == 0);
    ASSERT_EQ(ptsname_r(terminal.Get(), screen, sizeof screen), 0);
    const UniqueFd program(open(screen, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    while (write(program.Get(), "another program\n", 16) > 0) {
    }
    ChildProcess host({ZU_HOST_FILE, "--listen", socket}, screen);
    const PeerClient peer = Connect();
    ExpectPictures(peer);
    host.Signal(SIGTERM);
    const bool ended = WaitUntil([&] { return host.HasEnded(); });
    ASSERT_TRUE(ended);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(socket));
}

// It starts and serves or refuses its peer, or it says what it lacks.
TEST_F(HostEnd, ASignalEndsAHostThatHasFewDescriptors) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs descriptors, too";
#endif
    int listening = 0;
    for (int limit = 5; limit <= 14; ++limit) {
        SCOPED_TRACE(limit);
        // A shell does not work with a sanitizer's preloaded library.
        ChildProcess host(
            {"/usr/bin/env", "-u", "LD_PRELOAD", "/bin/sh", "-c",
             "ulimit -n " + std::to_string(limit) + "; exec " ZU_HOST_FILE " --listen " + socket},
            work / "errors");
        if (!host.Says("zu-camera-host: listening on ")) {
            EXPECT_EQ(host.Wait(), 1);
            EXPECT_NE(host.Errors().find("Too many open files"), std::string::npos) << host.Errors();
            continue;
        }
        ++listening;
        const PeerClient peer = Connect();
        EXPECT_TRUE(host.Says("[host] "));  // connected, refused or not accepted
        ExpectEnd(host, SIGTERM);
    }
    EXPECT_GT(listening, 0);
}

TEST_F(HostEnd, AHostThatIsKilledAtAnyMomentDoesNotPreventTheNext) {
    std::mt19937 random(11);
    for (int i = 0; i < ZU_KILLED_HOSTS; ++i) {
        const auto host = StartWith({"--listen", socket, "--log-level", "error"});
        const unsigned moment = random() % 4;
        if (moment > 0) {
            // The socket of the previous host may still exist for a moment; it refuses connections.
            const PeerClient peer = Connect();
            EXPECT_TRUE(peer.Send(kVersionRequestBytes + OpenBytes(0)));
            if (moment > 1) {
                EXPECT_TRUE(peer.Skip(random() % (moment == 2 ? 28 : 20'000)));
            }
        }
        host->Signal(SIGKILL);
        EXPECT_EQ(host->Wait(), 128 + SIGKILL);
    }
    const auto host = Start();
    ExpectPictures(Connect());
    ExpectEnd(*host, SIGTERM);
}

}  // namespace
}  // namespace zumod::testing
