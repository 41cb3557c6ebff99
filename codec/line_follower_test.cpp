#include "codec/line_follower.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace zumod {
namespace {

constexpr int kCamera = 40'000;  // microseconds: 25 pictures per second

class LineFollowerTest : public ::testing::Test {
protected:
    // The first call begins the first interval.
    LineFollowerTest() { follower.OnPicture(now); }

    void Call(int interval) {
        now += LineFollower::Duration(interval);
        follower.OnPicture(now);
    }
    // The halvings after that many calls with this interval.
    int After(int calls, int interval) {
        for (int i = 0; i < calls; ++i) {
            Call(interval);
        }
        return follower.Halvings();
    }
    // Calls of a camera on a line that carries every picture if the bits are halved this often,
    // otherwise for every second one. Returns the seconds at which the halvings changed.
    std::vector<int> Changes(int needed, int seconds) {
        std::vector<int> changes;
        const LineFollower::Duration begin = now;
        while (now - begin < std::chrono::seconds(seconds)) {
            const int before = follower.Halvings();
            Call(before >= needed ? kCamera : 2 * kCamera);
            if (follower.Halvings() != before) {
                changes.push_back(static_cast<int>((now - begin) / std::chrono::seconds(1)));
            }
        }
        return changes;
    }

    LineFollower follower;
    LineFollower::Duration now{1'000'000};
};

TEST_F(LineFollowerTest, LeavesASteadyCameraAlone) {
    EXPECT_EQ(After(5000, kCamera), 0);
}

TEST_F(LineFollowerTest, LeavesJitterAlone) {
    for (int i = 0; i < 1000; ++i) {
        Call(kCamera / 4);
        Call(kCamera * 7 / 4);
        ASSERT_EQ(follower.Halvings(), 0) << i;
    }
}

TEST_F(LineFollowerTest, LeavesOneLostPictureInAWindowAlone) {
    for (int i = 0; i < 100; ++i) {
        After(7, kCamera);
        Call(2 * kCamera);
        ASSERT_EQ(follower.Halvings(), 0) << i;
    }
}

TEST_F(LineFollowerTest, LeavesPicturesAloneThatWaitedForTheFirst) {
    After(4, kCamera / 10);
    for (int i = 0; i < 100; ++i) {
        Call(kCamera);
        ASSERT_EQ(follower.Halvings(), 0) << i;
    }
}

TEST_F(LineFollowerTest, SeesALineThatIsSlowFromTheBeginning) {
    // Three pictures waited for the first, the queue takes two more, then each waits for the line.
    After(3, kCamera / 10);
    After(2, kCamera);
    EXPECT_EQ(After(3, 8 * kCamera), 0);
    EXPECT_EQ(After(8, 8 * kCamera), 3);
}

TEST_F(LineFollowerTest, HalvesTheBitsAfterAWindowWithGaps) {
    EXPECT_EQ(After(8, kCamera), 0);
    EXPECT_EQ(After(7, 2 * kCamera), 0);
    EXPECT_EQ(After(1, 2 * kCamera), 1);
}

TEST_F(LineFollowerTest, HalvesThemAsOftenAsTheGapsSay) {
    EXPECT_EQ(After(8, kCamera), 0);
    EXPECT_EQ(After(8, 8 * kCamera), 3);
}

TEST_F(LineFollowerTest, HalvesThemFourTimesAtMost) {
    EXPECT_EQ(After(8, kCamera), 0);
    EXPECT_EQ(After(8, 100 * kCamera), 4);
}

TEST_F(LineFollowerTest, HalvesThemAgainIfThatHelpedButNotEnough) {
    After(8, kCamera);
    EXPECT_EQ(After(8, 4 * kCamera), 2);
    EXPECT_EQ(After(8, 4 * kCamera), 2) << "the larger pictures are still in the queue";
    EXPECT_EQ(After(8, 2 * kCamera), 3);
}

TEST_F(LineFollowerTest, GivesTheBitsBackIfTheCameraIsTheCause) {
    After(8, kCamera);
    EXPECT_EQ(After(8, 2 * kCamera), 1);
    EXPECT_EQ(After(8, 2 * kCamera), 1) << "the larger pictures are still in the queue";
    EXPECT_EQ(After(8, 2 * kCamera), 0);
    EXPECT_EQ(After(1000, 2 * kCamera), 0);
}

TEST_F(LineFollowerTest, FollowsACameraThatBecomesFasterAgain) {
    After(24, 2 * kCamera);
    EXPECT_EQ(After(100, kCamera), 0);
    EXPECT_EQ(After(16, 2 * kCamera), 1) << "gaps, compared with the faster rate";
}

TEST_F(LineFollowerTest, DoublesTheBitsAfterFourSecondsWithoutGaps) {
    After(8, kCamera);
    EXPECT_EQ(After(8, 4 * kCamera), 2);
    EXPECT_EQ(After(8, 4 * kCamera), 2);
    // 13 windows of 0.32 seconds.
    EXPECT_EQ(After(12 * 8, kCamera), 2);
    EXPECT_EQ(After(8, kCamera), 1);
    EXPECT_EQ(After(12 * 8, kCamera), 1);
    EXPECT_EQ(After(8, kCamera), 0);
}

TEST_F(LineFollowerTest, WaitsTwiceAsLongAfterEachTrialThatFails) {
    After(8, kCamera);
    // Halved at 0.64 s, after a window with gaps. One window of 0.32 s is ignored. A trial comes after 4 s
    // without gaps, which are 13 windows: at 5.12 s. It fails in 0.64 s. The next come 8, 16, 32, 64 and
    // again 64 s after the window that is ignored: at 14.08, 31.04, 64.0, 128.96, 193.92 and 258.88 s.
    EXPECT_EQ(Changes(1, 260),
              (std::vector<int>{0, 5, 5, 14, 14, 31, 31, 64, 64, 128, 129, 193, 194, 258, 259}));
}

TEST_F(LineFollowerTest, StartsAgainAfterAPause) {
    After(8, kCamera);
    EXPECT_EQ(After(8, 4 * kCamera), 2);
    EXPECT_EQ(After(1, 10'000'001), 0);
    EXPECT_EQ(After(100, 4 * kCamera), 0) << "the camera's new interval";
}

TEST_F(LineFollowerTest, SurvivesCallsAtTheSameTime) {
    EXPECT_EQ(After(100, 0), 0);
    EXPECT_EQ(After(100, kCamera), 0);
}

}  // namespace
}  // namespace zumod
