#include "host/broker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/camera_gate.h"
#include "tests/support/wire/camera_messages.h"

namespace zumod::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::CloseBytes;
using testing::FrameBytes;
using testing::kGetListBytes;
using testing::kVersionReplyBytes;
using testing::kVersionRequestBytes;
using testing::MessageBytes;
using testing::NoticeBytes;
using testing::OpenBytes;
using testing::SetFormatBytes;
using testing::SetPropertyBytes;
using testing::StateBytes;
using testing::operator+;

constexpr uint32_t kFailed = 1;
constexpr uint32_t kOpen = 2;
constexpr uint32_t kClosed = 4;

Bytes KeyFrame(uint32_t id, uint8_t mark, size_t more = 0) {
    return FrameBytes(id, Bytes{0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x65, mark} + Bytes(more));
}
Bytes NextFrame(uint32_t id, uint8_t mark, size_t more = 0) {
    return FrameBytes(id, Bytes{0, 0, 1, 0x41, mark} + Bytes(more));
}

// The broker with peers 1, 2 and 3.
class BrokerTest : public ::testing::Test {
protected:
    explicit BrokerTest(LendingRules rules = {}) : gate(std::move(rules), files, nullptr) {
        for (const PeerId id : {1U, 2U, 3U}) {
            broker.AddPeer(id, now);
        }
    }

    void Ask(PeerId id, const Bytes& bytes) { broker.OnInput(id, bytes); }
    // What the plugin reads next; empty if it must wait. `tasks` are those before it.
    Bytes Next() {
        tasks.clear();
        for (;;) {
            const auto request = broker.NextRequest(now);
            const auto task = broker.TakeTask();
            if (task) {
                tasks.push_back(*task);
                broker.OnTaskDone(*task, results[task->kind], now);
            }
            if (!request || !request->empty()) {
                return request.value_or(Bytes());
            }
            EXPECT_TRUE(task);
        }
    }
    void Plugin(const Bytes& message) { EXPECT_TRUE(broker.OnMessage(message, now)); }
    // What a peer gets, if it takes all there is.
    Bytes Take(PeerId id) {
        Bytes taken;
        for (auto output = broker.NextOutput(id); !output.rest.empty(); output = broker.NextOutput(id)) {
            taken.insert(taken.end(), output.rest.begin(), output.rest.end());
            broker.OnSent(id, output.rest.size(), now);
        }
        return taken;
    }
    // The peer opens a camera that no peer has open.
    void OpenFirst(PeerId id, uint32_t camera) {
        Ask(id, OpenBytes(camera));
        ASSERT_EQ(Next(), OpenBytes(camera));
        Plugin(StateBytes(kOpen, camera));
        ASSERT_EQ(Next(), Bytes());
        ASSERT_EQ(Take(id), StateBytes(kOpen, camera));
    }
    // The peer opens a camera that another one has open. Returns what it gets.
    Bytes OpenFurther(PeerId id, uint32_t camera) {
        Ask(id, OpenBytes(camera));
        EXPECT_EQ(Next(), Bytes());
        return Take(id);
    }
    std::vector<std::string> Log() {
        std::vector<std::string> lines;
        for (const Broker::LogLine& line : broker.TakeLog()) {
            lines.push_back(line.text);
        }
        return lines;
    }

    std::vector<DeviceTask> tasks;
    std::map<DeviceTask::Kind, DeviceResult> results;  // of the next tasks
    Clock::time_point now{seconds(1000)};
    CameraFiles files;
    CameraGate gate;
    Broker broker{{.idle = seconds(60), .stuck = seconds(20)}, &gate};
};

TEST_F(BrokerTest, WithOnePeerBothDirectionsAreUnchanged) {
    struct Step {
        Bytes request;
        std::vector<Bytes> messages;  // that the plugin writes before it asks for the next request
    };
    const std::vector<Step> steps = {
        {kVersionRequestBytes, {kVersionReplyBytes}},
        {kGetListBytes, {testing::ListBytes({testing::CameraBytes(0, "Front", {{640, 480}})})}},
        {OpenBytes(0), {KeyFrame(0, 1), StateBytes(kOpen, 0), NextFrame(0, 2)}},
        {SetPropertyBytes(0), {NextFrame(0, 3)}},
        {OpenBytes(1, 99999, 1, 0), {StateBytes(kFailed, 1)}},
        {SetFormatBytes(0), {NextFrame(0, 4), KeyFrame(0, 5)}},
        {SetFormatBytes(7), {}},
        {SetPropertyBytes(7), {}},
        {CloseBytes(7), {StateBytes(kClosed, 7)}},
        {MessageBytes(4, {0, 0, 0, 0, 9, 9}), {StateBytes(kClosed, 0)}},
        {OpenBytes(0), {StateBytes(kOpen, 0), KeyFrame(0, 6)}},
        {MessageBytes(4, {}), {StateBytes(kClosed, 0)}},
        {MessageBytes(10, {1, 2, 3}), {kVersionReplyBytes}},
        {MessageBytes(1, {1}), {testing::kEmptyListBytes}},
    };
    Bytes requests;
    Bytes messages;
    for (const Step& step : steps) {
        requests = requests + step.request;
    }
    Ask(1, requests);
    Bytes read;
    Bytes taken;
    for (const Step& step : steps) {
        read = read + Next();
        for (const Bytes& message : step.messages) {
            messages = messages + message;
            Plugin(message);
            // A frame is accepted once the one before it is sent.
            taken = taken + Take(1);
            EXPECT_TRUE(broker.MayTakeFrame());
        }
    }
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(read, requests);
    EXPECT_EQ(taken, messages);
    EXPECT_EQ(Log(), std::vector<std::string>());
}

TEST_F(BrokerTest, ARequestMayArriveInAnyPieces) {
    const Bytes request = OpenBytes(0);
    for (size_t i = 0; i < request.size(); ++i) {
        EXPECT_EQ(Next(), Bytes());
        Ask(1, {request[i]});
    }
    Ask(1, {0, 0});
    EXPECT_EQ(Next(), request);
    Ask(1, {0, 0, 10, 0, 0, 0});
    EXPECT_EQ(Next(), kVersionRequestBytes);
}

TEST_F(BrokerTest, WhatThePluginWouldDropDoesNotReachIt) {
    for (const uint8_t type : Bytes{0, 2, 5, 6, 7, 11, 12, 128, 255}) {
        Ask(1, MessageBytes(type, {1, 2, 3, 4}));
    }
    for (const uint8_t type : Bytes{3, 8, 9}) {
        Ask(1, MessageBytes(type, {}) + MessageBytes(type, Bytes(15)) + MessageBytes(type, Bytes(17)));
    }
    EXPECT_EQ(Next(), Bytes());
    Ask(1, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Take(1), Bytes());
}

TEST_F(BrokerTest, AnAnswerGoesToThePeerThatAskedAndToNoOther) {
    Ask(1, kVersionRequestBytes);
    Ask(2, kGetListBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Next(), kGetListBytes);
    Plugin(testing::kEmptyListBytes);
    EXPECT_EQ(Take(1), kVersionReplyBytes);
    EXPECT_EQ(Take(2), testing::kEmptyListBytes);
    EXPECT_EQ(Take(3), Bytes());
}

TEST_F(BrokerTest, PeersAreServedInTurn) {
    Ask(1, kVersionRequestBytes + kVersionRequestBytes + kVersionRequestBytes);
    Ask(2, kGetListBytes + kGetListBytes);
    Ask(3, OpenBytes(0));
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Next(), kGetListBytes);
    EXPECT_EQ(Next(), OpenBytes(0));
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Next(), kGetListBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Next(), Bytes());
}

TEST_F(BrokerTest, ARequestWithoutAnAnswerDoesNotShiftTheNextAnswer) {
    // Memory for the answer may run out in the plugin.
    Ask(1, kVersionRequestBytes);
    Ask(2, kGetListBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Next(), kGetListBytes);
    Plugin(testing::kEmptyListBytes);
    EXPECT_EQ(Take(1), Bytes());
    EXPECT_EQ(Take(2), testing::kEmptyListBytes);
}

