// Which cameras the reference host lends, and what it says about the others.
#include <csignal>
#include <fstream>

#include "common/sandbox.h"
#include "tests/e2e/host_process.h"
#include "tests/support/process/file_content.h"

namespace zumod::testing {
namespace {

const Bytes kFront = CameraBytes(0, "Front", {{640, 480}});
const Bytes kDesk = CameraBytes(1, "Desk", {{640, 480}});
const Bytes kDoor = CameraBytes(2, "Door", {{640, 480}});

class HostLending : public HostProcess {
protected:
    HostLending()
        : HostProcess({"card=Front,bus=usb-1,formats=NV12,sizes=640x480",
                       "card=Desk,bus=usb-2,formats=NV12,sizes=640x480",
                       "card=Door,bus=usb-3,formats=NV12,sizes=640x480"}) {}

    static void ExpectList(const PeerClient& peer, const std::vector<Bytes>& listed) {
        EXPECT_TRUE(peer.Send(kGetListBytes));
        const Bytes expected = ListBytes(listed);
        EXPECT_EQ(peer.ReceiveBytes(expected.size()), expected);
    }
    static void ExpectRefused(const PeerClient& peer, uint32_t camera, const std::string& notice) {
        EXPECT_TRUE(peer.Send(OpenBytes(camera)));
        const Bytes expected = NoticeBytes(notice) + StateBytes(1, camera);
        EXPECT_EQ(peer.ReceiveBytes(expected.size()), expected);
    }
};

TEST_F(HostLending, OnlyAllowedCamerasAreListedAndOpen) {
    const auto host = Start({"--allow", "D*", "--deny", "usb-3"});
    const PeerClient peer = Connect();
    // Also before the first list.
    ExpectRefused(peer, 0, "this host lends no camera 0");
    ExpectList(peer, {kDesk});
    ExpectRefused(peer, 2, "this host lends no camera 2");
    ExpectRefused(peer, 7, "this host lends no camera 7");
    EXPECT_TRUE(peer.Send(OpenBytes(1)));
    const auto opened = peer.ReceiveType(5);
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(opened->body, (Bytes{2, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_TRUE(peer.ReceiveType(7).has_value());
    EXPECT_TRUE(host->Says("[host] peer 1 may not open camera 2: this host lends no camera 2"));
}

TEST_F(HostLending, ANumberThatMeansAnotherCameraNowDoesNotOpenIt) {
    const auto host = Start({"--deny", "Desk"});
    const PeerClient peer = Connect();
    ExpectList(peer, {kFront, kDoor});
    cameras.At(0).Inject(vcam::ParseFault("unplug").value());
    ExpectRefused(peer, 0, "this host lends no camera 0");
    EXPECT_FALSE(cameras.At(1).Status().streaming);
}

TEST_F(HostLending, AHostThatOnlyListsOpensNothing) {
    const auto host = Start({"--list-only"});
    const PeerClient peer = Connect();
    ExpectList(peer, {kFront, kDesk, kDoor});
    ExpectRefused(peer, 0, "this host lists its cameras and opens none");
    ExpectServed(peer);
    EXPECT_FALSE(cameras.At(0).Status().streaming);
}

TEST_F(HostLending, AHostThatOnlyListsHidesTheControlsOfItsCameras) {
    const auto host = Start({"--list-only"});
    const PeerClient peer = Connect();
    EXPECT_TRUE(peer.Send(MessageBytes(129, Number32(0))));
    const Bytes expected = MessageBytes(130, Number32(0) + Number32(1));
    EXPECT_EQ(peer.ReceiveBytes(expected.size()), expected);
}

// A shell does not run with the library of a sanitizer preloaded.
#define SKIP_WITHOUT_SHELL()                                                                            \
    if (kIsSanitized) {                                                                                 \
        GTEST_SKIP() << "the commands run by a shell, which does not start with a sanitizer's library"; \
    }

TEST_F(HostLending, TheOwnerIsAskedBeforeEachOpen) {
    SKIP_WITHOUT_SHELL();
    const auto host =
        Start({"--ask", "test \"$ZU_CAMERA_EVENT $ZU_CAMERA_NAME $ZU_CAMERA_WIDTH\" = 'ask Desk 640'"});
    const PeerClient peer = Connect();
    ExpectRefused(peer, 0, "the owner of this host has not agreed");
    EXPECT_TRUE(peer.Send(OpenBytes(1)));
    const auto opened = peer.ReceiveType(5);
    ASSERT_TRUE(opened.has_value());
    EXPECT_EQ(opened->body, (Bytes{2, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_TRUE(host->Says("[session] peer 1 is refused: --ask: the command ended with status 1"));
    EXPECT_TRUE(host->Says("[session] peer 1 has opened camera 1 (Desk): 640x480, 30 frames per second"));
}

TEST_F(HostLending, OtherPeersAreServedWhileTheOwnerIsAsked) {
    SKIP_WITHOUT_SHELL();
    const auto host = Start({"--ask", "until test -e '" + (work / "go") + "'; do sleep 0.05; done"});
    const PeerClient first = Connect();
    EXPECT_TRUE(first.Send(OpenBytes(0)));
    EXPECT_TRUE(host->Says("[session] peer 1 asks for camera 0 (Front)"));
    ExpectServed(Connect());
    std::ofstream(work / "go") << "now";
    ExpectPictures(first);
}

TEST_F(HostLending, APeerThatLeavesEndsItsQuestion) {
    SKIP_WITHOUT_SHELL();
    const auto host = Start({"--ask", "until test -e '" + (work / "go") + "'; do sleep 0.05; done"});
    {
        const PeerClient first = Connect();
        EXPECT_TRUE(first.Send(OpenBytes(0)));
        EXPECT_TRUE(host->Says("[session] peer 1 asks for camera 0 (Front)"));
    }
    EXPECT_TRUE(host->Says("[host] peer 1 has left after "));
    ExpectRefused(Connect(), 0, "the owner of this host has not agreed less than 10 seconds ago");
}

TEST_F(HostLending, AfterANoNobodyIsAskedAboutThatCameraFor10Seconds) {
    SKIP_WITHOUT_SHELL();
    const auto host = Start({"--ask", "echo $ZU_CAMERA_NAME >>'" + (work / "asked") + "'; false"});
    ExpectRefused(Connect(), 0, "the owner of this host has not agreed");
    const PeerClient peer = Connect();
    ExpectRefused(peer, 0, "the owner of this host has not agreed less than 10 seconds ago");
    ExpectRefused(peer, 1, "the owner of this host has not agreed");
    EXPECT_EQ(FileContent(work / "asked"), "Front\nDesk\n");
}

TEST_F(HostLending, ACommandThatCannotRunIsTriedAgainAtTheNextOpen) {
    SKIP_WITHOUT_SHELL();
    const auto host = Start({"--ask", "'" + (work / "ask") + "'"});
    const PeerClient peer = Connect();
    ExpectRefused(peer, 0, "this host cannot ask its owner");
    EXPECT_TRUE(host->Says("[session] peer 1 is refused: --ask: the command was not found (status 127)"));
    std::filesystem::create_symlink("/bin/true", work / "ask");
    ExpectPictures(peer);
}

TEST_F(HostLending, AQuestionIsRefusedIfTheHelperProcessDies) {
    SKIP_WITHOUT_SHELL();
    const auto host = Start({"--ask", "kill -KILL $PPID"});
    const PeerClient peer = Connect();
    ExpectRefused(peer, 0, "this host cannot ask its owner");
    EXPECT_TRUE(host->Says("error   [host] the helper process is gone: no command runs any more"));
    ExpectRefused(peer, 1, "this host cannot ask its owner");
    ExpectServed(peer);
}

TEST_F(HostLending, HooksRunWhenACameraIsOpenedAndClosedAndWhenTheHostEnds) {
    SKIP_WITHOUT_SHELL();
    const std::string print =
        "echo \"$ZU_CAMERA_EVENT $ZU_CAMERA_ID $ZU_CAMERA_NAME\" >>'" + (work / "hooks") + "'";
    const auto host = Start({"--on-open", print, "--on-close", print});
    const auto has_printed = [this](const std::string& text) {
        return WaitUntil([&] { return FileContent(work / "hooks") == text; });
    };
    const PeerClient peer = Connect();
    ExpectPictures(peer);
    EXPECT_TRUE(has_printed("open 0 Front\n")) << FileContent(work / "hooks");
    EXPECT_TRUE(peer.Send(CloseBytes(0)));
    EXPECT_TRUE(peer.ReceiveType(5).has_value());
    EXPECT_TRUE(has_printed("open 0 Front\nclose 0 Front\n")) << FileContent(work / "hooks");
    ExpectPictures(peer);
    EXPECT_TRUE(has_printed("open 0 Front\nclose 0 Front\nopen 0 Front\n")) << FileContent(work / "hooks");
    host->Signal(SIGTERM);
    EXPECT_EQ(host->Wait(), 0);
    EXPECT_TRUE(has_printed("open 0 Front\nclose 0 Front\nopen 0 Front\nclose 0 Front\n"))
        << FileContent(work / "hooks");
}

TEST_F(HostLending, TheLogSaysWhatEachPeerDid) {
    const auto host = Start();
    {
        const PeerClient peer = Connect();
        ExpectPictures(peer);
        EXPECT_TRUE(peer.Send(CloseBytes(0)));
        EXPECT_TRUE(host->Says("[host] peer 1 has connected: process " + std::to_string(getpid()) + "\n"));
        EXPECT_TRUE(
            host->Says("[session] peer 1 has opened camera 0 (Front): 640x480, 30 frames per second\n"));
        EXPECT_TRUE(host->Says("[session] peer 1 has closed camera 0 (Front) after "));
        // The sandbox hides the command from the host; the helper process sees it.
        const std::string command = FileContent("/proc/self/cmdline").substr(0, 20);
        EXPECT_TRUE(host->Says("[session] peer 1 is process " + std::to_string(getpid()) + ": " + command));
    }
    EXPECT_TRUE(host->Says("[host] peer 1 has left after "));
    EXPECT_TRUE(host->Says(" bytes (closed)\n"));
    // Neither of the camera nor of all cameras.
    EXPECT_EQ(host->Errors().find(": 0 frames"), std::string::npos) << host->Errors();
}

class HostOfUnusableCameras : public HostProcess {
protected:
    HostOfUnusableCameras()
        : HostProcess({"card=Old,formats=MJPG,sizes=640x480",
                       "card=Busy,formats=NV12,sizes=640x480,fault=open-busy/0"}) {}
};

TEST_F(HostOfUnusableCameras, NamesThemInItsLogAndBeforeEachList) {
    const auto host = Start({"--log-level", "warning"});
    const std::string busy = "/dev/video1 cannot be opened: Device or resource busy";
    const std::string old = "/dev/video0 (Old) cannot be used: it delivers only MJPG";
    EXPECT_TRUE(host->Says("warning [host] " + busy));
    EXPECT_TRUE(host->Says("warning [host] " + old));
    const PeerClient peer = Connect();
    const Bytes expected =
        InformationBytes(busy) + InformationBytes(old) + ListBytes({CameraBytes(0, "Old", {{640, 480}})});
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(peer.Send(kGetListBytes));
        EXPECT_EQ(peer.ReceiveBytes(expected.size()), expected);
    }
}

TEST_F(HostOfUnusableCameras, DoesNotNameACameraThatIsNotLent) {
    const auto host = Start({"--deny", "Old", "--log-level", "warning"});
    const PeerClient peer = Connect();
    EXPECT_TRUE(peer.Send(kGetListBytes));
    const Bytes expected =
        InformationBytes("/dev/video1 cannot be opened: Device or resource busy") + kEmptyListBytes;
    EXPECT_EQ(peer.ReceiveBytes(expected.size()), expected);
    // The lines about both would come together.
    EXPECT_TRUE(host->Says("warning [host] /dev/video1 cannot be opened: Device or resource busy"));
    EXPECT_EQ(host->Errors().find("Old"), std::string::npos) << host->Errors();
}

}  // namespace
}  // namespace zumod::testing
