// zu-camera-peer and a host's answers: correct, malformed and missing ones.
#include <csignal>

#include "tests/e2e/peer_process.h"

namespace zumod::testing {
namespace {

class PeerAnswers : public PeerProcess {};

TEST_F(PeerAnswers, PrintsTheList) {
    Start({"list"});
    AnswerList(
        ListBytes({CameraBytes(0, "Front", {{640, 480}, {1280, 720}}), CameraBytes(1, "De\x1bsk", {})}));
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(),
              "ID  NAME      SIZES\n"
              "0   Front     640x480 1280x720\n"
              "1   De\\x1bsk  -\n");
}

TEST_F(PeerAnswers, PrintsTheListAsJson) {
    Start({"list", "--json"});
    AnswerList(ListBytes({CameraBytes(0, "Front", {{640, 480}})}));
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(),
              "[{\"id\":0,\"name\":\"Front\",\"display_name\":\"Front\",\"in_use\":false,"
              "\"sizes\":[{\"width\":640,\"height\":480}]}]\n");
}

TEST_F(PeerAnswers, PrintsMoreSizesThanOneByteCanCount) {
    Start({"list"});
    AnswerList(ListBytes({CameraBytes(0, "Many", Sizes(300, {16, 8}))}));
    ExpectEnd(0, "");
    const std::string printed = Printed();
    size_t sizes = 0;
    for (size_t at = 0; (at = printed.find("16x8", at)) != std::string::npos; ++at) {
        ++sizes;
    }
    EXPECT_EQ(sizes, 300U);
}

TEST_F(PeerAnswers, PrintsTheVersion) {
    Start({"version"});
    host.Expect(kVersionRequestBytes);
    host.Send(kVersionReplyBytes);
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "5\n");
}

TEST_F(PeerAnswers, PrintsTheStateThatFollowsAClose) {
    Start({"close", "7"});
    host.Expect(CloseBytes(7));
    host.Send(StateBytes(4, 3) + StateBytes(4, 7));
    ExpectEnd(0, "");
    EXPECT_EQ(Printed(), "camera 7: closed\n");
}

TEST_F(PeerAnswers, SkipsUnknownMessagesAndFramesItDidNotRequest) {
    Start({"version"});
    host.Expect(kVersionRequestBytes);
    host.Send(MessageBytes(200, Bytes(100000, 1)) + FrameBytes(9, {1, 2, 3}) + kVersionReplyBytes);
    ExpectEnd(0, "");
}

TEST_F(PeerAnswers, SaysThatAHostIsTooOldForControls) {
    Start({"controls", "0"});
    AnswerList(ListBytes({CameraBytes(0, "Front", {})}));
    host.Expect(MessageBytes(129, Number32(0)) + kVersionRequestBytes);
    host.Send(kVersionReplyBytes);
    ExpectEnd(1, "zu-camera-peer: the host is too old: it does not offer the controls of its cameras\n");
}

TEST_F(PeerAnswers, SaysThatAControlWasNotChanged) {
    const Bytes brightness =
        Number32(1) + Number32(100) + Number32(0) + Number32(255) + Number32(1) + Number32(128) + Number32(0);
    const Bytes controls = MessageBytes(130, Number32(7) + Number32(0) + brightness) + kVersionReplyBytes;
    const Bytes question = MessageBytes(129, Number32(7)) + kVersionRequestBytes;
    Start({"set", "7", "brightness=200"});
    AnswerList(ListBytes({CameraBytes(7, "Front", {})}));
    host.Expect(question);
    // The controls of another camera are not those that were asked for.
    host.Send(MessageBytes(130, Number32(6) + Number32(0)) + controls);
    host.Expect(MessageBytes(8, Number32(7) + Number32(1) + Number32(200) + Number32(0)) + question);
    host.Send(controls);
    ExpectEnd(1, "zu-camera-peer: the host did not change the brightness of camera 7 (Front); it is 100\n");
}

TEST_F(PeerAnswers, PrintsAHostsNoticeAsAnError) {
    Start({"list"});
    host.Send(NoticeBytes("busy: \x1b[2Janother peer\n"));
    host.Close();
    ExpectEnd(1, "zu-camera-peer: the host says: busy: \\x1b[2Janother peer\\x0a\n");
    EXPECT_EQ(Printed(), "");
}

TEST_F(PeerAnswers, ShowsAHostsNoticeBeforeTheAnswer) {
    Start({"version"});
    host.Send(NoticeBytes("this host restarts at noon") + kVersionReplyBytes);
    ExpectEnd(0, "zu-camera-peer: the host says: this host restarts at noon\n");
    EXPECT_EQ(Printed(), "5\n");
}

TEST_F(PeerAnswers, ShowsAHostsNoticeIfNoAnswerFollows) {
    Start({"version", "--timeout", "1"});
    host.Send(NoticeBytes("not now"));
    ExpectEnd(1,
              "zu-camera-peer: the host says: not now\n"
              "zu-camera-peer: the host did not answer within 1.0 s: version request\n");
}