TEST_F(BrokerTest, AnAnswerToAPeerThatHasLeftIsDropped) {
    Ask(1, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    broker.RemovePeer(1);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), Bytes());
}

TEST_F(BrokerTest, AnOpenOfAnOpenCameraInTheSameFormatIsAnsweredHere) {
    OpenFirst(1, 0);
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0));
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), KeyFrame(0, 1));
    EXPECT_EQ(Take(2), KeyFrame(0, 1));
    EXPECT_EQ(Take(3), Bytes());
}

TEST_F(BrokerTest, AnOpenWaitsForTheFirstOpenOfThatCamera) {
    Ask(1, OpenBytes(0));
    EXPECT_EQ(Next(), OpenBytes(0));
    Ask(2, OpenBytes(0));
    Plugin(StateBytes(kFailed, 0));
    // The camera is not open, so the next peer's request is passed on.
    EXPECT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), StateBytes(kFailed, 0));
    EXPECT_EQ(Take(2), StateBytes(kOpen, 0));
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), Bytes());
    EXPECT_EQ(Take(2), KeyFrame(0, 1));
}

TEST_F(BrokerTest, ARepeatedOpenByTheSamePeerChangesNothingWhateverTheFormat) {
    OpenFirst(1, 0);
    Ask(1, OpenBytes(0, 320, 240, 15));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), StateBytes(kOpen, 0));
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0));
}

TEST_F(BrokerTest, AnotherFormatIsRefusedWhileAPeerWatches) {
    OpenFirst(1, 0);
    for (const Bytes& open :
         {OpenBytes(0, 641, 480, 30), OpenBytes(0, 640, 481, 30), OpenBytes(0, 640, 480, 31)}) {
        Ask(2, open);
        EXPECT_EQ(Next(), Bytes());
        EXPECT_EQ(Take(2),
                  NoticeBytes("camera 0 is in use by another peer at 640x480, 30 frames per second") +
                      StateBytes(kFailed, 0));
    }
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), KeyFrame(0, 1));
    EXPECT_EQ(Take(2), Bytes());
    EXPECT_EQ(Log().at(0),
              "[host] peer 2 is refused 641x480, 30 frames per second: camera 0 is in use by another peer at "
              "640x480, 30 frames per second");
    // Another camera is free.
    OpenFirst(2, 1);
}

TEST_F(BrokerTest, AChangeOfFormatIsForTheOnlyWatcher) {
    OpenFirst(1, 0);
    Ask(1, SetFormatBytes(0, 320, 240, 15));
    EXPECT_EQ(Next(), SetFormatBytes(0, 320, 240, 15));
    // From now on this is the format to join at.
    Ask(2, OpenBytes(0, 320, 240, 15));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), StateBytes(kOpen, 0));
    Ask(1, SetFormatBytes(0, 640, 480, 30));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), NoticeBytes("camera 0 is in use by another peer at 320x240, 15 frames per second") +
                           StateBytes(kFailed, 0));
    // It still watches.
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), KeyFrame(0, 1));
    // The format that is set already.
    Ask(1, SetFormatBytes(0, 320, 240, 15));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), Bytes());
}

TEST_F(BrokerTest, APeerCannotChangeACameraThatOnlyOthersWatch) {
    OpenFirst(1, 0);
    Ask(2, SetFormatBytes(0) + SetPropertyBytes(0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), Bytes());
    Ask(2, CloseBytes(0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), StateBytes(kClosed, 0));
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), KeyFrame(0, 1));
}

TEST_F(BrokerTest, TheCameraClosesWhenItsLastPeerClosesIt) {
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    Ask(1, CloseBytes(0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), StateBytes(kClosed, 0));
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), Bytes());
    EXPECT_EQ(Take(2), KeyFrame(0, 1));
    Ask(2, CloseBytes(0));
    EXPECT_EQ(Next(), CloseBytes(0));
    Plugin(StateBytes(kClosed, 0));
    EXPECT_EQ(Take(2), StateBytes(kClosed, 0));
    // Frames that the plugin had in its queue.
    Plugin(NextFrame(0, 2));
    EXPECT_EQ(Take(2), Bytes());
    OpenFirst(2, 0);
}

TEST_F(BrokerTest, TheLastPeerThatLeavesClosesWhatItWatched) {
    OpenFirst(1, 0);
    OpenFirst(1, 5);
    OpenFirst(2, 7);
    OpenFurther(2, 0);
    broker.RemovePeer(1);
    EXPECT_EQ(Next(), CloseBytes(5));
    Plugin(StateBytes(kClosed, 5));
    EXPECT_EQ(Next(), Bytes());
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(2), KeyFrame(0, 1));
    broker.RemovePeer(2);
    EXPECT_EQ(Next(), CloseBytes(0));
    EXPECT_EQ(Next(), CloseBytes(7));
    EXPECT_EQ(Next(), Bytes());
}

TEST_F(BrokerTest, APeerThatLeavesWhileItsCameraOpensHasItClosed) {
    Ask(1, OpenBytes(3));
    EXPECT_EQ(Next(), OpenBytes(3));
    broker.RemovePeer(1);
    Plugin(StateBytes(kOpen, 3));
    // Before any request of others.
    Ask(2, OpenBytes(3, 320, 240, 15));
    EXPECT_EQ(Next(), CloseBytes(3));
    Plugin(StateBytes(kClosed, 3));
    EXPECT_EQ(Next(), OpenBytes(3, 320, 240, 15));
    EXPECT_EQ(Take(2), Bytes());
}

TEST_F(BrokerTest, APeerThatJoinsGetsTheFramesSinceTheLastKeyFrameFirst) {
    OpenFirst(1, 0);
    for (const Bytes& frame :
         {KeyFrame(0, 1), NextFrame(0, 2), KeyFrame(0, 3), NextFrame(0, 4), NextFrame(0, 5)}) {
        Plugin(frame);
        Take(1);
    }
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0) + KeyFrame(0, 3) + NextFrame(0, 4) + NextFrame(0, 5));
    Plugin(NextFrame(0, 6));
    EXPECT_EQ(Take(2), NextFrame(0, 6));
    EXPECT_EQ(Take(1), NextFrame(0, 6));
}

TEST_F(BrokerTest, APeerThatJoinsAgainWithoutReadingHoldsNoMoreThanItsQueueTakes) {
    constexpr size_t kLarge = 1024 * 1024;
    OpenFirst(1, 0);
    Bytes expected;
    for (uint8_t i = 0; i < 4; ++i) {
        const Bytes frame = KeyFrame(0, i, kLarge);
        Plugin(frame);
        Take(1);
        Ask(2, OpenBytes(0) + CloseBytes(0));
        EXPECT_EQ(Next(), Bytes());
        // Three fit into 4 MiB, as each has some bytes more than 1 MiB.
        expected = expected + StateBytes(kOpen, 0) + (i < 3 ? frame : Bytes()) + StateBytes(kClosed, 0);
    }
    EXPECT_EQ(Take(2), expected);
    // There is space again.
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0) + KeyFrame(0, 3, kLarge));
}

TEST_F(BrokerTest, AfterAChangeOfFormatNoOldFrameIsKept) {
    OpenFirst(1, 0);
    Plugin(KeyFrame(0, 1));
    Take(1);
    Ask(1, SetFormatBytes(0));
    EXPECT_EQ(Next(), SetFormatBytes(0));
    EXPECT_EQ(Next(), Bytes());
    Ask(2, OpenBytes(0, 1280, 720, 25));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), StateBytes(kOpen, 0));
}

// The parameter fills the kept group beyond one of its limits.
struct Limit {
    const char* name;
    int frames;
    size_t bytes;
    seconds time;
};
class BrokerGroup : public BrokerTest, public ::testing::WithParamInterface<Limit> {};

