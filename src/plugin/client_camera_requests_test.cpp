// The requests of the peer: what the plugin calls, logs and answers for each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>

#include "src/plugin/client_camera.h"
#include "tests/support/doubles/client_camera_double.h"
#include "tests/support/doubles/recording_host.h"
#include "tests/support/doubles/scripted_stream.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod {
namespace {

using testing::Bytes;
using testing::CameraScript;
using testing::CloseBytes;
using testing::kGetListBytes;
using testing::kVersionRequestBytes;
using testing::LogLine;
using testing::MessageBytes;
using testing::OpenBytes;
using testing::ScriptedStream;
using testing::SetFormatBytes;
using testing::SetPropertyBytes;
using testing::StateBytes;
using testing::operator+;

const Bytes kSixteenBytesForId7 = {7, 0, 0, 0, 0x80, 2, 0, 0, 0xE0, 1, 0, 0, 30, 0, 0, 0};

class RequestHandlers : public testing::LoggingTest {
protected:
    RequestHandlers() {
        CameraScript() = {};
        host.TakeLines();
    }

    // Everything that the plugin writes to the peer for these requests.
    Bytes Answer(const Bytes& requests) {
        const CRefPtr_T<ScriptedStream> stream(new ScriptedStream(requests));
        plugin->SetChannelStream(stream.Get());
        plugin->Run();
        return stream->Written();
    }

    // The lines of the last Answer without the first and the last one, which are Run's.
    std::vector<LogLine> RequestLines() {
        std::vector<LogLine> lines = host.TakeLines();
        EXPECT_GE(lines.size(), 2u);
        EXPECT_EQ(lines.front(), (LogLine{1, "[cameraclient] Run start"}));
        EXPECT_EQ(lines.back(), (LogLine{1, "[cameraclient] Run return"}));
        return {lines.begin() + 1, lines.end() - 1};
    }

    std::vector<std::string> TakeCalls() { return std::exchange(CameraScript().calls, {}); }

    CRefPtr_T<ClientCamera> plugin{new ClientCamera};
};

TEST_F(RequestHandlers, AVersionRequestWithAnyBodyIsAnsweredWithFive) {
    const Bytes reply = {4, 0, 0, 0, 0x0B, 0, 0, 0, 5, 0, 0, 0};
    EXPECT_EQ(Answer(kVersionRequestBytes), reply);
    EXPECT_EQ(RequestLines(), (std::vector<LogLine>{{8, "[cameraclient] version req"}}));
    EXPECT_EQ(Answer({3, 0, 0, 0, 0x0A, 0, 0, 0, 1, 2, 3}), reply);
}

TEST_F(RequestHandlers, AnEmptyCameraListHasTwelveBytes) {
    EXPECT_EQ(Answer(kGetListBytes), (Bytes{4, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(RequestLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoGetCameraList, count 0"}}));
}

TEST_F(RequestHandlers, TheCameraListHasARecordForEachCameraOfThePlatform) {
    CameraScript().cameras = {{.id = 0,
                               .name = "Front",
                               .displayName = "Front",
                               .file = "/dev/video1",
                               .resolutions = {{640, 480}}},
                              {.id = 1,
                               .name = "Back",
                               .displayName = "Back",
                               .file = "/dev/video4",
                               .resolutions = {{640, 480}, {1280, 720}}}};
    const Bytes list = Answer({5, 0, 0, 0, 1, 0, 0, 0, 1, 2, 3, 4, 5});
    const auto zeros = [](size_t count) { return Bytes(count, 0); };
    const Bytes front = {'F', 'r', 'o', 'n', 't'};
    const Bytes back = {'B', 'a', 'c', 'k'};
    const Bytes header = {0x4C, 0x0A, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0};  // 2636 bytes follow the header
    const Bytes size_480 = {0x80, 2, 0, 0, 0xE0, 1, 0, 0};
    const Bytes size_720 = {0, 5, 0, 0, 0xD0, 2, 0, 0};
    const Bytes first = zeros(6) + front + zeros(515) + front + zeros(769) + Bytes{1, 0, 0, 0} + size_480;
    const Bytes second = Bytes{1, 0, 0, 0, 0, 0} + back + zeros(516) + back + zeros(770) + Bytes{2, 0, 0, 0} +
                         size_480 + size_720;
    EXPECT_EQ(list, header + first + second);
    EXPECT_EQ(RequestLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoGetCameraList, count 2"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{"ListCameras()"}));
}

TEST_F(RequestHandlers, OpenCallsTheCameraClientInOrderAndAnswersOpen) {
    EXPECT_EQ(Answer(OpenBytes(7)), StateBytes(2, 7));
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{"0 created", "0 SetListener()", "0 SetCameraId(7)",
                                                     "0 SetFormat(640, 480, 30)", "0 Open()"}));
    EXPECT_EQ(CameraScript().listeners.at(0), static_cast<IClientCameraListenter*>(plugin.Get()));
    EXPECT_EQ(CameraScript().alive, 1);
}

TEST_F(RequestHandlers, OpenOfAnOpenIdAnswersOpenAndLeavesTheCameraUntouched) {
    Answer(OpenBytes(7));
    TakeCalls();
    RequestLines();
    EXPECT_EQ(Answer(OpenBytes(7)), StateBytes(2, 7));
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{
                  {2, "[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30 camera not found"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{}));
    EXPECT_EQ(CameraScript().created, 1);
}

TEST_F(RequestHandlers, OpenOnAPlatformWithoutCamerasAnswersFailed) {
    CameraScript().built_in = false;
    EXPECT_EQ(Answer(OpenBytes(7)), StateBytes(1, 7));
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30"},
                                    {2, "[cameraclient] OnProtoOpenCamera cureent platform not impl"}}));
    // The id was not stored, so a later open tries again.
    CameraScript().built_in = true;
    EXPECT_EQ(Answer(OpenBytes(7)), StateBytes(2, 7));
}

TEST_F(RequestHandlers, ACameraThatFailsToOpenIsClosedRemovedAndAnsweredFailed) {
    CameraScript().open_result = false;
    EXPECT_EQ(Answer(OpenBytes(7)), StateBytes(1, 7));
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoOpenCamera id 7 w 640 h 480 fps 30"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{"0 created", "0 SetListener()", "0 SetCameraId(7)",
                                                     "0 SetFormat(640, 480, 30)", "0 Open()", "0 Close(7)",
                                                     "0 destroyed"}));
    CameraScript().open_result = true;
    EXPECT_EQ(Answer(OpenBytes(7)), StateBytes(2, 7));
    EXPECT_EQ(CameraScript().created, 2);
}

