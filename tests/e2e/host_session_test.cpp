// What peers receive from the reference host, over sockets and pipes.
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <chrono>
#include <random>
#include <sstream>
#include <thread>

#include "tests/e2e/host_process.h"

namespace zumod::testing {
namespace {

using HostSession = HostProcess;

TEST_F(HostSession, APeerAsksListsOpensReceivesAndCloses) {
    const auto host = Start();
    const PeerClient peer = Connect();
    ExpectServed(peer);
    EXPECT_TRUE(peer.Send(kGetListBytes));
    const auto list = peer.Receive();
    ASSERT_TRUE(list.has_value());
    EXPECT_EQ(list->type, 2);
    ASSERT_EQ(list->body.size(), 4U + 1304 + 8);
    EXPECT_EQ((Bytes{list->body.begin() + 10, list->body.begin() + 16}), (Bytes{'F', 'r', 'o', 'n', 't', 0}));
    ExpectPictures(peer, 10);
    EXPECT_TRUE(peer.Send(CloseBytes(0)));
    const auto closed = peer.ReceiveType(5);
    ASSERT_TRUE(closed.has_value());
    EXPECT_EQ(closed->body, (Bytes{4, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(HostSession, TheNextPeerCanOpenACameraThatTheLastOneLeftOpen) {
    const auto host = Start();
    { ExpectPictures(Connect()); }
    ExpectPictures(Connect());
}

TEST_F(HostSession, APeerIsServedWhileThePluginOfTheLastOneEnds) {
    const auto host = Start();
    // Two plugins existed at once if a second one was created before one was destroyed.
    const auto two_plugins_existed = [&] {
        { ExpectServed(Connect()); }
        ExpectServed(Connect());
        std::istringstream log(host->Errors());
        int plugins = 0;
        for (std::string line; std::getline(log, line);) {
            plugins += line.ends_with("[cameraclient] create") ? 1 : 0;
            plugins -= line.ends_with("[cameraclient] destroy") ? 1 : 0;
            if (plugins == 2) {
                return true;
            }
        }
        return false;
    };
    // On a busy machine the first one may have ended already.
    EXPECT_TRUE(WaitUntil(two_plugins_existed)) << host->Errors();
}

TEST_F(HostSession, AProbeThatConnectsAndClosesDisturbsNoPeer) {
    const auto host = Start();
    { Connect(); }
    ExpectServed(Connect());
}

TEST_F(HostSession, APeerIsAcceptedOnceTheHostHasADescriptorForIt) {
    const auto host = Start();
    // Enough for the descriptors that are open and for poll(), and not one more.
    rlimit before{};
    ASSERT_EQ(prlimit(host->Pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit full{4, before.rlim_max};
    ASSERT_EQ(prlimit(host->Pid(), RLIMIT_NOFILE, &full, nullptr), 0);
    const PeerClient peer = Connect();
    EXPECT_TRUE(host->Says("error   [host] no peer can be accepted: Too many open files"));
    ASSERT_EQ(prlimit(host->Pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    ExpectServed(peer);
}

// Waits until the channel is full, so that the host blocks in a write.
void WaitUntilFull(const PeerClient& peer) {
    const auto waiting = [&] {
        int bytes = 0;
        EXPECT_EQ(ioctl(peer.Descriptor(), FIONREAD, &bytes), 0);
        return bytes;
    };
    constexpr std::chrono::milliseconds kQuiet{500};
    for (int before = -1; before != waiting();) {
        before = waiting();
        WaitUntil([&] { return waiting() != before; }, kQuiet);
    }
}

// Only frames fill the channel: no request of the peer is pending.
class HostOfAFastCamera : public HostProcess {
protected:
    HostOfAFastCamera() : HostProcess({"formats=NV12,sizes=640x480,fps=200"}) {}
};

TEST_F(HostOfAFastCamera, IsNotBlockedByAPeerThatStopsSendingAndDoesNotRead) {
    const auto host = Start();
    const PeerClient stuck = Connect();
    Bytes open = OpenBytes(0);
    open[20] = 200;
    EXPECT_TRUE(stuck.Send(open));
    ASSERT_TRUE(stuck.ReceiveType(7).has_value());
    WaitUntilFull(stuck);
    shutdown(stuck.Descriptor(), SHUT_WR);
    EXPECT_TRUE(host->Says("[host] peer 1 has left"));
}

TEST_F(HostSession, PeersThatVanishAtAnyMomentLeaveTheHostReady) {
    const auto host = Start();
    std::mt19937 random(7);
    Bytes script = kVersionRequestBytes;
    script = script + kGetListBytes + OpenBytes(0) + SetFormatBytes(0) + CloseBytes(0) + OpenBytes(0);
    for (int i = 0; i < ZU_VANISHING_PEERS; ++i) {
        const PeerClient peer = Connect();
        const size_t said = random() % (script.size() + 1);
        EXPECT_TRUE(peer.Send(Bytes(script.begin(), script.begin() + static_cast<std::ptrdiff_t>(said))));
        // The host is certain to have answered at least this much.
        const size_t heard = said >= 8 ? random() % (12 + (said >= 16 ? 1324 : 0)) : 0;
        EXPECT_TRUE(peer.Skip(heard));
    }
    ExpectPictures(Connect());
    EXPECT_FALSE(host->HasEnded());
}

TEST_F(HostSession, WithoutACodecItWarnsAndEverythingButVideoWorks) {
    std::filesystem::create_directory(work / "modules");
    std::filesystem::create_symlink(ZU_MODULE_DIR "/zu-client-camera.so",
                                    work / "modules/zu-client-camera.so");
    const auto host = Start({"--modules", work / "modules/"});
    EXPECT_NE(host->Errors().find("warning [host] no video can be sent, because zu-codec.so is missing: " +
                                  (work / "modules/zu-codec.so\n")),
              std::string::npos)
        << host->Errors();
    const PeerClient peer = Connect();
    ExpectServed(peer);
    EXPECT_TRUE(peer.Send(OpenBytes(0)));
    const auto state = peer.Receive();
    ASSERT_TRUE(state.has_value());
    EXPECT_EQ(state->type, 5);
}

TEST_F(HostSession, ItWarnsOfACodecThatDoesNotLoadBeforeAPeerConnects) {
    std::filesystem::create_directory(work / "modules");
    std::filesystem::create_symlink(ZU_MODULE_DIR "/zu-client-camera.so",
                                    work / "modules/zu-client-camera.so");
    std::ofstream(work / "modules/zu-codec.so") << "no library";
    const auto host = Start({"--modules", work / "modules"});
    EXPECT_NE(host->Errors().find("warning [host] no video can be sent, because zu-codec.so does not load: " +
                                  (work / "modules/zu-codec.so: ")),
              std::string::npos)
        << host->Errors();
    ExpectServed(Connect());
}

TEST_F(HostSession, PropertiesReachTheModules) {
    const auto host = Start({"--env", "zu.codec.bitrate=777000"});
    const PeerClient peer = Connect();
    ExpectPictures(peer);
    EXPECT_TRUE(host->Says("[zu-codec] encode 640x480 with libx264, 777000 bits a second"));
}

TEST_F(HostSession, AnotherUserIsRefusedEvenIfTheFileModesAllowAccess) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can connect as somebody else";
    }
    const auto host = Start();
    for (const std::string& place : {work.Path(), work / "private"}) {
        ASSERT_EQ(chmod(place.c_str(), 0755), 0);
    }
    ASSERT_EQ(chmod(socket.c_str(), 0666), 0);
    std::optional<PeerMessage> notice;
    bool closed = false;
    std::thread([&] {
        // The raw call changes the user of this thread only.
        ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);
        const PeerClient peer = Connect();
        notice = peer.Receive();
        closed = peer.IsClosed();
    }).join();
    ASSERT_TRUE(notice.has_value());
    EXPECT_EQ(notice->type, 128);
    EXPECT_EQ(std::string(notice->body.begin(), notice->body.end()),
              "refused: this host serves only its own user");
    EXPECT_TRUE(closed);
    ExpectServed(Connect());
}

TEST_F(HostSession, StandardInputAndOutputMayBeASocket) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const auto host = StartWith({"--stdio"}, ends[0], ends[0]);
    close(ends[0]);
    {
        const PeerClient peer{UniqueFd(ends[1])};
        ExpectServed(peer);
        ExpectPictures(peer);
    }
    EXPECT_EQ(host->Wait(), 0) << host->Errors();
}

TEST_F(HostSession, StandardInputAndOutputMayBePipesThatCarryNothingElse) {
    int to_host[2];
    int from_host[2];
    ASSERT_EQ(pipe2(to_host, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(from_host, O_CLOEXEC), 0);
    const auto host = StartWith({"--stdio", "--log-level", "trace"}, to_host[0], from_host[1]);
    close(to_host[0]);
    close(from_host[1]);
    {
        const PeerClient peer{UniqueFd(from_host[0]), UniqueFd(to_host[1])};
        ExpectServed(peer);
        ExpectPictures(peer);
    }
    EXPECT_EQ(host->Wait(), 0) << host->Errors();
    EXPECT_NE(host->Errors().find("trace   [cameraclient] version req"), std::string::npos);
}

TEST_F(HostSession, OutputOfALibraryDoesNotReachTheChannel) {
    // The loader prints a line on standard output if a file is not a module.
    std::filesystem::create_directory(work / "modules");
    std::ofstream(work / "modules/zu-client-camera.so") << "no module";
    int from_host[2];
    ASSERT_EQ(pipe2(from_host, O_CLOEXEC), 0);
    const auto host = StartWith({"--stdio", "--modules", work / "modules"}, -1, from_host[1]);
    close(from_host[1]);
    EXPECT_EQ(host->Wait(), 1);
    char byte = 0;
    EXPECT_EQ(read(from_host[0], &byte, 1), 0);
    close(from_host[0]);
    EXPECT_NE(host->Errors().find("load " + (work / "modules/zu-client-camera.so") + " err "),
              std::string::npos);
}

}  // namespace
}  // namespace zumod::testing
