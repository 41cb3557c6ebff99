#include "peer/published_camera.h"

#include <gtest/gtest.h>

namespace zumod::peer {

// For messages of failed tests.
void PrintTo(const PublishAction& action, std::ostream* out) {
    *out << "{" << action.kind << ", " << action.id << ", " << SizeText(action.format.size) << " at "
         << action.format.fps << ", \"" << action.text << "\"}";
}

namespace {

using std::chrono::milliseconds;
using Actions = PublishedCamera::Actions;

CameraEntry Camera(uint32_t id, const std::string& name) {
    return {id, false, name, name, {{640, 480}}};
}

constexpr StreamFormat kDefault{{640, 480}, 30};
constexpr StreamFormat kSmall{{320, 240}, 15};

const PublishAction kAsk{.kind = PublishAction::kAskCameras};
const PublishAction kCard{.kind = PublishAction::kShowCard};
const PublishAction kWithdraw{.kind = PublishAction::kWithdraw};
const PublishAction kPublish{.kind = PublishAction::kPublish};
PublishAction Open(uint32_t id, StreamFormat format = kDefault) {
    return {.kind = PublishAction::kOpen, .id = id, .format = format};
}
PublishAction SetFormat(uint32_t id, StreamFormat format) {
    return {.kind = PublishAction::kSetFormat, .id = id, .format = format};
}
PublishAction Close(uint32_t id) {
    return {.kind = PublishAction::kClose, .id = id};
}
PublishAction Report(const std::string& text) {
    return {.kind = PublishAction::kReport, .text = text};
}

// Camera 1, "Desk", published at 0 ms. Only the test moves the clock.
class PublishedCameraTest : public ::testing::Test {
protected:
    static Clock::time_point At(int ms) { return Clock::time_point(milliseconds(ms)); }
    int NextMs() const {
        return static_cast<int>(
            std::chrono::duration_cast<milliseconds>(camera.NextTime().time_since_epoch()).count());
    }
    Actions OnTime(int ms) {
        const auto actions = camera.OnTime(At(ms));
        EXPECT_TRUE(actions.has_value());
        return actions.value_or(Actions{});
    }
    // A reader at `ms`, and a camera that opens and sends a frame at once.
    void StreamFrom(int ms) {
        EXPECT_EQ(camera.OnReaders(true, At(ms)), Actions{Open(1)});
        EXPECT_EQ(camera.OnState({kCameraOpen, 1}, At(ms)), Actions{});
        EXPECT_EQ(camera.OnFrame(At(ms)), Actions{});
    }
    // The camera streams at 0 ms and is unplugged then.
    void LoseAtOneSecond() {
        StreamFrom(0);
        EXPECT_EQ(OnTime(500), Actions{kAsk});
        EXPECT_EQ(camera.OnCameras(front, At(510)),
                  (Actions{kCard, Report("camera 1 (Desk) is gone"), Close(1)}));
    }

    const std::vector<CameraEntry> both = {Camera(0, "Front"), Camera(1, "Desk")};
    const std::vector<CameraEntry> front = {Camera(0, "Front")};
    const std::vector<CameraEntry> desk_is_first = {Camera(0, "Desk")};
    PublishedCamera camera{both, both[1], kDefault, {}, At(0)};
};

TEST_F(PublishedCameraTest, OpensWithTheFirstReader) {
    EXPECT_FALSE(camera.WantsFrames(1));
    EXPECT_EQ(camera.OnReaders(true, At(100)), Actions{Open(1)});
    EXPECT_TRUE(camera.WantsFrames(1));
    EXPECT_FALSE(camera.WantsFrames(0));
    EXPECT_EQ(camera.OnState({kCameraOpen, 1}, At(200)), Actions{});
    EXPECT_EQ(camera.OnFrame(At(300)), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(400)), Actions{});
}

TEST_F(PublishedCameraTest, OpensWithTheFormatThatTheReaderWants) {
    EXPECT_EQ(camera.OnFormat(kSmall, At(0)), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(100)), (Actions{Open(1, kSmall)}));
}