TEST_F(RequestHandlers, OpenPassesOnSignedNumbers) {
    EXPECT_EQ(
        Answer({16, 0, 0, 0, 3, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 255, 0, 0, 0, 0x80, 0, 0, 0, 0}),
        (Bytes{8, 0, 0, 0, 5, 0, 0, 0, 2, 0, 0, 0, 255, 255, 255, 255}));
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoOpenCamera id -1 w -1 h -2147483648 fps 0"}}));
    EXPECT_THAT(TakeCalls(), ::testing::Contains("0 SetCameraId(4294967295)"));
}

TEST_F(RequestHandlers, OpenSetPropertyAndSetFormatOfAnotherLengthAreIgnored) {
    Answer(OpenBytes(7));
    TakeCalls();
    RequestLines();
    for (const uint8_t type : std::initializer_list<uint8_t>{3, 8, 9}) {
        for (const uint8_t length : std::initializer_list<uint8_t>{0, 12, 15, 17}) {
            Bytes body = kSixteenBytesForId7;
            body.resize(length);
            EXPECT_EQ(Answer(MessageBytes(type, body)), Bytes{});
            EXPECT_EQ(RequestLines(), (std::vector<LogLine>{}));
        }
    }
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{}));
}

TEST_F(RequestHandlers, CloseClosesReleasesAndAnswersClosed) {
    Answer(OpenBytes(7));
    TakeCalls();
    RequestLines();
    EXPECT_EQ(Answer(CloseBytes(7)), StateBytes(4, 7));
    EXPECT_EQ(RequestLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoCloseCamera id 7"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{"0 Close(7)", "0 destroyed"}));
}

TEST_F(RequestHandlers, CloseOfAnUnknownIdAnswersClosed) {
    EXPECT_EQ(Answer(CloseBytes(7)), StateBytes(4, 7));
    EXPECT_EQ(RequestLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoCloseCamera id 7"}}));
}

TEST_F(RequestHandlers, CloseOfAnotherIdDoesNotTouchTheOpenCamera) {
    Answer(OpenBytes(7));
    TakeCalls();
    EXPECT_EQ(Answer(CloseBytes(8)), StateBytes(4, 8));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{}));
}

TEST_F(RequestHandlers, CloseReadsTheFirstFourBytesOfABodyOfAnyLength) {
    EXPECT_EQ(Answer({0, 0, 0, 0, 4, 0, 0, 0}), StateBytes(4, 0));
    EXPECT_EQ(Answer({1, 0, 0, 0, 4, 0, 0, 0, 9}), StateBytes(4, 9));
    EXPECT_EQ(Answer({6, 0, 0, 0, 4, 0, 0, 0, 9, 0, 0, 0, 1, 1}), StateBytes(4, 9));
}

TEST_F(RequestHandlers, ACameraMayBeOpenedAgainAfterItsClose) {
    EXPECT_EQ(Answer(OpenBytes(7) + CloseBytes(7) + OpenBytes(7)),
              StateBytes(2, 7) + StateBytes(4, 7) + StateBytes(2, 7));
    EXPECT_EQ(CameraScript().created, 2);
    EXPECT_EQ(CameraScript().alive, 1);
}

