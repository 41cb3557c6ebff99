#include "peer/camera_watch.h"

#include <gtest/gtest.h>

namespace zumod::peer {

// For messages of failed tests.
void PrintTo(const WatchAction& action, std::ostream* out) {
    *out << "{" << action.kind << ", " << action.id << ", " << static_cast<int>(action.event) << ", \""
         << action.text << "\"}";
}

namespace {

using std::chrono::milliseconds;
using Actions = CameraWatch::Actions;

CameraEntry Camera(uint32_t id, const std::string& name) {
    return {id, false, name, name, {{640, 480}}};
}

const WatchAction kAsk{WatchAction::kAskCameras, 0, {}, {}};
WatchAction Open(uint32_t id) {
    return {WatchAction::kOpen, id, {}, {}};
}
WatchAction Close(uint32_t id) {
    return {WatchAction::kClose, id, {}, {}};
}
WatchAction Announce(CameraEvent event, const std::string& text) {
    return {WatchAction::kAnnounce, 0, event, text};
}

// A watch of camera 1, "Desk", which was opened at 0 ms. Only the test moves the clock.
class CameraWatchTest : public ::testing::Test {
protected:
    static Clock::time_point At(int ms) { return Clock::time_point(milliseconds(ms)); }
    static int NextMs(const CameraWatch& watch) {
        return static_cast<int>(
            std::chrono::duration_cast<milliseconds>(watch.NextTime().time_since_epoch()).count());
    }

    // Frames every 100 ms from 0 to `ms`.
    void StreamUntil(int ms) {
        for (int at = 0; at <= ms; at += 100) {
            EXPECT_EQ(watch.OnTime(At(at)), Actions{});
            EXPECT_EQ(watch.OnFrame(At(at)), Actions{});
        }
    }