TEST_F(PublishedCameraTest, ChangesTheFormatWhileItIsOpen) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnFormat(kSmall, At(100)), (Actions{SetFormat(1, kSmall)}));
    EXPECT_EQ(camera.OnFormat(kSmall, At(200)), Actions{});
    EXPECT_EQ(camera.Format(), kSmall);
}

TEST_F(PublishedCameraTest, KeepsACameraWhoseChangeOfFormatIsRefused) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnFormat(kSmall, At(100)), (Actions{SetFormat(1, kSmall)}));
    EXPECT_EQ(camera.OnState({kCameraFailed, 1}, At(200)),
              Actions{Report("camera 1 (Desk) keeps its format: the host refused another one")});
    ASSERT_TRUE(camera.WantsFrames(1));
    EXPECT_EQ(camera.OnFrame(At(300)), Actions{});
    EXPECT_EQ(OnTime(400), Actions{});
    EXPECT_EQ(camera.OnReaders(false, At(500)), Actions{});
    EXPECT_EQ(camera.OnFrame(At(2400)), Actions{});
    EXPECT_EQ(OnTime(2500), Actions{Close(1)});
}

TEST_F(PublishedCameraTest, ClosesACameraThatFailsWithoutARequest) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnState({kCameraFailed, 1}, At(10)),
              (Actions{kCard, Report("camera 1 (Desk) was closed by the host"), Close(1)}));
}

TEST_F(PublishedCameraTest, ClosesTwoSecondsAfterTheLastReader) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnReaders(false, At(100)), Actions{});
    for (int ms = 100; ms < 2100; ms += 100) {
        EXPECT_EQ(camera.OnFrame(At(ms)), Actions{});
        EXPECT_EQ(OnTime(ms), Actions{});
    }
    EXPECT_EQ(NextMs(), 2100);
    EXPECT_EQ(OnTime(2100), Actions{Close(1)});
    EXPECT_FALSE(camera.WantsFrames(1));
    EXPECT_EQ(camera.OnState({kCameraClosed, 1}, At(2200)), Actions{});
}

TEST_F(PublishedCameraTest, StaysOpenForAReaderWhoReturnsAtOnce) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnReaders(false, At(100)), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(400)), Actions{});
    for (int ms = 400; ms < 5000; ms += 100) {
        EXPECT_EQ(camera.OnFrame(At(ms)), Actions{});
        EXPECT_EQ(OnTime(ms), Actions{});
    }
}

TEST_F(PublishedCameraTest, OpensAgainForTheNextReader) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnReaders(false, At(100)), Actions{});
    EXPECT_EQ(camera.OnFrame(At(2000)), Actions{});
    EXPECT_EQ(OnTime(2100), Actions{Close(1)});
    StreamFrom(2150);
}

TEST_F(PublishedCameraTest, ShowsACardOncePerSecondWhileTheCameraIsGone) {
    LoseAtOneSecond();
    EXPECT_EQ(OnTime(1510), (Actions{kAsk, kCard}));
    EXPECT_EQ(camera.OnCameras(front, At(1520)), Actions{});
    EXPECT_EQ(NextMs(), 2510);
    EXPECT_EQ(OnTime(2520), (Actions{kAsk, kCard}));
}

TEST_F(PublishedCameraTest, GoesOnWhenTheCameraIsBackUnderAnotherId) {
    LoseAtOneSecond();
    EXPECT_EQ(OnTime(1510), (Actions{kAsk, kCard}));
    EXPECT_EQ(camera.OnCameras(desk_is_first, At(1520)), Actions{Open(0)});
    EXPECT_EQ(camera.OnState({kCameraOpen, 0}, At(1600)), Actions{});
    EXPECT_TRUE(camera.WantsFrames(0));
    EXPECT_EQ(camera.OnFrame(At(1700)), Actions{Report("camera 0 (Desk) is back")});
    EXPECT_EQ(camera.OnFrame(At(2100)), Actions{});
    EXPECT_EQ(OnTime(2520), Actions{});
}