TEST_P(BrokerGroup, BeyondALimitAPeerThatJoinsWaitsForTheNextKeyFrame) {
    OpenFirst(1, 0);
    Plugin(KeyFrame(0, 1));
    Take(1);
    now += GetParam().time;
    for (int i = 0; i < GetParam().frames; ++i) {
        Plugin(NextFrame(0, 2, GetParam().bytes));
        Take(1);
    }
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0));
    Plugin(NextFrame(0, 3));
    EXPECT_EQ(Take(2), Bytes());
    Plugin(KeyFrame(0, 4));
    Plugin(NextFrame(0, 5));
    EXPECT_EQ(Take(2), KeyFrame(0, 4) + NextFrame(0, 5));
    broker.RemovePeer(2);
    // It was not slow.
    EXPECT_EQ(Log(), std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(Limits, BrokerGroup,
                         ::testing::Values(Limit{"Frames", 150, 0, seconds(0)},
                                           Limit{"Bytes", 2, 1024 * 1024, seconds(0)},
                                           Limit{"Time", 1, 0, seconds(6)}),
                         [](const auto& one) { return one.param.name; });

TEST_F(BrokerTest, AFrameIsTakenWhenOneWatcherHasSentAllItsFrames) {
    EXPECT_TRUE(broker.MayTakeFrame());
    OpenFirst(1, 0);
    EXPECT_TRUE(broker.MayTakeFrame());
    Plugin(KeyFrame(0, 1));
    // The peers without a camera do not count.
    EXPECT_FALSE(broker.MayTakeFrame());
    OpenFirst(2, 1);
    EXPECT_TRUE(broker.MayTakeFrame());
    Plugin(KeyFrame(1, 2));
    EXPECT_FALSE(broker.MayTakeFrame());
    broker.OnSent(1, 5, now);
    EXPECT_FALSE(broker.MayTakeFrame());
    broker.OnSent(1, KeyFrame(0, 1).size() - 5, now);
    EXPECT_TRUE(broker.MayTakeFrame());
    Plugin(KeyFrame(0, 3));
    EXPECT_FALSE(broker.MayTakeFrame());
    broker.RemovePeer(1);
    EXPECT_FALSE(broker.MayTakeFrame());
    broker.RemovePeer(2);
    EXPECT_TRUE(broker.MayTakeFrame());
}

TEST_F(BrokerTest, ASlowPeerLosesItsOwnFramesUpToAKeyFrame) {
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    constexpr size_t kLarge = 1024 * 1024;
    Bytes kept = KeyFrame(0, 1, kLarge);
    Plugin(kept);
    EXPECT_EQ(Take(1), kept);
    // The fifth begins beyond the limit of 4 MiB.
    for (uint8_t i = 2; i <= 6; ++i) {
        const Bytes frame = NextFrame(0, i, kLarge);
        Plugin(frame);
        EXPECT_EQ(Take(1), frame);
        if (i <= 4) {
            kept = kept + frame;
        }
    }
    EXPECT_EQ(Log(), (std::vector<std::string>{"[host] peer 2 is slow and loses frames of camera 0"}));
    EXPECT_TRUE(Take(2) == kept);
    // Its queue has space again, but nothing that it could decode.
    Plugin(NextFrame(0, 7));
    EXPECT_EQ(Take(2), Bytes());
    Plugin(KeyFrame(0, 8));
    Plugin(NextFrame(0, 9));
    EXPECT_EQ(Take(2), KeyFrame(0, 8) + NextFrame(0, 9));
    EXPECT_EQ(Take(1), NextFrame(0, 7) + KeyFrame(0, 8) + NextFrame(0, 9));
    broker.RemovePeer(1);
    broker.RemovePeer(2);
    EXPECT_EQ(Log(), (std::vector<std::string>{"[host] peer 2 was slow and lost 3 frames"}));
}

TEST_F(BrokerTest, TheNumberOfFramesThatWaitForAPeerIsLimited) {
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    Plugin(KeyFrame(0, 0));
    for (int i = 0; i < 400; ++i) {
        Plugin(NextFrame(0, 1));
        Take(1);
    }
    EXPECT_EQ(Take(2).size(), KeyFrame(0, 0).size() + 299 * NextFrame(0, 1).size());
}

TEST_F(BrokerTest, AStreamWithoutKeyFramesIsPassedOnFromAnyFrame) {
    OpenFirst(1, 0);
    Plugin(FrameBytes(0, {1, 2, 3}));
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0));
    Plugin(FrameBytes(0, {4}));
    Plugin(FrameBytes(0, {}));
    EXPECT_EQ(Take(2), FrameBytes(0, {4}) + FrameBytes(0, {}));
}

TEST_F(BrokerTest, ATooLongRequestEndsItsPeerOnly) {
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    Ask(1, MessageBytes(200, Bytes(65536)) + kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    Plugin(kVersionReplyBytes);
    // The header alone says it: 65537 bytes follow.
    Ask(1, {1, 0, 1, 0, 1, 0, 0, 0});
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(broker.InputSpace(1), 0U);
    EXPECT_EQ(Log(), (std::vector<std::string>{
                         "[host] peer 1 is disconnected: a request has 65537 bytes; the limit is 65536"}));
    EXPECT_FALSE(broker.IsDone(1, now));
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), kVersionReplyBytes + NoticeBytes("a request has 65537 bytes; the limit is 65536"));
    EXPECT_EQ(broker.EndReason(1), "too long a request");
    EXPECT_TRUE(broker.IsDone(1, now));
    EXPECT_FALSE(broker.IsDone(2, now));
    EXPECT_EQ(Take(2), KeyFrame(0, 1));
}

TEST_F(BrokerTest, APeerThatIsEndedGetsItsMessageWholeAndNoFurtherFrames) {
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    Plugin(KeyFrame(0, 1));
    Plugin(NextFrame(0, 2));
    broker.OnSent(1, 3, now);
    broker.EndPeer(1, "enough", "reason", now);
    broker.EndPeer(1, "twice", "another", now);
    EXPECT_EQ(broker.EndReason(1), "reason");
    EXPECT_EQ(broker.EndReason(2), "");
    const Bytes frame = KeyFrame(0, 1);
    EXPECT_EQ(Take(1), Bytes(frame.begin() + 3, frame.end()) + NoticeBytes("enough"));
    Take(2);
    EXPECT_TRUE(broker.MayTakeFrame());
}

TEST_F(BrokerTest, NothingFollowsTheLastNotice) {
    Ask(1, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    broker.EndPeer(1, "enough", "reason", now);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Take(1), NoticeBytes("enough"));
}

TEST_F(BrokerTest, APeerThatDoesNotReadItsLastNoticeIsDoneAfterTwoSeconds) {
    EXPECT_EQ(broker.NextTime(), now + seconds(60));
    broker.EndPeer(1, "enough", "reason", now);
    EXPECT_EQ(broker.NextTime(), now + seconds(2));
    EXPECT_FALSE(broker.IsDone(1, now + milliseconds(1999)));
    EXPECT_TRUE(broker.IsDone(1, now + seconds(2)));
}

TEST_F(BrokerTest, APeerThatDoesNotReadItsAnswersIsNotServedAnyMore) {
    // One answer above the limit of 64 KiB.
    Ask(1, kGetListBytes + kVersionRequestBytes);
    EXPECT_EQ(Next(), kGetListBytes);
    const Bytes list = MessageBytes(2, Bytes(65536));
    Plugin(list);
    Ask(2, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Take(2), kVersionReplyBytes);
    EXPECT_EQ(Next(), Bytes());
    // Its input is read until a request of the largest size would be complete.
    EXPECT_EQ(broker.InputSpace(1), 65536U);
    Ask(1, Bytes(65536));
    EXPECT_EQ(broker.InputSpace(1), 0U);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_TRUE(Take(1) == list);
    EXPECT_EQ(Next(), kVersionRequestBytes);
}

TEST_F(BrokerTest, ThatAPeerSendsNothingMoreCountsAfterItsLastAnswer) {
    Ask(1, OpenBytes(0) + kVersionRequestBytes + Bytes{1, 2, 3});
    broker.OnInputEnd(1);
    EXPECT_EQ(broker.InputSpace(1), 0U);
    EXPECT_FALSE(broker.IsDone(1, now));
    EXPECT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Take(1), StateBytes(kOpen, 0));
    EXPECT_FALSE(broker.IsDone(1, now));
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_FALSE(broker.IsDone(1, now));
    EXPECT_EQ(Take(1), kVersionReplyBytes);
    // Frames would never end.
    Plugin(KeyFrame(0, 1));
    EXPECT_TRUE(broker.IsDone(1, now));
}