TEST_F(RequestHandlers, SetPropertyIsPassedToTheOpenCameraAndNotAnswered) {
    Answer(OpenBytes(7));
    TakeCalls();
    RequestLines();
    EXPECT_EQ(Answer(SetPropertyBytes(7)), Bytes{});
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoSetProperty id 7 prop 5 value -2 auto 1"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{"0 SetProperty(5, -2, 1)"}));
}

TEST_F(RequestHandlers, SetPropertyOfAnIdThatIsNotOpenIsOnlyLogged) {
    EXPECT_EQ(Answer(SetPropertyBytes(7)), Bytes{});
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoSetProperty id 7 prop 5 value -2 auto 1"}}));
}

TEST_F(RequestHandlers, SetFormatIsPassedToTheOpenCameraAndNotAnswered) {
    Answer(OpenBytes(7));
    TakeCalls();
    RequestLines();
    EXPECT_EQ(Answer(SetFormatBytes(7)), Bytes{});
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoSetFormat id 7 w 1280 h 720 fps 25"}}));
    EXPECT_EQ(TakeCalls(), (std::vector<std::string>{"0 SetFormat(1280, 720, 25)"}));
}

TEST_F(RequestHandlers, SetFormatOfAnIdThatIsNotOpenIsOnlyLogged) {
    EXPECT_EQ(Answer(SetFormatBytes(7)), Bytes{});
    EXPECT_EQ(RequestLines(),
              (std::vector<LogLine>{{1, "[cameraclient] OnProtoSetFormat id 7 w 1280 h 720 fps 25"}}));
}

// The return values of the handlers, which the peer does not see.
TEST_F(RequestHandlers, AHandlerReturnsFalseOnlyForAnIgnoredRequest) {
    const auto result = [&](const Bytes& message) {
        return plugin->OnMessage(message.data(), message.size(), nullptr);
    };
    EXPECT_TRUE(result(kVersionRequestBytes));
    EXPECT_TRUE(result(kGetListBytes));
    EXPECT_TRUE(result(OpenBytes(7)));
    EXPECT_TRUE(result(OpenBytes(7)));
    EXPECT_TRUE(result(SetPropertyBytes(7)));
    EXPECT_TRUE(result(SetFormatBytes(7)));
    EXPECT_TRUE(result(CloseBytes(7)));
    EXPECT_TRUE(result(CloseBytes(7)));
    EXPECT_TRUE(result(SetPropertyBytes(7)));
    EXPECT_TRUE(result(SetFormatBytes(7)));
    for (const uint8_t type : std::initializer_list<uint8_t>{3, 8, 9}) {
        EXPECT_FALSE(result({0, 0, 0, 0, type, 0, 0, 0}));
    }
    CameraScript().open_result = false;
    EXPECT_TRUE(result(OpenBytes(7)));
    CameraScript().built_in = false;
    EXPECT_TRUE(result(OpenBytes(7)));
}

TEST_F(RequestHandlers, AReplyHoldsAReferenceToTheStreamDuringItsWrite) {
    const CRefPtr_T<ScriptedStream> stream(new ScriptedStream);
    const auto references = [&] {
        stream->AddRef();
        return stream->Release();
    };
    int64_t during_write = 0;
    stream->on_write = [&] { during_write = references(); };
    plugin->SetChannelStream(stream.Get());
    const Bytes close = CloseBytes(7);
    plugin->OnMessage(close.data(), close.size(), nullptr);
    EXPECT_EQ(during_write, 3);  // the references of this test, the plugin and the reply
    EXPECT_EQ(references(), 2);
}

TEST_F(RequestHandlers, RepliesContinueAfterAPartialWriteAndStopAtAFailedOne) {
    const CRefPtr_T<ScriptedStream> stream(new ScriptedStream(CloseBytes(7) + CloseBytes(7)));
    stream->write_chunk = 1;
    stream->fail_write_after = 20;
    plugin->SetChannelStream(stream.Get());
    EXPECT_EQ(plugin->Run(), 1);
    Bytes expected = StateBytes(4, 7) + StateBytes(4, 7);
    expected.resize(20);
    EXPECT_EQ(stream->Written(), expected);
    EXPECT_EQ(stream->WriteCalls(), 21u);
    // Both requests were served, and the failed write is not reported.
    EXPECT_EQ(RequestLines(), (std::vector<LogLine>{{1, "[cameraclient] OnProtoCloseCamera id 7"},
                                                    {1, "[cameraclient] OnProtoCloseCamera id 7"}}));
}

TEST_F(RequestHandlers, WithoutAStreamNothingIsWritten) {
    EXPECT_TRUE(plugin->OnMessage(CloseBytes(7).data(), CloseBytes(7).size(), nullptr));
}

}  // namespace
}  // namespace zumod