    const std::vector<CameraEntry> both = {Camera(0, "Front"), Camera(1, "Desk")};
    const std::vector<CameraEntry> front = {Camera(0, "Front")};
    const std::vector<CameraEntry> desk_is_first = {Camera(0, "Desk")};
    CameraWatch watch{both, both[1], {}, At(0)};
};

TEST_F(CameraWatchTest, DoesNothingWhileFramesArrive) {
    StreamUntil(5000);
    EXPECT_TRUE(watch.IsOurs(1));
    EXPECT_FALSE(watch.IsOurs(0));
    EXPECT_FALSE(watch.IsAway());
    EXPECT_EQ(NextMs(watch), 5500);
}

TEST_F(CameraWatchTest, ReportsARemovedCameraWithinASecond) {
    StreamUntil(1000);
    EXPECT_EQ(watch.OnTime(At(1499)), Actions{});
    EXPECT_EQ(watch.OnTime(At(1500)), Actions{kAsk});
    EXPECT_EQ(watch.OnTime(At(1501)), Actions{});
    EXPECT_EQ(watch.OnCameras(front, At(1510)),
              (Actions{Announce(CameraEvent::kGone, "camera 1 (Desk) is gone"), Close(1)}));
    EXPECT_TRUE(watch.IsAway());
    EXPECT_FALSE(watch.IsOurs(1));
}

TEST_F(CameraWatchTest, ReportsAListedCameraAsStalledAfterASecond) {
    StreamUntil(1000);
    EXPECT_EQ(watch.OnTime(At(1500)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(both, At(1510)), Actions{});
    EXPECT_EQ(NextMs(watch), 2000);
    EXPECT_EQ(watch.OnTime(At(1999)), Actions{});
    EXPECT_EQ(
        watch.OnTime(At(2000)),
        (Actions{Announce(CameraEvent::kStalled, "camera 1 (Desk) stalled: no frame for 1.0 s"), Close(1)}));
    EXPECT_EQ(NextMs(watch), 3000);
}

TEST_F(CameraWatchTest, ReportsAStallEvenIfTheHostDoesNotAnswer) {
    StreamUntil(1000);
    EXPECT_EQ(watch.OnTime(At(1500)), Actions{kAsk});
    EXPECT_EQ(watch.OnTime(At(2000))->size(), 2U);
}

TEST_F(CameraWatchTest, StartsAgainWhenAFrameArrives) {
    StreamUntil(1000);
    EXPECT_EQ(watch.OnTime(At(1500)), Actions{kAsk});
    EXPECT_EQ(watch.OnFrame(At(1505)), Actions{});
    // An outdated or wrong list: the camera still sends frames.
    EXPECT_EQ(watch.OnCameras(front, At(1510)), Actions{});
    EXPECT_EQ(watch.OnTime(At(2004)), Actions{});
    EXPECT_EQ(watch.OnTime(At(2005)), Actions{kAsk});
}

TEST_F(CameraWatchTest, SearchesEverySecondAndOpensTheCameraUnderItsNewId) {
    StreamUntil(1000);
    watch.OnTime(At(1500));
    watch.OnCameras(front, At(1500));
    EXPECT_EQ(NextMs(watch), 2500);
    EXPECT_EQ(watch.OnTime(At(2499)), Actions{});
    EXPECT_EQ(watch.OnTime(At(2500)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(front, At(2510)), Actions{});
    EXPECT_EQ(watch.OnTime(At(3509)), Actions{});
    EXPECT_EQ(watch.OnTime(At(3510)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(desk_is_first, At(3520)), Actions{Open(0)});
    EXPECT_TRUE(watch.IsAway());
    EXPECT_EQ(watch.OnState({kCameraOpen, 0}, At(3600)), Actions{});
    EXPECT_FALSE(watch.IsAway());
    EXPECT_TRUE(watch.IsOurs(0));
    EXPECT_FALSE(watch.IsOurs(1));
    // Away since the last frame, at 1000 ms.
    EXPECT_EQ(watch.OnFrame(At(4000)),
              Actions{Announce(CameraEvent::kBack, "camera 0 (Desk) is back after 3.0 s")});
    EXPECT_EQ(watch.OnFrame(At(4100)), Actions{});
}

TEST_F(CameraWatchTest, AcceptsAFrameThatArrivesBeforeTheAnswer) {
    StreamUntil(1000);
    watch.OnTime(At(2000));
    watch.OnTime(At(3000));
    EXPECT_EQ(watch.OnCameras(both, At(3000)), Actions{Open(1)});
    EXPECT_TRUE(watch.IsOurs(1));
    EXPECT_EQ(watch.OnFrame(At(3050)), Actions{});
    EXPECT_EQ(watch.OnState({kCameraOpen, 1}, At(3060)).size(), 1U);
}

TEST_F(CameraWatchTest, ReportsThatAStalledCameraIsGone) {
    StreamUntil(1000);
    watch.OnTime(At(1500));
    watch.OnCameras(both, At(1500));
    EXPECT_EQ(watch.OnTime(At(2000))->size(), 2U);
    EXPECT_EQ(watch.OnTime(At(3000)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(front, At(3001)),
              Actions{Announce(CameraEvent::kGone, "camera 1 (Desk) is gone")});
    EXPECT_EQ(watch.OnTime(At(4001)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(front, At(4002)), Actions{});
}

TEST_F(CameraWatchTest, DoesNotOpenTheCameraForAListRequestedBeforeItGaveUp) {
    StreamUntil(1000);
    EXPECT_EQ(watch.OnTime(At(1500)), Actions{kAsk});
    EXPECT_EQ(watch.OnTime(At(2000))->size(), 2U);
    EXPECT_EQ(watch.OnCameras(both, At(2010)), Actions{});
    EXPECT_EQ(watch.OnTime(At(3000)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(both, At(3010)), Actions{Open(1)});
}

TEST_F(CameraWatchTest, TriesAgainAfterAFailedOpen) {
    StreamUntil(1000);
    watch.OnTime(At(2000));
    watch.OnTime(At(3000));
    EXPECT_EQ(watch.OnCameras(both, At(3000)), Actions{Open(1)});
    EXPECT_EQ(watch.OnState({kCameraFailed, 1}, At(3100)), Actions{});
    EXPECT_EQ(watch.OnTime(At(4100)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(both, At(4100)), Actions{Open(1)});
}

TEST_F(CameraWatchTest, ClosesACameraSilentlyThatOpensAndSendsNoFrame) {
    StreamUntil(1000);
    watch.OnTime(At(2000));
    watch.OnTime(At(3000));
    watch.OnCameras(both, At(3000));
    watch.OnState({kCameraOpen, 1}, At(3000));
    EXPECT_EQ(watch.OnTime(At(4500)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(both, At(4500)), Actions{});
    EXPECT_EQ(watch.OnTime(At(6000)), Actions{Close(1)});
    EXPECT_TRUE(watch.IsAway());
}

TEST_F(CameraWatchTest, AllowsMoreTimeForTheFirstFrame) {
    EXPECT_EQ(watch.OnTime(At(1499)), Actions{});
    EXPECT_EQ(watch.OnTime(At(1500)), Actions{kAsk});
    EXPECT_EQ(watch.OnTime(At(2999)), Actions{});
    EXPECT_EQ(
        watch.OnTime(At(3000)),
        (Actions{Announce(CameraEvent::kStalled, "camera 1 (Desk) stalled: no frame for 3.0 s"), Close(1)}));
}

TEST_F(CameraWatchTest, ReportsThatTheHostClosedTheCamera) {
    StreamUntil(1000);
    EXPECT_EQ(watch.OnState({kCameraClosed, 0}, At(1001)), Actions{}) << "another camera's";
    EXPECT_EQ(watch.OnState({kCameraClosed, 1}, At(1002)),
              (Actions{Announce(CameraEvent::kClosed, "camera 1 (Desk) was closed by the host"), Close(1)}));
    // The answer to its own request.
    EXPECT_EQ(watch.OnState({kCameraClosed, 1}, At(1003)), Actions{});
}

TEST_F(CameraWatchTest, KeepsAStalledCameraOpenIfToldSoAndLooksItUpEverySecond) {
    CameraWatch patient(both, both[1], {.closes_stalled = false}, At(0));
    patient.OnFrame(At(0));
    EXPECT_EQ(NextMs(patient), 500);
    EXPECT_EQ(patient.OnTime(At(500)), Actions{kAsk});
    EXPECT_EQ(patient.OnCameras(both, At(510)), Actions{});
    EXPECT_EQ(NextMs(patient), 1500);
    EXPECT_EQ(patient.OnTime(At(1499)), Actions{});
    EXPECT_EQ(patient.OnTime(At(1500)), Actions{kAsk});
    EXPECT_FALSE(patient.IsAway());
    EXPECT_EQ(patient.OnCameras(front, At(1510)),
              (Actions{Announce(CameraEvent::kGone, "camera 1 (Desk) is gone"), Close(1)}));
}

TEST_F(CameraWatchTest, LooksTheCameraUpInTheNextConnection) {
    StreamUntil(1000);
    watch.OnTime(At(1500));
    watch.OnDisconnect(At(1600));
    EXPECT_TRUE(watch.IsAway());
    EXPECT_EQ(NextMs(watch), 1600);
    EXPECT_EQ(watch.OnTime(At(1600)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(desk_is_first, At(1700)), Actions{Open(0)});
    watch.OnDisconnect(At(1800));
    EXPECT_EQ(watch.OnTime(At(5000)), Actions{kAsk});
    EXPECT_EQ(watch.OnCameras(both, At(5100)), Actions{Open(1)});
    EXPECT_EQ(watch.OnState({kCameraOpen, 1}, At(5200)), Actions{});
    EXPECT_EQ(watch.OnFrame(At(6000)),
              Actions{Announce(CameraEvent::kBack, "camera 1 (Desk) is back after 5.0 s")});
}

TEST_F(CameraWatchTest, FailsIfTheHostDoesNotAnswer) {
    StreamUntil(1000);
    watch.OnTime(At(2000));
    EXPECT_EQ(watch.OnTime(At(3000)), Actions{kAsk});
    EXPECT_EQ(NextMs(watch), 13000);
    EXPECT_EQ(watch.OnTime(At(12999)), Actions{});
    EXPECT_EQ(watch.OnTime(At(13000)).error().text,
              "the host did not answer within 10.0 s: camera list request");
}

TEST_F(CameraWatchTest, FailsIfTheHostDoesNotAnswerAnOpenRequest) {
    StreamUntil(1000);
    watch.OnTime(At(2000));
    watch.OnTime(At(3000));
    EXPECT_EQ(watch.OnCameras(both, At(3000)), Actions{Open(1)});
    EXPECT_EQ(watch.OnTime(At(12999)), Actions{});
    EXPECT_EQ(watch.OnTime(At(13000)).error().text,
              "the host did not answer within 10.0 s: open camera 1 (Desk)");
}

TEST_F(CameraWatchTest, KnowsWhichOfTwoCamerasWithOneNameIsMissing) {
    const std::vector<CameraEntry> twins = {Camera(0, "Twin"), Camera(1, "Twin")};
    CameraWatch second(twins, twins[1], {}, At(0));
    second.OnFrame(At(0));
    EXPECT_EQ(second.OnTime(At(500)), Actions{kAsk});
    // One is left, and ours sends nothing.
    EXPECT_EQ(second.OnCameras({Camera(0, "Twin")}, At(510)).size(), 2U);
    EXPECT_EQ(second.OnTime(At(1510)), Actions{kAsk});
    EXPECT_EQ(second.OnCameras({Camera(0, "Twin")}, At(1510)), Actions{});
    EXPECT_EQ(second.OnTime(At(2510)), Actions{kAsk});
    EXPECT_EQ(second.OnCameras({Camera(0, "New"), Camera(1, "Twin"), Camera(2, "Twin")}, At(2510)),
              Actions{Open(2)});
}

TEST_F(CameraWatchTest, OpensTheFirstCameraThatIsBackIfAllOfOneNameWereAway) {
    const std::vector<CameraEntry> twins = {Camera(0, "Twin"), Camera(1, "Twin")};
    CameraWatch second(twins, twins[1], {}, At(0));
    second.OnFrame(At(0));
    EXPECT_EQ(second.OnTime(At(500)), Actions{kAsk});
    EXPECT_EQ(second.OnCameras({Camera(0, "Twin")}, At(510)).size(), 2U);
    EXPECT_EQ(second.OnTime(At(1510)), Actions{kAsk});
    EXPECT_EQ(second.OnCameras({}, At(1510)), Actions{});
    EXPECT_EQ(second.OnTime(At(2510)), Actions{kAsk});
    EXPECT_EQ(second.OnCameras({Camera(0, "Twin")}, At(2510)), Actions{Open(0)});
    EXPECT_EQ(second.OnState({kCameraOpen, 0}, At(2600)), Actions{});
    EXPECT_EQ(second.OnFrame(At(3000)),
              Actions{Announce(CameraEvent::kBack,
                               "camera 0 (Twin) is back after 3.0 s, or another camera of this name")});
}

TEST_F(CameraWatchTest, DoesNotConfuseTwoCamerasWithOneName) {
    const std::vector<CameraEntry> twins = {Camera(0, "Twin"), Camera(1, "Twin")};
    CameraWatch first(twins, twins[0], {}, At(0));
    first.OnFrame(At(0));
    EXPECT_EQ(first.OnTime(At(500)), Actions{kAsk});
    EXPECT_EQ(first.OnCameras({Camera(0, "Twin")}, At(510)).size(), 2U);
    EXPECT_EQ(first.OnTime(At(1510)), Actions{kAsk});
    EXPECT_EQ(first.OnCameras({Camera(0, "Twin")}, At(1510)), Actions{});
    EXPECT_EQ(first.OnTime(At(2510)), Actions{kAsk});
    EXPECT_EQ(first.OnCameras(twins, At(2510)), Actions{Open(0)});
}

}  // namespace
}  // namespace zumod::peer