TEST_F(BrokerTest, EveryChangeForTheMainThreadIsReported) {
    EXPECT_FALSE(broker.TakeChange());
    Ask(1, OpenBytes(0));
    EXPECT_EQ(Next(), OpenBytes(0));
    EXPECT_TRUE(broker.TakeChange());
    EXPECT_FALSE(broker.TakeChange());
    Plugin(StateBytes(kOpen, 0));
    EXPECT_TRUE(broker.TakeChange());
    Plugin(KeyFrame(0, 1));
    EXPECT_TRUE(broker.TakeChange());
    // The request is handled: a peer that sends nothing more may be done.
    EXPECT_EQ(Next(), Bytes());
    EXPECT_TRUE(broker.TakeChange());
    EXPECT_EQ(Next(), Bytes());
    EXPECT_FALSE(broker.TakeChange());
}

TEST_F(BrokerTest, APeerWithoutACameraAndARequestIsEndedAfterItsTime) {
    broker.RemovePeer(3);
    OpenFirst(1, 0);
    now += seconds(59);
    Plugin(KeyFrame(0, 1));
    Take(1);
    broker.OnTime(now);
    Ask(2, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    now += seconds(59);
    Plugin(KeyFrame(0, 1));
    Take(1);
    broker.OnTime(now);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), kVersionReplyBytes);
    // The time begins when the request is finished.
    now += seconds(59);
    Plugin(KeyFrame(0, 1));
    Take(1);
    broker.OnTime(now);
    EXPECT_EQ(broker.NextTime(), now + seconds(1));
    now += seconds(1);
    EXPECT_TRUE(broker.OnTime(now));
    EXPECT_EQ(Take(2), NoticeBytes("no camera was open and no request came for 60.0 s"));
    EXPECT_EQ(broker.EndReason(2), "idle for 60.0 s");
    EXPECT_TRUE(broker.IsDone(2, now));
    // The other one has a camera open.
    EXPECT_EQ(Take(1), Bytes());
    EXPECT_FALSE(broker.IsDone(1, now));
}

TEST_F(BrokerTest, APeerThatTakesNothingIsEndedAfterItsTime) {
    broker.RemovePeer(3);
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    now += seconds(30);
    Plugin(KeyFrame(0, 1));
    Take(2);
    now += seconds(15);
    Plugin(NextFrame(0, 1));
    Take(2);
    broker.OnTime(now);
    // A part counts.
    broker.OnSent(1, 1, now);
    now += seconds(19);
    Plugin(NextFrame(0, 2));
    Take(2);
    EXPECT_FALSE(broker.OnTime(now));
    now += seconds(1);
    EXPECT_TRUE(broker.OnTime(now));
    EXPECT_EQ(Log(),
              (std::vector<std::string>{"[host] peer 1 is disconnected: nothing was received for 20.0 s"}));
    EXPECT_EQ(broker.EndReason(1), "took nothing for 20.0 s");
    EXPECT_FALSE(broker.IsDone(1, now));
    EXPECT_TRUE(broker.IsDone(1, now + seconds(2)));
    EXPECT_FALSE(broker.IsDone(2, now));
}

TEST_F(BrokerTest, ALongRequestDoesNotMakeItsPeerIdle) {
    broker.RemovePeer(2);
    broker.RemovePeer(3);
    Ask(1, kGetListBytes);
    ASSERT_EQ(Next(), kGetListBytes);
    now += seconds(100);
    Plugin(testing::kEmptyListBytes);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), testing::kEmptyListBytes);
    now += seconds(59);
    EXPECT_FALSE(broker.OnTime(now));
    now += seconds(1);
    EXPECT_TRUE(broker.OnTime(now));
}

TEST_F(BrokerTest, WithoutLimitsAPeerMayBeIdleAndStuck) {
    Broker unlimited{{.idle = seconds(0), .stuck = seconds(0)}};
    unlimited.AddPeer(1, now);
    EXPECT_EQ(unlimited.NextTime(), Clock::time_point::max());
    unlimited.OnInput(1, kVersionRequestBytes);
    EXPECT_TRUE(unlimited.NextRequest(now).has_value());
    EXPECT_TRUE(unlimited.OnMessage(kVersionReplyBytes, now));
    EXPECT_EQ(unlimited.NextTime(), Clock::time_point::max());
}

TEST_F(BrokerTest, APeerThatAsksTooFastIsEnded) {
    Bytes requests;
    for (int i = 0; i < 1000; ++i) {
        requests = requests + SetPropertyBytes(0);
    }
    Ask(1, requests);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(Next(), SetPropertyBytes(0));
    }
    now += milliseconds(10);
    Ask(1, SetPropertyBytes(0) + SetPropertyBytes(0));
    EXPECT_EQ(Next(), SetPropertyBytes(0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), NoticeBytes("more than 100 requests per second"));
    EXPECT_EQ(broker.EndReason(1), "too many requests");
    Ask(2, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
}

TEST_F(BrokerTest, ACameraThatDeliversNoFramesIsClosed) {
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    OpenFirst(2, 1);
    now += seconds(9);
    Plugin(KeyFrame(1, 1));
    Take(2);
    EXPECT_FALSE(broker.OnTime(now));
    now += seconds(1);
    EXPECT_TRUE(broker.OnTime(now));
    EXPECT_EQ(Take(1), StateBytes(kClosed, 0));
    EXPECT_EQ(Take(2), StateBytes(kClosed, 0));
    EXPECT_EQ(Log(), (std::vector<std::string>{"[host] camera 0 delivers no frames: closed"}));
    EXPECT_EQ(Next(), CloseBytes(0));
    Plugin(StateBytes(kClosed, 0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), Bytes());
    // When it is back, an open works.
    OpenFirst(1, 0);
}

TEST_F(BrokerTest, ASlowCameraHasTimeFor60Frames) {
    broker.RemovePeer(2);
    broker.RemovePeer(3);
    Ask(1, OpenBytes(0, 640, 480, 2));
    EXPECT_EQ(Next(), OpenBytes(0, 640, 480, 2));
    // The open itself takes long.
    now += seconds(100);
    EXPECT_FALSE(broker.OnTime(now));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Next(), Bytes());
    Take(1);
    now += milliseconds(29999);
    EXPECT_FALSE(broker.OnTime(now));
    now += milliseconds(1);
    EXPECT_TRUE(broker.OnTime(now));
}

TEST_F(BrokerTest, ACameraWhoseFramesWaitForASlowPeerIsNotGone) {
    OpenFirst(1, 0);
    Plugin(KeyFrame(0, 1));
    broker.OnTime(now);
    now += seconds(15);
    broker.OnTime(now);
    now += seconds(15);
    broker.OnSent(1, 1, now);
    now += seconds(15);
    Take(1);
    EXPECT_FALSE(broker.OnTime(now));
    EXPECT_EQ(Take(1), Bytes());
    now += seconds(10);
    EXPECT_TRUE(broker.OnTime(now));
    EXPECT_EQ(Take(1), StateBytes(kClosed, 0));
}

// Camera 2 at 640x480 and 30 frames per second: the module may start camera 0 first.
TEST_F(BrokerTest, WhatComesBeforeTheAnswerToAnOpenIsNotPassedOn) {
    Ask(1, OpenBytes(2));
    ASSERT_EQ(Next(), OpenBytes(2));
    Plugin(KeyFrame(2, 1));
    Plugin(NextFrame(2, 2));
    Plugin(StateBytes(kOpen, 2));
    // They refer to a picture of another camera.
    Plugin(NextFrame(2, 3));
    Ask(1, SetFormatBytes(2));
    EXPECT_EQ(Next(), SetFormatBytes(2));
    Plugin(NextFrame(2, 4));
    EXPECT_EQ(Take(1), StateBytes(kOpen, 2));
    Plugin(KeyFrame(2, 5));
    Plugin(NextFrame(2, 6));
    EXPECT_EQ(Take(1), KeyFrame(2, 5) + NextFrame(2, 6));
}