TEST_F(PeerAnswers, PrintsWhatAHostInformsAboutOnceAndGoesOn) {
    Start({"list"});
    host.Expect(kGetListBytes);
    const Bytes text = InformationBytes("/dev/video0 is closed\x1b");
    EXPECT_TRUE(host.Send(text + text + InformationBytes("two") + kOneCamera));
    ExpectEnd(
        0, "zu-camera-peer: the host says: /dev/video0 is closed\\x1b\nzu-camera-peer: the host says: two\n");
    EXPECT_NE(Printed().find("Front"), std::string::npos);
}

TEST_F(PeerAnswers, PrintsOnlyTheFirst32Informations) {
    Start({"list"});
    host.Expect(kGetListBytes);
    std::string expected;
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(host.Send(InformationBytes(std::to_string(i))));
        expected += i < 32 ? "zu-camera-peer: the host says: " + std::to_string(i) + "\n" : "";
    }
    EXPECT_TRUE(host.Send(kOneCamera));
    ExpectEnd(0, expected);
}

TEST_F(PeerAnswers, ReportsThatTheHostClosedWithoutAnAnswer) {
    Start({"list"});
    host.Expect(kGetListBytes);
    host.Close();
    ExpectEnd(1, "zu-camera-peer: the host closed the connection\n");
}

TEST_F(PeerAnswers, ReportsThatTheHostClosedInTheMiddleOfAnAnswer) {
    Start({"list"});
    host.Expect(kGetListBytes);
    host.Send({4, 0, 0, 0, 2, 0, 0, 0, 0});
    host.Close();
    ExpectEnd(1, "zu-camera-peer: the host closed the connection in the middle of a message\n");
}

TEST_F(PeerAnswers, ReportsThatTheHostDoesNotAnswer) {
    Start({"list", "--timeout", "0.2"});
    host.Expect(kGetListBytes);
    ExpectEnd(1, "zu-camera-peer: the host did not answer within 0.2 s: camera list request\n");
}

TEST_F(PeerAnswers, KeepsTheTimeLimitIfTheHostSendsOtherMessagesWithoutEnd) {
    Start({"list", "--timeout", "0.2"});
    host.Expect(kGetListBytes);
    while (host.Send(kVersionReplyBytes)) {
    }
    ExpectEnd(1, "zu-camera-peer: the host did not answer within 0.2 s: camera list request\n");
}

TEST_F(PeerAnswers, EndsOnASignalWhileItWaits) {
    Start({"list", "--timeout", "1000"});
    host.Expect(kGetListBytes);
    peer->Signal(SIGTERM);
    ExpectEnd(1, "zu-camera-peer: interrupted\n");
}

struct BadAnswer {
    const char* name;
    Bytes bytes;
    const char* error;
};

class PeerRefuses : public PeerProcess, public ::testing::WithParamInterface<BadAnswer> {};

TEST_P(PeerRefuses, AMalformedAnswer) {
    Start({"list"});
    host.Expect(kGetListBytes);
    host.Send(GetParam().bytes);
    ExpectEnd(1, std::string("zu-camera-peer: the host sent ") + GetParam().error + "\n");
    EXPECT_EQ(Printed(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Malformed, PeerRefuses,
    ::testing::Values(
        BadAnswer{"ListTooShort", MessageBytes(2, {1}), "a camera list message of 1 bytes"},
        BadAnswer{"ListWithoutCameras", MessageBytes(2, {3, 0, 0, 0}),
                  "a camera list whose records and sizes do not fill its 4 bytes"},
        BadAnswer{"ListOfTooMany", MessageBytes(2, {0, 1, 0, 0}), "a camera list of 256 cameras"},
        BadAnswer{"LengthOfEverything",
                  {255, 255, 255, 255, 2, 0, 0, 0},
                  "a camera list message of 4294967295 bytes"},
        BadAnswer{"ShortState", MessageBytes(5, {2, 0, 0, 0}), "a camera state message of 4 bytes"},
        BadAnswer{"UnknownState", StateBytes(8, 0), "the unknown camera state 8"},
        BadAnswer{"ShortFrame", MessageBytes(7, {0, 0, 0, 0}), "a video frame message of 4 bytes"},
        BadAnswer{"FrameOfAnotherSize", MessageBytes(7, {0, 0, 0, 0, 9, 0, 0, 0, 1}),
                  "a video frame of 9 bytes in a message with 1"},
        BadAnswer{"HugeFrame", {0, 0, 0, 5, 7, 0, 0, 0}, "a video frame message of 83886080 bytes"},
        BadAnswer{"ShortVersion", MessageBytes(11, {5}), "a version message of 1 bytes"},
        BadAnswer{"ShortControls", MessageBytes(130, Bytes(7)), "a camera controls message of 7 bytes"},
        BadAnswer{"ControlsInPart", MessageBytes(130, Bytes(20)), "camera controls in 12 bytes"},
        BadAnswer{"TooManyControls", MessageBytes(130, Bytes(1828)),
                  "a camera controls message of 1828 bytes"},
        BadAnswer{"LongNotice", MessageBytes(128, Bytes(300, 'x')), "a notice message of 300 bytes"},
        BadAnswer{"HugeUnknown", {0, 0, 0, 5, 66, 0, 0, 0}, "a message of type 66 and 83886080 bytes"}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace zumod::testing
