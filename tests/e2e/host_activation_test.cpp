// A host whose socket is created by the service manager.
#include <sys/socket.h>

#include "common/unix_socket.h"
#include "tests/e2e/host_process.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod::testing {
namespace {

class HostActivation : public HostProcess {
protected:
    // With this descriptor as its descriptor 3. `variables` are set by the shell that becomes the host.
    std::unique_ptr<ChildProcess> Activate(const UniqueFd& descriptor, const std::string& variables,
                                           const std::string& path = "") {
        // A shell does not work with a sanitizer's preloaded library.
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{
                "/usr/bin/env", "-u", "LD_PRELOAD", "/bin/sh", "-c",
                "export " + variables + "; exec " ZU_HOST_FILE " --listen " + path + " 3<&0 </dev/null"},
            work / "errors", descriptor.Get());
    }
    void ExpectRefused(const UniqueFd& descriptor, const std::string& variables, const std::string& error) {
        const auto host = Activate(descriptor, variables);
        EXPECT_EQ(host->Wait(), 1);
        EXPECT_EQ(host->Errors(), "zu-camera-host: " + error + "\n");
        EXPECT_FALSE(std::filesystem::exists(work / "session"));
    }
    UniqueFd Listening(int type = SOCK_STREAM) const {
        UniqueFd passed(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        EXPECT_EQ(UnixAddress::FromPath(work / "passed")->Bind(passed), 0);
        EXPECT_EQ(listen(passed.Get(), 4), 0);
        return passed;
    }

    const ScopedVariable session{"XDG_RUNTIME_DIR", work / "session"};
};

TEST_F(HostActivation, ServesPeersAtThePassedSocketAndLeavesItsFile) {
    const UniqueFd passed = Listening();
    const auto host = Activate(passed, "LISTEN_PID=$$ LISTEN_FDS=1");
    EXPECT_TRUE(
        host->Says("zu-camera-host: listening on the socket of the service manager, cameras are listed"))
        << host->Errors();
    ExpectServed(PeerClient::ConnectTo(work / "passed"));
    ExpectServed(PeerClient::ConnectTo(work / "passed"));
    host->Signal(SIGTERM);
    EXPECT_EQ(host->Wait(), 0);
    EXPECT_TRUE(std::filesystem::exists(work / "passed"));
    EXPECT_FALSE(std::filesystem::exists(work / "session"));
}

TEST_F(HostActivation, SocketsForAnotherProcessAreIgnored) {
    const auto host = Activate(Listening(), "LISTEN_PID=1 LISTEN_FDS=1");
    EXPECT_TRUE(host->Says("zu-camera-host: listening on " + (work / "session/zu/camera"))) << host->Errors();
    ExpectServed(PeerClient::ConnectTo(work / "session/zu/camera"));
}

TEST_F(HostActivation, APathIsUsedInPlaceOfThePassedSocket) {
    const auto host = Activate(Listening(), "LISTEN_PID=$$ LISTEN_FDS=1", socket);
    EXPECT_TRUE(host->Says("zu-camera-host: listening on " + socket)) << host->Errors();
    ExpectServed(Connect());
}

TEST_F(HostActivation, OnlyOneListeningUnixStreamSocketIsTaken) {
    ExpectRefused(Listening(), "LISTEN_PID=$$ LISTEN_FDS=2",
                  "the service manager must pass one socket (LISTEN_FDS=1)");
    std::filesystem::remove(work / "passed");
    const std::string other =
        "descriptor 3 from the service manager is not a Unix stream socket that listens";
    ExpectRefused(Listening(SOCK_SEQPACKET), "LISTEN_PID=$$ LISTEN_FDS=1", other);
    ExpectRefused(NewUnixSocket(), "LISTEN_PID=$$ LISTEN_FDS=1", other);
    ExpectRefused(UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)), "LISTEN_PID=$$ LISTEN_FDS=1", other);
}

}  // namespace
}  // namespace zumod::testing