TEST_F(BrokerTest, APeerThatJoinsGetsNothingOfAnotherCameraEither) {
    Ask(1, OpenBytes(2));
    ASSERT_EQ(Next(), OpenBytes(2));
    Plugin(KeyFrame(2, 1));
    Plugin(StateBytes(kOpen, 2));
    Plugin(NextFrame(2, 2));
    EXPECT_EQ(OpenFurther(2, 2), StateBytes(kOpen, 2));
    Plugin(NextFrame(2, 3));
    EXPECT_EQ(Take(2), Bytes());
    Plugin(KeyFrame(2, 4));
    EXPECT_EQ(Take(2), KeyFrame(2, 4));
}

TEST_F(BrokerTest, AKeyFrameRightAfterTheAnswerIsTheCameras) {
    OpenFirst(1, 2);
    Plugin(KeyFrame(2, 1));
    EXPECT_EQ(Take(1), KeyFrame(2, 1));
}

TEST_F(BrokerTest, TheFirstCameraAndTheInitialFormatAreNeverPrecededByAnotherCamera) {
    const Bytes initial = OpenBytes(2, 640, 480, 15);
    for (const auto& [request, id] : {std::pair{OpenBytes(0), 0U}, std::pair{initial, 2U}}) {
        Ask(1, request);
        ASSERT_EQ(Next(), request);
        Plugin(KeyFrame(id, 1));
        EXPECT_EQ(Take(1), KeyFrame(id, 1));
    }
}

TEST_F(BrokerTest, AStreamWithoutKeyFramesBeginsAfterTheAnswer) {
    Ask(1, OpenBytes(2));
    ASSERT_EQ(Next(), OpenBytes(2));
    Plugin(FrameBytes(2, {1}));
    Plugin(StateBytes(kOpen, 2));
    Plugin(FrameBytes(2, {2}));
    EXPECT_EQ(Take(1), StateBytes(kOpen, 2) + FrameBytes(2, {2}));
}

TEST_F(BrokerTest, AnOpenWhoseAnswerWasLostIsDoneWhenThePluginReadsOn) {
    Ask(1, OpenBytes(2));
    ASSERT_EQ(Next(), OpenBytes(2));
    EXPECT_EQ(Next(), Bytes());
    Plugin(KeyFrame(2, 1));
    EXPECT_EQ(Take(1), KeyFrame(2, 1));
}

TEST_F(BrokerTest, WhileAnotherCameraMayRunNoFrameWaits) {
    OpenFirst(1, 0);
    Plugin(KeyFrame(0, 1));
    ASSERT_FALSE(broker.MayTakeFrame());
    Ask(1, OpenBytes(2));
    ASSERT_EQ(Next(), OpenBytes(2));
    EXPECT_TRUE(broker.MayTakeFrame());
    Plugin(StateBytes(kOpen, 2));
    EXPECT_FALSE(broker.MayTakeFrame());
}

// The broker does not know whether the plugin has read the request that it was given last.
TEST_F(BrokerTest, ACameraMayBeOpenUntilThePluginHasHandledItsClose) {
    EXPECT_FALSE(broker.MayHaveOpenCamera());
    OpenFirst(1, 0);
    EXPECT_TRUE(broker.MayHaveOpenCamera());
    Ask(1, CloseBytes(0));
    ASSERT_EQ(Next(), CloseBytes(0));
    EXPECT_TRUE(broker.MayHaveOpenCamera());
    Plugin(StateBytes(kClosed, 0));
    ASSERT_EQ(Next(), Bytes());
    EXPECT_FALSE(broker.MayHaveOpenCamera());
    Take(1);
    OpenFirst(1, 0);
    broker.RemovePeer(1);
    ASSERT_EQ(Next(), CloseBytes(0));
    EXPECT_FALSE(broker.HasOpenCamera());
    EXPECT_TRUE(broker.MayHaveOpenCamera());
    ASSERT_EQ(Next(), Bytes());
    EXPECT_FALSE(broker.MayHaveOpenCamera());
}

TEST_F(BrokerTest, ACameraWhoseDeviceIsGoneIsClosedForAllItsPeers) {
    results[DeviceTask::Kind::kFindDevice] = {"/dev/video3", {}, "", false};
    OpenFirst(1, 0);
    OpenFurther(2, 0);
    EXPECT_TRUE(broker.HasOpenCamera());
    EXPECT_EQ(broker.OpenDevices(), (std::map<uint32_t, std::string>{{0, "/dev/video3"}}));
    broker.OnDeviceGone(0, now);
    EXPECT_EQ(Take(1), StateBytes(kClosed, 0));
    EXPECT_EQ(Take(2), StateBytes(kClosed, 0));
    EXPECT_EQ(Log(), std::vector<std::string>{"[host] camera 0 is gone: closed"});
    // Told once.
    broker.OnDeviceGone(0, now);
    EXPECT_EQ(Take(1), Bytes());
    Ask(1, OpenBytes(0));
    EXPECT_EQ(Next(), CloseBytes(0));
    Plugin(StateBytes(kClosed, 0));
    EXPECT_EQ(Next(), OpenBytes(0));
    EXPECT_EQ(Log(), std::vector<std::string>());
    // An open that is under way is answered by the plugin.
    broker.OnDeviceGone(0, now);
    EXPECT_EQ(Take(1), Bytes());
}

using TaskKind = DeviceTask::Kind;

// Type 129.
Bytes GetControlsBytes(uint32_t camera) {
    return MessageBytes(129, testing::Number32(camera));
}

TEST_F(BrokerTest, TheControlsGoToThePeerThatAskedInTheOrderOfItsRequests) {
    const Bytes controls = MessageBytes(130, {1, 0, 0, 0, 0, 0, 0, 0});
    results[TaskKind::kReportControls] = {"/dev/video1", controls, "", false};
    Ask(1, GetControlsBytes(1) + kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].kind, TaskKind::kReportControls);
    EXPECT_EQ(tasks[0].camera, 1U);
    EXPECT_EQ(tasks[0].device, "");
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Take(1), controls + kVersionReplyBytes);
    EXPECT_EQ(Take(2), Bytes());
}

TEST_F(BrokerTest, APropertyIsSetByTheHostForEveryPeer) {
    OpenFirst(1, 0);
    results[TaskKind::kSetControl] = {"/dev/video0", {}, "camera 0: gamma is now 1", false};
    Ask(1, SetPropertyBytes(0));
    EXPECT_EQ(Next(), SetPropertyBytes(0));
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].kind, TaskKind::kSetControl);
    EXPECT_EQ(tasks[0].change.property, 5);
    EXPECT_EQ(tasks[0].change.value, -2);
    EXPECT_EQ(tasks[0].change.automatic, 1);
    // The plugin does not hear of the property of a camera that only others watch.
    Ask(2, SetPropertyBytes(0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(tasks.size(), 1U);
    EXPECT_EQ(Log(), (std::vector<std::string>{"[host] peer 1, camera 0: gamma is now 1",
                                               "[host] peer 2, camera 0: gamma is now 1"}));
}

TEST_F(BrokerTest, AnOpenCameraKeepsItsDeviceFile) {
    results[TaskKind::kFindDevice] = {"/dev/video3", {}, "", false};
    Ask(1, OpenBytes(0));
    EXPECT_EQ(Next(), OpenBytes(0));
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].kind, TaskKind::kFindDevice);
    Plugin(StateBytes(kOpen, 0));
    Ask(1, SetFormatBytes(0, 640, 480, 30) + GetControlsBytes(0));
    EXPECT_EQ(Next(), SetFormatBytes(0, 640, 480, 30));
    EXPECT_EQ(Next(), Bytes());
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].device, "/dev/video3");
}

// For another format the module looks for the camera's file again.
TEST_F(BrokerTest, TheDeviceFileIsLookedForAgainAfterAChangeOfFormat) {
    results[TaskKind::kFindDevice] = {"/dev/video3", {}, "", false};
    OpenFirst(1, 0);
    results[TaskKind::kFindDevice] = {"/dev/video5", {}, "", false};
    Ask(1, SetFormatBytes(0));
    EXPECT_EQ(Next(), SetFormatBytes(0));
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].device, "");
    EXPECT_EQ(broker.OpenDevices(), (std::map<uint32_t, std::string>{{0, "/dev/video5"}}));
}