TEST_F(PublishedCameraTest, ACameraThatWasClosedByTheHostIsGone) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnState({kCameraClosed, 1}, At(10)),
              (Actions{kCard, Report("camera 1 (Desk) was closed by the host"), Close(1)}));
}

TEST_F(PublishedCameraTest, ShowsACardIfTheOpenCameraSendsNothing) {
    EXPECT_EQ(camera.OnReaders(true, At(0)), Actions{Open(1)});
    EXPECT_EQ(camera.OnState({kCameraOpen, 1}, At(0)), Actions{});
    EXPECT_EQ(OnTime(1500), Actions{kAsk});
    EXPECT_EQ(camera.OnCameras(both, At(1510)), Actions{});
    EXPECT_EQ(OnTime(3000), (Actions{Close(1), kCard, Report("camera 1 (Desk) sends no frame")}));
}

TEST_F(PublishedCameraTest, WaitsLongerAfterEachFailedOpen) {
    EXPECT_EQ(camera.OnReaders(true, At(0)), Actions{Open(1)});
    const auto fail = [&](int ms) { return camera.OnState({kCameraFailed, 1}, At(ms)); };
    const PublishAction report = Report("camera 1 (Desk) could not be opened");
    EXPECT_EQ(fail(0), (Actions{kCard, report}));
    EXPECT_FALSE(camera.WantsFrames(1));
    EXPECT_EQ(OnTime(999), Actions{});
    EXPECT_EQ(OnTime(1000), (Actions{Open(1), kCard}));
    EXPECT_EQ(fail(1000), Actions{report});
    EXPECT_EQ(OnTime(2500), Actions{kCard});
    EXPECT_EQ(OnTime(3000), Actions{Open(1)});
    for (int ms = 3000, pause = 4000; ms < 300000; ms += pause, pause = std::min(2 * pause, 30000)) {
        EXPECT_EQ(fail(ms), Actions{report});
        EXPECT_EQ(OnTime(ms + pause - 1), (Actions{kAsk, kCard}));
        EXPECT_EQ(camera.OnCameras(both, At(ms + pause - 1)), Actions{});
        EXPECT_EQ(OnTime(ms + pause), Actions{Open(1)});
    }
}

TEST_F(PublishedCameraTest, TriesSmallerSizesUnlessTheHostSaysWhyItFails) {
    CameraEntry many = Camera(1, "Desk");
    many.sizes = {{160, 120}, {1280, 720}, {640, 480}, {320, 240}};
    PublishedCamera lent({many}, many, {{1280, 720}, 25}, {}, At(0));
    const auto fail = [&](int ms, bool may_be_size) {
        return lent.OnState({kCameraFailed, 1}, At(ms), may_be_size);
    };
    EXPECT_EQ(lent.OnReaders(true, At(0)), (Actions{Open(1, {{1280, 720}, 25})}));
    EXPECT_EQ(fail(10, true), (Actions{Open(1, {{640, 480}, 25})}));
    EXPECT_EQ(fail(20, true), (Actions{Open(1, {{320, 240}, 25})}));
    const PublishAction smaller =
        Report("camera 1 (Desk) is open at 320x240, because larger sizes could not be opened");
    EXPECT_EQ(lent.OnState({kCameraOpen, 1}, At(30), true), Actions{smaller});
    EXPECT_EQ(lent.OnState({kCameraOpen, 1}, At(30), true), Actions{});
    ASSERT_TRUE(lent.WantsFrames(1));
    EXPECT_EQ(lent.OnFrame(At(40)), Actions{});
    EXPECT_EQ(lent.Format(), (StreamFormat{{1280, 720}, 25}));

    // The next reader begins with its own size; a reason ends the trials.
    EXPECT_EQ(lent.OnReaders(false, At(50)), Actions{});
    EXPECT_EQ(lent.OnTime(At(2050)).value_or(Actions{}), Actions{Close(1)});
    EXPECT_EQ(lent.OnReaders(true, At(2100)), (Actions{Open(1, {{1280, 720}, 25})}));
    EXPECT_EQ(fail(2110, true), (Actions{Open(1, {{640, 480}, 25})}));
    const PublishAction failed = Report("camera 1 (Desk) could not be opened");
    EXPECT_EQ(fail(2120, false), (Actions{kCard, failed}));
    EXPECT_EQ(lent.OnTime(At(3120)).value_or(Actions{}), (Actions{Open(1, {{1280, 720}, 25}), kCard}));
    EXPECT_EQ(fail(3130, true), (Actions{Open(1, {{640, 480}, 25})}));
    EXPECT_EQ(fail(3140, true), (Actions{Open(1, {{320, 240}, 25})}));
    EXPECT_EQ(fail(3150, true), (Actions{Open(1, {{160, 120}, 25})}));
    EXPECT_EQ(fail(3160, true), Actions{failed});
}

