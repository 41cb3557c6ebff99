// How zu-camera-peer starts: options, the connection to a host, the output file.
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "tests/e2e/peer_process.h"

namespace zumod::testing {
namespace {

class PeerStart : public PeerProcess {
protected:
    static void Put(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
};

TEST_F(PeerStart, RefusesWrongOptionsWithStatusTwo) {
    StartWith({"--socket", socket, "record", "0", "film.avi"});
    EXPECT_EQ(peer->Wait(), 2);
    EXPECT_NE(peer->Errors().find("ends in .mp4, .mkv or .h264"), std::string::npos);
    StartWith({"list"});
    ExpectEnd(2, "zu-camera-peer: give --socket PATH or --exec COMMAND (see --help)\n");
}

TEST_F(PeerStart, PrintsItsHelpAndItsVersion) {
    StartWith({"--help"});
    ExpectEnd(0, "");
    EXPECT_NE(Printed().find("--exec"), std::string::npos);
    StartWith({"--version"});
    ExpectEnd(0, "");
    EXPECT_EQ(Printed().rfind("zu-camera-peer ", 0), 0U);
}

TEST_F(PeerStart, ReportsThatNobodyListens) {
    const std::string nowhere = work / "nowhere";
    StartWith({"--socket", nowhere, "list"});
    ExpectEnd(1, "zu-camera-peer: no connection to " + nowhere + ": No such file or directory\n");
    const std::string longest(200, 'x');
    StartWith({"--socket", longest, "list"});
    ExpectEnd(1, "zu-camera-peer: the path of the socket is too long: " + longest + "\n");
}

TEST_F(PeerStart, UsesACommandAsTheConnection) {
    // Reads the request and answers it.
    StartWith({"--exec",
               "head -c 8 >/dev/null; printf '\\004\\000\\000\\000\\013\\000\\000\\000\\005\\000\\000\\000'",
               "version"});
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "5\n");
}

TEST_F(PeerStart, ShowsTheCommandsErrorsAndReportsItsStatus) {
    StartWith({"--exec", "echo something is wrong >&2; exit 3", "version"});
    ExpectEnd(1,
              "something is wrong\n"
              "zu-camera-peer: the host closed the connection: the command ended with status 3\n");
}

TEST_F(PeerStart, ReportsThatTheSandboxStoppedTheCommand) {
    for (const char* command : {"kill -SYS $$", "exit 159"}) {
        StartWith({"--exec", command, "version"});
        ExpectEnd(
            1,
            "zu-camera-peer: the host closed the connection: the command was stopped by the sandbox, "
            "which forbids a system call that it made; zu-camera-host --no-sandbox does without; please "
            "report this\n");
    }
}

TEST_F(PeerStart, EndsACommandThatDoesNotExit) {
    // It ignores the end of its input. If the peer left it, it would become a child of this process.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    StartWith({"--exec", "exec sleep 1000", "version", "--timeout", "0.2"});
    ExpectEnd(1, "zu-camera-peer: the host did not answer within 0.2 s: version request\n");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "the command is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST_F(PeerStart, StartsTheCommandWithDefaultSignals) {
    // A signal mask and ignored signals are inherited.
    const std::string status = work / "status";
    StartWith({"--exec", "exec cat /proc/self/status >" + status, "version"});
    EXPECT_EQ(peer->Wait(), 1);
    const std::string text = FileContent(status);
    const auto signals = [&](const std::string& name) {
        return std::stoull(text.substr(text.find(name) + name.size()), nullptr, 16);
    };
    EXPECT_EQ(signals("SigBlk:"), 0U);
    EXPECT_EQ(signals("SigIgn:") >> (SIGPIPE - 1) & 1, 0U);
}

TEST_F(PeerStart, RefusesToReplaceAFileBeforeItSendsARequest) {
    for (const char* command : {"snapshot", "record"}) {
        const std::string path = work / (std::string(command) == "record" ? "film.mp4" : "picture.png");
        Put(path, "precious");
        StartWith({"--socket", socket, command, "0", path});
        ExpectEnd(1, "zu-camera-peer: " + path + " exists (--overwrite replaces it)\n");
        EXPECT_EQ(FileContent(path), "precious");
    }
    EXPECT_EQ(Files().size(), 2U);
}

TEST_F(PeerStart, ReportsADirectoryThatCannotBeWritten) {
    // Permissions do not restrict root, but nobody can create a file there.
    StartWith({"--socket", socket, "snapshot", "0", "/proc/picture.png"});
    EXPECT_EQ(peer->Wait(), 1);
    EXPECT_EQ(peer->Errors().rfind("zu-camera-peer: /proc/picture.png cannot be written: ", 0), 0U);
}

TEST_F(PeerStart, ReportsThatThereIsNoDecoder) {
    StartWith({"--socket", socket, "--modules", work.Path(), "snapshot", "0", work / "picture.png"});
    ExpectEnd(1, "zu-camera-peer: no decoder from zu-codec.so in " + work.Path() +
                     " (see --modules): [zumod] module file is not exist\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerStart, RefusesAnIdThatIsNotListed) {
    Start({"snapshot", "4", work / "picture.png"});
    AnswerList(kOneCamera);
    ExpectEnd(1, "zu-camera-peer: there is no camera 4; the host lists camera 0 (Front)\n");
    Start({"stats", "0"});
    AnswerList(kEmptyListBytes);
    ExpectEnd(1, "zu-camera-peer: there is no camera 0; the host lists none\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerStart, FindsACameraByTheBeginningOfItsName) {
    Start({"close", "fro"});
    AnswerList(kOneCamera);
    host.Expect(CloseBytes(0));
    host.Send(StateBytes(4, 0));
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "camera 0: closed\n");
}

TEST_F(PeerStart, WaitsForAHostThatIsBusy) {
    Start({"list", "--wait", "1000"});
    host.Send(NoticeBytes("busy: another peer is being served"));
    host.Close();
    host.Accept();
    host.Expect(kVersionRequestBytes);
    host.Send(kVersionReplyBytes);
    AnswerList(kEmptyListBytes);
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "The host has no camera.\n");
}

TEST_F(PeerStart, WaitsForAHostThatIsNotUpOnlyAsLongAsItIsTold) {
    const std::string nowhere = work / "nowhere";
    StartWith({"--socket", nowhere, "--wait", "0.2", "list"});
    ExpectEnd(1, "zu-camera-peer: no connection to " + nowhere + ": No such file or directory\n");
}

TEST_F(PeerStart, RefusesASizeThatCannotBeOfferedToPrograms) {
    StartWith({"--socket", work / "nowhere", "camera", "--size", "1366x768"});
    ExpectEnd(
        1,
        "zu-camera-peer: 1366x768 cannot be offered to programs: the width must be a multiple of 8, the "
        "height even, and the size at most 3840x2176 pixels\n");
}

TEST_F(PeerStart, ReportsThatACameraCouldNotBeOpened) {
    Start({"record", "0", work / "film.mkv", "--size", "640x480"});
    AnswerList(kOneCamera);
    host.Expect(OpenBytes(0));
    host.Send(StateBytes(1, 0));
    ExpectEnd(1, "zu-camera-peer: camera 0 (Front) could not be opened\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerStart, TriesSmallerSizesUnlessOneIsGiven) {
    Start({"record", "0", work / "film.mkv"});
    AnswerList(kOneCamera);
    host.Expect(OpenBytes(0));
    host.Send(StateBytes(1, 0));
    host.Expect(OpenBytes(0, 320, 240));
    host.Send(StateBytes(1, 0));
    ExpectEnd(1,
              "zu-camera-peer: camera 0 (Front) could not be opened at 640x480, nor at smaller sizes down to "
              "320x240: another program may use it, or the host may not\n");
    EXPECT_EQ(Files().size(), 0U);
}

TEST_F(PeerStart, TriesNoOtherSizeIfTheHostSaysWhyACameraIsNotOpened) {
    Start({"record", "0", work / "film.mkv"});
    AnswerList(kOneCamera);
    host.Expect(OpenBytes(0));
    host.Send(NoticeBytes("camera 0 is in use by another peer") + StateBytes(1, 0));
    ExpectEnd(1,
              "zu-camera-peer: the host says: camera 0 is in use by another peer\n"
              "zu-camera-peer: camera 0 (Front) could not be opened\n");
}

}  // namespace
}  // namespace zumod::testing