TEST_F(BrokerTest, MalformedRequestsAboutControlsMakeNoTask) {
    Ask(1, MessageBytes(129, {0, 0, 0}) + MessageBytes(129, {0, 0, 0, 0, 0}) + MessageBytes(8, Bytes(15)));
    for (const uint32_t property : {0U, 15U, 0xFFFFFFFFU, 0x00980900U}) {
        Ask(1, MessageBytes(8, testing::Number32(0) + testing::Number32(property) + Bytes(8)));
        Next();
        EXPECT_TRUE(tasks.empty()) << property;
    }
}

TEST_F(BrokerTest, ControlsForAPeerThatHasLeftAreDropped) {
    Ask(1, GetControlsBytes(0));
    ASSERT_EQ(broker.NextRequest(now), Bytes());
    const auto task = broker.TakeTask();
    ASSERT_TRUE(task);
    broker.RemovePeer(1);
    broker.OnTaskDone(*task, {"", MessageBytes(130, Bytes(8)), "", false}, now);
    EXPECT_EQ(Take(2) + Take(3), Bytes());
}

TEST_F(BrokerTest, BytesThatAreNotOneMessageAreRefused) {
    EXPECT_FALSE(broker.OnMessage({}, now));
    EXPECT_FALSE(broker.OnMessage(Bytes(7), now));
    EXPECT_FALSE(broker.OnMessage(Bytes{1, 0, 0, 0, 2, 0, 0, 0}, now));
    EXPECT_FALSE(broker.OnMessage(kVersionReplyBytes + kVersionReplyBytes, now));
    // A frame without its own header belongs to no camera.
    Plugin(MessageBytes(7, Bytes(7)));
    EXPECT_EQ(Take(1), Bytes());
}

TEST_F(BrokerTest, AnInformationComesBeforeTheAnswerAndReachesOnlyTheAsker) {
    Ask(1, kGetListBytes);
    ASSERT_EQ(Next(), kGetListBytes);
    EXPECT_TRUE(broker.HasAsker());
    broker.Inform("one");
    Plugin(testing::kEmptyListBytes);
    EXPECT_EQ(Take(1), testing::InformationBytes("one") + testing::kEmptyListBytes);
    EXPECT_EQ(Take(2), Bytes());
    EXPECT_EQ(Next(), Bytes());
    EXPECT_FALSE(broker.HasAsker());
    broker.Inform("two");
    EXPECT_EQ(Take(1), Bytes());
}

// A broker whose gate checks each open.
class GatedBrokerTest : public BrokerTest {
protected:
    GatedBrokerTest() : BrokerTest({{"*"}, {}, false}) {}

    void ModuleFinds(const std::string& file) {
        files.OnLogLine("[CameraEnumerator]  id: 0 name: A bus:  usb-1 file: " + file + " res: ");
    }
    // The steps up to the check of peer 1, whose open is at the front of its input.
    void ExpectCheck(uint32_t camera) {
        EXPECT_EQ(Next(), kGetListBytes);
        EXPECT_FALSE(broker.HasAsker());
        Plugin(testing::kEmptyListBytes);
        const auto check = broker.TakeOpenCheck();
        ASSERT_TRUE(check.has_value());
        EXPECT_EQ(check->peer, 1U);
        EXPECT_EQ(check->camera, camera);
        EXPECT_FALSE(broker.TakeOpenCheck().has_value());
    }
    void Allow(PeerId id, const Bytes& open) {
        Ask(id, open);
        ExpectCheck(0);
        broker.OnOpenCheck({id, 0}, {"", {"/dev/video3", "A"}, "one"});
        ASSERT_EQ(Next(), open);
    }
};

TEST_F(GatedBrokerTest, AnOpenIsPassedOnOnceItIsAllowed) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    Plugin(KeyFrame(0, 1));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Take(1), KeyFrame(0, 1) + StateBytes(kOpen, 0));
    // A further peer needs no check: the camera is open.
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(OpenFurther(2, 0), StateBytes(kOpen, 0) + KeyFrame(0, 1));
    // Once it is closed, the next open is checked again.
    Ask(1, CloseBytes(0));
    Ask(2, CloseBytes(0));
    EXPECT_EQ(Next(), CloseBytes(0));
    Plugin(StateBytes(kClosed, 0));
    Allow(1, OpenBytes(0));
}

TEST_F(GatedBrokerTest, ARefusedOpenIsAnsweredAndTheNextRequestsAreServed) {
    Ask(1, OpenBytes(7) + kVersionRequestBytes);
    Ask(2, kVersionRequestBytes);
    ExpectCheck(7);
    broker.OnOpenCheck({1, 7}, {"no camera 7"});
    EXPECT_EQ(Take(1), NoticeBytes("no camera 7") + StateBytes(kFailed, 7));
    EXPECT_EQ(Next(), kVersionRequestBytes);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Take(2), kVersionReplyBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Log(), (std::vector<std::string>{"[host] peer 1 may not open camera 7: no camera 7"}));
}

TEST_F(GatedBrokerTest, TheAnswerToACheckMayComeAfterThePeerHasLeft) {
    Ask(1, OpenBytes(0));
    ExpectCheck(0);
    broker.RemovePeer(1);
    broker.OnOpenCheck({1, 0}, {"", {"/dev/video3", "A"}, "one"});
    EXPECT_EQ(Next(), Bytes());
}

TEST_F(GatedBrokerTest, AnotherCameraThanTheAllowedOneIsClosedAndSendsNothing) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    // The module has looked again, and found another camera.
    ModuleFinds("/dev/video4");
    Plugin(KeyFrame(0, 1));
    Plugin(StateBytes(kOpen, 0));
    Plugin(NextFrame(0, 2));
    EXPECT_EQ(Take(1), NoticeBytes("the cameras of the host have changed") + StateBytes(kFailed, 0));
    EXPECT_EQ(Next(), CloseBytes(0));
    EXPECT_EQ(Log(),
              (std::vector<std::string>{"[host] camera 0 is closed: the cameras of the host have changed"}));
}

TEST_F(GatedBrokerTest, AnotherCameraThanTheAllowedOneIsClosedWithoutAnAnswer) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    ModuleFinds("/dev/video4");
    EXPECT_EQ(Next(), CloseBytes(0));  // the plugin had no memory for the answer
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Take(1), StateBytes(kClosed, 0));
    EXPECT_TRUE(broker.TakeEvents().empty());
}

TEST_F(GatedBrokerTest, AChangeOfFormatOfAnotherCameraClosesNone) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Next(), Bytes());
    ModuleFinds("/dev/video4");  // for a list; camera 0 goes on
    Ask(1, SetFormatBytes(7));
    EXPECT_EQ(Next(), SetFormatBytes(7));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), StateBytes(kOpen, 0));
}

TEST_F(GatedBrokerTest, ControlsAreThoseOfTheDeviceFileThatWasChecked) {
    results[TaskKind::kFindDevice] = {"/dev/video9", {}, "", false};
    ModuleFinds("/dev/video3");
    Ask(1, OpenBytes(0));
    ExpectCheck(0);
    broker.OnOpenCheck({1, 0}, {"", {"/dev/video3", "A"}, "one"});
    EXPECT_EQ(broker.NextRequest(now), OpenBytes(0));
    EXPECT_EQ(broker.TakeTask().value().device, "/dev/video3");
    Plugin(StateBytes(kOpen, 0));
    Ask(1, SetFormatBytes(0));
    EXPECT_EQ(broker.NextRequest(now), SetFormatBytes(0));
    EXPECT_EQ(broker.TakeTask().value().device, "/dev/video3");
}

TEST_F(GatedBrokerTest, AnOpenThatIsCheckedCountsAsOneRequest) {
    ModuleFinds("/dev/video3");
    for (int i = 0; i < 600; ++i) {
        Allow(1, OpenBytes(0));
        Plugin(StateBytes(kFailed, 0));
        ASSERT_EQ(Take(1), StateBytes(kFailed, 0));
    }
}

TEST_F(GatedBrokerTest, AChangeOfFormatThatStartsAnotherCameraClosesIt) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    Ask(1, SetFormatBytes(0));
    EXPECT_EQ(Next(), SetFormatBytes(0));
    ModuleFinds("/dev/video4");
    Plugin(KeyFrame(0, 1));
    EXPECT_EQ(Next(), CloseBytes(0));
    EXPECT_EQ(Take(1), StateBytes(kOpen, 0) + StateBytes(kClosed, 0));
}