TEST_F(PublishedCameraTest, ForgetsAFailedOpenWhenTheLastReaderHasLeft) {
    EXPECT_EQ(camera.OnReaders(true, At(0)), Actions{Open(1)});
    EXPECT_EQ(camera.OnState({kCameraFailed, 1}, At(0)).size(), 2U);
    EXPECT_EQ(camera.OnReaders(false, At(100)), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(200)), Actions{});
    EXPECT_EQ(OnTime(200), Actions{kCard});
    EXPECT_EQ(camera.OnReaders(false, At(300)), Actions{});
    EXPECT_EQ(OnTime(2300), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(2400)), Actions{Open(1)});
}

TEST_F(PublishedCameraTest, AnOpenThatIsNotAnsweredIsAFailedOne) {
    EXPECT_EQ(camera.OnReaders(true, At(0)), Actions{Open(1)});
    EXPECT_EQ(OnTime(10000),
              (Actions{Close(1), kCard, Report("camera 1 (Desk) was not opened within 10.0 s")}));
    EXPECT_EQ(OnTime(11000), (Actions{Open(1), kCard}));
}

TEST_F(PublishedCameraTest, AStreamNeedsNoAnswerToTheListRequest) {
    StreamFrom(0);
    EXPECT_EQ(OnTime(500), Actions{kAsk});
    for (int ms = 600; ms < 20000; ms += 100) {
        ASSERT_TRUE(camera.WantsFrames(1));
        EXPECT_EQ(camera.OnFrame(At(ms)), Actions{});
        EXPECT_EQ(OnTime(ms), Actions{});
    }
    EXPECT_TRUE(camera.WantsFrames(1));
}

TEST_F(PublishedCameraTest, AsksForTheListWhileNobodyReads) {
    EXPECT_EQ(NextMs(), 3000);
    EXPECT_EQ(OnTime(3000), Actions{kAsk});
    EXPECT_EQ(OnTime(3100), Actions{});
    EXPECT_EQ(camera.OnCameras(both, At(3200)), Actions{});
    EXPECT_EQ(OnTime(6200), Actions{kAsk});
    EXPECT_FALSE(camera.OnTime(At(16200)).has_value());
}

TEST_F(PublishedCameraTest, IsWithdrawnAfterTenSecondsWithoutCameraAndReader) {
    EXPECT_EQ(camera.OnCameras(front, At(1000)), Actions{});
    EXPECT_EQ(camera.OnCameras(front, At(10999)), Actions{});
    EXPECT_EQ(OnTime(10999), Actions{});
    EXPECT_EQ(NextMs(), 11000);
    EXPECT_EQ(OnTime(11000), Actions{kWithdraw});
    EXPECT_FALSE(camera.IsPublished());
    EXPECT_EQ(camera.OnCameras(both, At(12000)), Actions{kPublish});
    EXPECT_TRUE(camera.IsPublished());
}

