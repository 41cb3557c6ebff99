// How the reference host starts, and what it prints if it cannot.
#include <sys/socket.h>
#include <sys/stat.h>

#include "tests/e2e/host_process.h"

namespace zumod::testing {
namespace {

class HostStart : public HostProcess {
protected:
    // The host ends with this status, and this is its last line on standard error.
    void ExpectFailure(int status, const std::string& line, std::vector<std::string> words) {
        const auto host = StartWith(std::move(words));
        EXPECT_EQ(host->Wait(), status);
        const std::string errors = host->Errors();
        const std::string end = "zu-camera-host: " + line + "\n";
        EXPECT_TRUE(errors.size() >= end.size() && errors.substr(errors.size() - end.size()) == end)
            << errors;
    }
};

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST_F(HostStart, OnlyTheUserMayAccessTheSocketAndItsDirectory) {
    const auto host = Start();
    EXPECT_EQ(ModeOf(work / "private"), 0700U);
    EXPECT_EQ(ModeOf(socket), 0600U);
}

TEST_F(HostStart, WrongOptionsEndItWithStatus2) {
    ExpectFailure(2, "give --listen or --stdio (see --help)", {});
    ExpectFailure(2, "--log-level: takes error, warning, info or trace, not \"loud\" (see --help)",
                  {"--stdio", "--log-level", "loud"});
}

TEST_F(HostStart, AMissingDirectoryOrModuleIsNamed) {
    ExpectFailure(1, "the module directory is missing: /nonexistent/modules",
                  {"--listen", socket, "--modules", "/nonexistent/modules"});
    ExpectFailure(1, "the camera module is missing: " + (work / "zu-client-camera.so"),
                  {"--listen", socket, "--modules", work.Path()});
    ExpectFailure(1, "the camera module is missing: " + (work / "zu-client-camera.so"),
                  {"--stdio", "--env", "zu.env.modules.dir=" + work.Path()});
    EXPECT_FALSE(std::filesystem::exists(work / "private")) << "nothing was created";
}

TEST_F(HostStart, AFileThatIsNotAModuleIsNamed) {
    std::ofstream(work / "zu-client-camera.so") << "no module";
    ExpectFailure(1, "the camera module does not load (the log says why): " + (work / "zu-client-camera.so"),
                  {"--listen", socket, "--modules", work.Path()});
}

TEST_F(HostStart, ADirectoryThatOthersMayWriteToIsRefused) {
    ASSERT_EQ(chmod(work.Path().c_str(), 0777), 0);
    ExpectFailure(
        1,
        work.Path() +
            ": others may write to the directory; choose one that only you may write to (chmod go-w)",
        {"--listen", work / "socket"});
}

TEST_F(HostStart, TheSocketOfALiveHostIsInUse) {
    const auto host = Start();
    const PeerClient peer = Connect();
    ExpectServed(peer);
    const ChildProcess second({ZU_HOST_FILE, "--listen", socket}, work / "second");
    EXPECT_TRUE(const_cast<ChildProcess&>(second).Wait() == 1);
    EXPECT_NE(second.Errors().find(socket + ": the address is in use, another program listens there\n"),
              std::string::npos)
        << second.Errors();
    ExpectServed(peer);
}

TEST_F(HostStart, ATerminalIsNotAChannel) {
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal);
    const auto host = StartWith({"--stdio"}, terminal.Get(), terminal.Get());
    EXPECT_EQ(host->Wait(), 1);
    EXPECT_EQ(host->Errors(),
              "zu-camera-host: standard input is a terminal; --stdio needs a program at the other end\n");
}

TEST_F(HostStart, APropertyThatTheCodecWouldNotTakeIsNamed) {
    const auto host =
        Start({"--env", "zu.codec.bitrate=fast", "--env", "zu.codec.speed=9", "--env", "mine=x"});
    const std::string errors = host->Errors();
    EXPECT_NE(errors.find("warning [host] zu.codec.bitrate is wrong, "), std::string::npos) << errors;
    EXPECT_NE(errors.find("warning [host] zu.codec.speed is unknown to the reference codec, "),
              std::string::npos);
    EXPECT_EQ(errors.find("mine"), std::string::npos);
}

// Without the preloaded libraries: a shell does not work with a sanitizer's.
std::vector<std::string> InShell(const std::string& command) {
    return {"/usr/bin/env", "-u", "LD_PRELOAD", "/bin/sh", "-c", command};
}

TEST_F(HostStart, AChannelNeedsStandardInputAndOutput) {
    const struct {
        const char* redirection;
        const char* line;
    } cases[] = {{"<&-", "standard input is closed"},
                 {">&-", "standard output is closed"},
                 {"<&- >&-", "standard input is closed"}};
    for (const auto& test : cases) {
        ChildProcess host(InShell(std::string("exec " ZU_HOST_FILE " --stdio ") + test.redirection),
                          work / "errors");
        EXPECT_EQ(host.Wait(), 1) << test.redirection;
        EXPECT_EQ(host.Errors(), std::string("zu-camera-host: ") + test.line + "\n");
    }
}

TEST_F(HostStart, WithoutStandardErrorAPeerIsServedUntilASignal) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const char* const preload = std::getenv("LD_PRELOAD");  // NOLINT(concurrency-mt-unsafe): nobody sets it
    const std::string with_cameras = "exec env LD_PRELOAD=" + std::string(preload == nullptr ? "" : preload);
    ChildProcess host(InShell(with_cameras + " " ZU_HOST_FILE " --stdio 2>&-"), work / "errors", ends[0],
                      ends[0]);
    close(ends[0]);
    const PeerClient peer{UniqueFd(ends[1])};
    ExpectPictures(peer);
    host.Signal(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(peer.IsClosed());
}

}  // namespace
}  // namespace zumod::testing