TEST_F(GatedBrokerTest, ADeviceThatWasReplacedBeforeTheOpenSendsNothing) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    const auto check = broker.UncheckedDevice();
    ASSERT_EQ(check, (Broker::DeviceCheck{0, "/dev/video3", "one"}));
    EXPECT_TRUE(broker.IsUnchecked(KeyFrame(0, 1)));
    EXPECT_FALSE(broker.IsUnchecked(KeyFrame(1, 1)));
    EXPECT_FALSE(broker.IsUnchecked(StateBytes(kOpen, 0)));
    broker.OnDeviceCheck(*check, false);
    EXPECT_FALSE(broker.UncheckedDevice().has_value());
    EXPECT_FALSE(broker.IsUnchecked(KeyFrame(0, 1)));
    Plugin(KeyFrame(0, 1));
    Plugin(StateBytes(kOpen, 0));
    Plugin(NextFrame(0, 2));
    EXPECT_EQ(Take(1), NoticeBytes("the cameras of the host have changed") + StateBytes(kFailed, 0));
    EXPECT_EQ(Next(), CloseBytes(0));
}

TEST_F(GatedBrokerTest, ADeviceIsCheckedAgainAfterAChangeOfFormat) {
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    auto check = broker.UncheckedDevice();
    ASSERT_TRUE(check.has_value());
    broker.OnDeviceCheck(*check, true);
    Plugin(KeyFrame(0, 1));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), KeyFrame(0, 1) + StateBytes(kOpen, 0));
    EXPECT_FALSE(broker.UncheckedDevice().has_value());
    EXPECT_FALSE(broker.IsUnchecked(KeyFrame(0, 2)));
    Ask(1, SetFormatBytes(0));
    EXPECT_EQ(Next(), SetFormatBytes(0));
    check = broker.UncheckedDevice();
    ASSERT_TRUE(check.has_value());
    EXPECT_TRUE(broker.IsUnchecked(KeyFrame(0, 2)));
    broker.OnDeviceCheck(*check, false);
    Plugin(KeyFrame(0, 2));
    EXPECT_EQ(Next(), CloseBytes(0));
    EXPECT_EQ(Take(1), StateBytes(kClosed, 0));
}

// They are dropped in any case, and must not hold up those behind them.
TEST_F(GatedBrokerTest, FramesBeforeTheAnswerDoNotWaitForTheCheckIfTheyAreDropped) {
    files.OnLogLine("[CameraEnumerator]  id: 1 name: A bus:  usb-1 file: /dev/video3 res: ");
    Ask(1, OpenBytes(1));
    ExpectCheck(1);
    broker.OnOpenCheck({1, 1}, {"", {"/dev/video3", "A"}, "one"});
    ASSERT_EQ(Next(), OpenBytes(1));
    EXPECT_TRUE(broker.UncheckedDevice().has_value());
    EXPECT_FALSE(broker.IsUnchecked(KeyFrame(1, 1)));
}

TEST_F(BrokerTest, WithoutRulesNoDeviceIsChecked) {
    Ask(1, OpenBytes(0));
    ASSERT_EQ(Next(), OpenBytes(0));
    EXPECT_FALSE(broker.UncheckedDevice().has_value());
    EXPECT_FALSE(broker.IsUnchecked(KeyFrame(0, 1)));
}

TEST_F(GatedBrokerTest, OnlyAPeerThatHasTheCameraOpenUsesItsControls) {
    Ask(1, GetControlsBytes(0) + SetPropertyBytes(0));
    EXPECT_EQ(Next(), SetPropertyBytes(0));  // the plugin ignores it
    EXPECT_TRUE(tasks.empty());
    EXPECT_EQ(Take(1), MessageBytes(130, testing::Number32(0) + testing::Number32(1)));
    ModuleFinds("/dev/video3");
    Allow(1, OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    Ask(1, GetControlsBytes(0));
    EXPECT_EQ(Next(), Bytes());
    ASSERT_EQ(tasks.size(), 1U);
    EXPECT_EQ(tasks[0].kind, TaskKind::kReportControls);
}

class AskingBrokerTest : public BrokerTest {
protected:
    AskingBrokerTest() : BrokerTest({{}, {}, false, true}) {
        files.OnLogLine("[CameraEnumerator]  id: 0 name: Desk bus:  usb-1 file: /dev/video3 res: ");
    }

    // The module lists the cameras, and the gate allows the open of this peer.
    void Check(PeerId id) {
        EXPECT_EQ(Next(), kGetListBytes);
        Plugin(testing::kEmptyListBytes);
        const auto check = broker.TakeOpenCheck();
        ASSERT_TRUE(check.has_value());
        EXPECT_EQ(check->peer, id);
        broker.OnOpenCheck(*check, {"", files.Camera(0), identity});
    }
    std::string identity = "one";  // of the device that the gate looks at

    // The owner is asked about the open of this peer.
    void ExpectQuestion(PeerId id) {
        const auto events = broker.TakeEvents();
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].kind, Broker::Event::Kind::kAsked);
        EXPECT_EQ(events[0].peer, id);
        EXPECT_EQ(events[0].request.width, 640);
        EXPECT_EQ(events[0].camera.name, "Desk");
        EXPECT_EQ(events[0].camera.file, "/dev/video3");
    }
};

TEST_F(AskingBrokerTest, AnOpenWaitsForTheOwnerAndOtherPeersGoOn) {
    Ask(1, OpenBytes(0) + kVersionRequestBytes);
    Check(1);
    ExpectQuestion(1);
    Ask(2, kVersionRequestBytes);
    EXPECT_EQ(Next(), kVersionRequestBytes);
    Plugin(kVersionReplyBytes);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), Bytes());
    EXPECT_EQ(Take(2), kVersionReplyBytes);
    broker.RemovePeer(2);
    broker.RemovePeer(3);
    now += seconds(100);
    EXPECT_FALSE(broker.OnTime(now));  // it is not idle
    broker.OnDecision(1, "", now);
    // The camera may be another one by now.
    Check(1);
    EXPECT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Next(), kVersionRequestBytes);
    EXPECT_EQ(Take(1), StateBytes(kOpen, 0));
}

TEST_F(AskingBrokerTest, AnOwnerWhoDoesNotAgreeIsAskedAgainAtTheNextOpen) {
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
    broker.OnDecision(1, "no", now);
    EXPECT_EQ(Take(1), NoticeBytes("no") + StateBytes(kFailed, 0));
    broker.OnDecision(1, "", now);  // too late
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
}

TEST_F(AskingBrokerTest, APeerIsNotEndedForTheTimeThatItsOwnerTakes) {
    broker.RemovePeer(2);
    broker.RemovePeer(3);
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
    now += seconds(100);
    broker.OnDecision(1, "no", now);
    EXPECT_FALSE(broker.OnTime(now));
    EXPECT_EQ(Take(1), NoticeBytes("no") + StateBytes(kFailed, 0));
    EXPECT_FALSE(broker.OnTime(now));
}

TEST_F(AskingBrokerTest, TheOwnerIsAskedAgainIfTheCameraHasChanged) {
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
    broker.OnDecision(1, "", now);
    // Another device has got the file.
    files.OnLogLine("[CameraEnumerator]  id: 0 name: Door bus:  usb-2 file: /dev/video3 res: ");
    identity = "other";
    Check(1);
    EXPECT_EQ(Next(), Bytes());
    const auto events = broker.TakeEvents();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].kind, Broker::Event::Kind::kAsked);
    EXPECT_EQ(events[0].camera.name, "Door");
}

TEST_F(AskingBrokerTest, AnAgreementIsNotForAnotherDeviceThatAPeerHasOpened) {
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
    identity = "other";
    Ask(2, OpenBytes(0));
    Check(2);
    ExpectQuestion(2);
    broker.OnDecision(2, "", now);
    Check(2);
    identity = "one";
    broker.OnDecision(1, "", now);
    Check(1);
    // Both are allowed now.
    ASSERT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Take(2), StateBytes(kOpen, 0));
    EXPECT_EQ(broker.TakeEvents().size(), 1U);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(1), Bytes());
    ExpectQuestion(1);
}