TEST_F(PublishedCameraTest, IsNotWithdrawnFromAReader) {
    LoseAtOneSecond();
    for (int ms = 1510; ms < 60000; ms += 1000) {
        EXPECT_EQ(OnTime(ms), (Actions{kAsk, kCard}));
        EXPECT_EQ(camera.OnCameras(front, At(ms)), Actions{});
    }
    EXPECT_EQ(camera.OnReaders(false, At(60000)), Actions{});
    EXPECT_EQ(OnTime(62000), Actions{});
    EXPECT_EQ(camera.OnCameras(front, At(62000)), Actions{});
    EXPECT_EQ(camera.OnCameras(front, At(71999)), Actions{});
    EXPECT_EQ(OnTime(71999), Actions{});
    EXPECT_EQ(OnTime(72000), Actions{kWithdraw});
}

TEST_F(PublishedCameraTest, AReaderOfAnAbsentCameraSeesACard) {
    EXPECT_EQ(camera.OnCameras(front, At(1000)), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(2000)), (Actions{kCard, Report("camera 1 (Desk) is gone")}));
    EXPECT_EQ(OnTime(3000), (Actions{kAsk, kCard}));
    EXPECT_EQ(camera.OnCameras(both, At(3100)), Actions{Open(1)});
}

TEST_F(PublishedCameraTest, OpensTheOnlyNamesakeThatIsLeft) {
    const std::vector<CameraEntry> two = {Camera(0, "Desk"), Camera(1, "Desk")};
    for (const CameraEntry& each : two) {
        PublishedCamera lent(two, each, kDefault, {}, At(0));
        for (int ms = 1000; ms < 20000; ms += 1000) {
            EXPECT_EQ(lent.OnCameras(desk_is_first, At(ms)), Actions{});
            EXPECT_EQ(lent.OnTime(At(ms)).value_or(Actions{kAsk}), Actions{});
        }
        EXPECT_EQ(lent.OnReaders(true, At(20000)), Actions{Open(0)});
        EXPECT_EQ(lent.OnState({kCameraOpen, 0}, At(20000)), Actions{});
        ASSERT_TRUE(lent.WantsFrames(0));
        EXPECT_EQ(lent.OnFrame(At(20000)),
                  Actions{Report("camera 0 (Desk) sends pictures, or another camera of this name")});
        EXPECT_EQ(lent.OnReaders(false, At(20001)), Actions{});
        EXPECT_EQ(lent.OnTime(At(22001)).value_or(Actions{}), (Actions{Close(0), kAsk}));
        // With both of them it is known again.
        EXPECT_EQ(lent.OnCameras(two, At(22500)), Actions{});
        EXPECT_EQ(lent.OnReaders(true, At(23000)), Actions{Open(each.id)});
    }
}

TEST_F(PublishedCameraTest, SearchesForTheCameraInTheNextConnection) {
    StreamFrom(0);
    EXPECT_EQ(camera.OnDisconnect(At(100)), Actions{kCard});
    EXPECT_FALSE(camera.WantsFrames(1));
    EXPECT_EQ(OnTime(200), Actions{kAsk});
    EXPECT_EQ(camera.OnCameras(desk_is_first, At(300)), Actions{Open(0)});
}

TEST_F(PublishedCameraTest, OpensNoCameraByTheListOfALostConnection) {
    EXPECT_EQ(camera.OnDisconnect(At(100)), Actions{});
    EXPECT_EQ(camera.OnReaders(true, At(200)), (Actions{kCard, Report("camera 1 (Desk) is gone")}));
    EXPECT_EQ(OnTime(1200), (Actions{kAsk, kCard}));
    EXPECT_EQ(camera.OnCameras(desk_is_first, At(1300)), Actions{Open(0)});
}

}  // namespace
}  // namespace zumod::peer