TEST_F(AskingBrokerTest, AnOpenThatWaitsCountsAsOneRequest) {
    Ask(1, OpenBytes(0));
    Check(1);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(Next(), Bytes());
    }
    EXPECT_EQ(Take(1), Bytes());
    broker.OnDecision(1, "", now);
    Check(1);
    EXPECT_EQ(Next(), OpenBytes(0));
}

TEST_F(AskingBrokerTest, TheOwnersAgreementIsForOneFormat) {
    Ask(1, OpenBytes(0));
    Check(1);
    broker.OnDecision(1, "", now);
    Check(1);
    ASSERT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(Take(1), StateBytes(kOpen, 0));
    Ask(1, SetFormatBytes(0, 1920, 1080, 30) + SetFormatBytes(0, 640, 480, 30));
    EXPECT_EQ(Next(), SetFormatBytes(0, 640, 480, 30));
    EXPECT_EQ(Take(1), NoticeBytes("the owner of this host has agreed to 640x480, 30 frames per second") +
                           StateBytes(kFailed, 0));
}

TEST_F(AskingBrokerTest, APeerMayTrySmallerSizesAfterTheOwnerHasAgreed) {
    const auto ask = [&](int width, int height, int rate) {
        Ask(1, OpenBytes(0, static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                         static_cast<uint32_t>(rate)));
        Check(1);
    };
    // The owner need not be asked, and the camera does not start.
    const auto expect_open = [&] {
        EXPECT_TRUE(broker.TakeEvents().empty());
        EXPECT_NE(Next(), Bytes());
        Plugin(StateBytes(kFailed, 0));
        EXPECT_EQ(Take(1), StateBytes(kFailed, 0));
    };
    const auto expect_question = [&] {
        EXPECT_EQ(broker.TakeEvents().size(), 1U);
        EXPECT_EQ(Next(), Bytes());
        broker.OnDecision(1, "", now);
        Check(1);
    };
    ask(1280, 720, 30);
    expect_question();
    expect_open();
    ask(640, 480, 30);
    expect_open();
    now += milliseconds(9'999);
    ask(1280, 720, 15);
    expect_open();
    now += milliseconds(1);
    ask(640, 480, 30);
    expect_question();  // the time is over
    expect_open();
    ask(648, 480, 30);
    expect_question();  // larger
    expect_open();
    ask(640, 488, 30);
    expect_question();
    expect_open();
    ask(640, 488, 31);
    expect_question();
    expect_open();
    identity = "other";
    ask(640, 480, 30);
    expect_question();
    EXPECT_NE(Next(), Bytes());
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(broker.TakeEvents().size(), 1U);
    Ask(1, CloseBytes(0));
    EXPECT_EQ(Next(), CloseBytes(0));
    EXPECT_EQ(broker.TakeEvents().size(), 1U);
    ask(640, 480, 30);
    expect_question();  // the agreement was for one open
}

TEST_F(AskingBrokerTest, APeerMayTakeTheSizeThatIsInUseWithoutAFurtherQuestion) {
    Ask(1, OpenBytes(0));
    Check(1);
    broker.OnDecision(1, "", now);
    Check(1);
    EXPECT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    Ask(2, OpenBytes(0, 1280, 720, 30));
    EXPECT_EQ(Next(), Bytes());
    broker.OnDecision(2, "", now);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), NoticeBytes("camera 0 is in use by another peer at 640x480, 30 frames per second") +
                           StateBytes(kFailed, 0));
    broker.TakeEvents();
    Ask(2, OpenBytes(0));
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), StateBytes(kOpen, 0));
    EXPECT_EQ(broker.TakeEvents().size(), 1U);  // opened
    // Peer 3 has no agreement.
    Ask(3, OpenBytes(0));
    EXPECT_EQ(Next(), Bytes());
    ExpectQuestion(3);
}

TEST_F(AskingBrokerTest, AfterANoAnEarlierAgreementIsForgotten) {
    Ask(1, OpenBytes(0));
    Check(1);
    broker.OnDecision(1, "", now);
    Check(1);
    EXPECT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kFailed, 0));
    Ask(1, OpenBytes(0, 1280, 720, 30));
    Check(1);
    broker.OnDecision(1, "no", now);
    broker.TakeEvents();
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
}

TEST_F(AskingBrokerTest, EachPeerNeedsTheOwnersAgreement) {
    Ask(1, OpenBytes(0));
    Check(1);
    ExpectQuestion(1);
    broker.OnDecision(1, "", now);
    Check(1);
    EXPECT_EQ(Next(), OpenBytes(0));
    Plugin(StateBytes(kOpen, 0));
    EXPECT_EQ(broker.TakeEvents().size(), 1U);
    Ask(2, OpenBytes(0));
    EXPECT_EQ(Next(), Bytes());
    ExpectQuestion(2);
    EXPECT_EQ(Take(2), Bytes());
    broker.OnDecision(2, "", now);
    EXPECT_EQ(Next(), Bytes());
    EXPECT_EQ(Take(2), StateBytes(kOpen, 0));
}

TEST_F(AskingBrokerTest, AQuestionOfAPeerThatHasLeftIsForgotten) {
    Ask(1, OpenBytes(0));
    Check(1);
    broker.RemovePeer(1);
    broker.OnDecision(1, "", now);
    EXPECT_EQ(Next(), Bytes());
}

TEST_F(BrokerTest, EventsSayWhichPeerUsesWhichCameraForHowLong) {
    files.OnLogLine("[CameraEnumerator]  id: 0 name: Desk bus:  usb-1 file: /dev/video3 res: ");
    OpenFirst(1, 0);
    now += seconds(2);
    Plugin(KeyFrame(0, 1));
    Plugin(NextFrame(0, 2));
    OpenFurther(2, 0);
    auto events = broker.TakeEvents();
    ASSERT_EQ(events.size(), 2U);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(events[i].kind, Broker::Event::Kind::kOpened);
        EXPECT_EQ(events[i].peer, i + 1);
        EXPECT_EQ(events[i].camera.name, "Desk");
    }
    now += seconds(1);
    Ask(1, CloseBytes(0));
    EXPECT_EQ(Next(), Bytes());
    Plugin(NextFrame(0, 3));
    broker.RemovePeer(2);
    events = broker.TakeEvents();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].kind, Broker::Event::Kind::kClosed);
    EXPECT_EQ(events[0].peer, 1U);
    EXPECT_EQ(events[0].time, seconds(3));
    EXPECT_EQ(events[0].frames, 2U);
    EXPECT_EQ(events[0].bytes, 27U + 21U);
    EXPECT_EQ(events[1].peer, 2U);
    EXPECT_EQ(events[1].time, seconds(1));
    EXPECT_EQ(events[1].frames, 3U);
    // An open without an answer has happened, too.
    Ask(3, OpenBytes(1));
    EXPECT_EQ(Next(), CloseBytes(0));
    EXPECT_EQ(Next(), OpenBytes(1));
    EXPECT_EQ(Next(), Bytes());
    events = broker.TakeEvents();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].kind, Broker::Event::Kind::kOpened);
    EXPECT_EQ(events[0].peer, 3U);
    // A camera that does not open has no events.
    Ask(3, OpenBytes(7));
    EXPECT_EQ(Next(), OpenBytes(7));
    Plugin(StateBytes(kFailed, 7));
    EXPECT_TRUE(broker.TakeEvents().empty());
}

class ListOnlyBrokerTest : public BrokerTest {
protected:
    ListOnlyBrokerTest() : BrokerTest({{}, {}, true}) {}
};

TEST_F(ListOnlyBrokerTest, ListsAndOpensNothing) {
    Ask(1, OpenBytes(0) + OpenBytes(1) + kGetListBytes);
    EXPECT_EQ(Next(), kGetListBytes);
    const Bytes notice = NoticeBytes("this host lists its cameras and opens none");
    EXPECT_EQ(Take(1), notice + StateBytes(kFailed, 0) + notice + StateBytes(kFailed, 1));
}

}  // namespace
}  // namespace zumod::host
