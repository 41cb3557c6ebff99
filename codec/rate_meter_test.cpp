#include "codec/rate_meter.h"

#include <gtest/gtest.h>

namespace zumod {
namespace {

class RateMeterTest : public ::testing::Test {
protected:
    // The first call begins the first interval.
    RateMeterTest() { meter.OnPicture(now); }

    void Call(int interval) {
        now += RateMeter::Duration(interval);
        meter.OnPicture(now);
    }
    // The stated rate after that many calls with this interval in microseconds.
    int After(int calls, int interval) {
        for (int i = 0; i < calls; ++i) {
            Call(interval);
        }
        return meter.Tenths();
    }

    RateMeter meter;
    RateMeter::Duration now{5'000'000};
};

TEST_F(RateMeterTest, AssumesThirtyBeforeTheFirstCall) {
    EXPECT_EQ(RateMeter().Tenths(), 300);
}

TEST_F(RateMeterTest, StatesAnotherRateAfterFourSeconds) {
    EXPECT_EQ(After(59, 66'667), 300);
    EXPECT_EQ(After(1, 66'667), 150);
}

TEST_F(RateMeterTest, StatesTheRatesOfCameras) {
    EXPECT_EQ(After(100, 40'000), 250);
    EXPECT_EQ(After(300, 16'683), 600) << "59.94";
    EXPECT_EQ(After(50, 133'333), 75);
    EXPECT_EQ(After(50, 200'000), 50);
    EXPECT_EQ(After(50, 900'000), 11);
}

TEST_F(RateMeterTest, KeepsARateThatIsNearlyTheStatedOne) {
    EXPECT_EQ(After(1000, 33'367), 300) << "29.97";
    EXPECT_EQ(After(1000, 34'700), 300) << "28.8";
}

TEST_F(RateMeterTest, StatesARateThatDiffersByMoreThanATwentieth) {
    EXPECT_EQ(After(1000, 35'500), 280) << "28.2";
}

TEST_F(RateMeterTest, FollowsAChangeThatStays) {
    After(100, 33'333);
    EXPECT_EQ(After(100, 66'667), 150);
    EXPECT_EQ(After(200, 33'333), 300);
}

TEST_F(RateMeterTest, IgnoresAChangeOfThreeSeconds) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(After(45, 66'667), 300) << i;
        EXPECT_EQ(After(60, 33'333), 300) << i;
    }
}

TEST_F(RateMeterTest, IgnoresARateThatChangesAllTheTime) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(After(20, 50'000), 300) << i;
        EXPECT_EQ(After(16, 62'500), 300) << i;
    }
}

TEST_F(RateMeterTest, MeasuresTheMeanOfUnevenIntervals) {
    for (int i = 0; i < 60; ++i) {
        Call(10'000);
        Call(70'000);
    }
    EXPECT_EQ(meter.Tenths(), 250);
}

TEST_F(RateMeterTest, MeasuresASlowCameraForLonger) {
    for (int i = 0; i < 10; ++i) {
        Call(1'000'000);
        Call(1'500'000);
    }
    EXPECT_EQ(meter.Tenths(), 8);
}

TEST_F(RateMeterTest, IgnoresPicturesThatWaitedForTheFirst) {
    After(6, 1'000);
    EXPECT_EQ(After(300, 33'333), 300);
}

TEST_F(RateMeterTest, CountsEveryLostPicture) {
    // A line that carries two of three pictures.
    for (int i = 0; i < 60; ++i) {
        Call(33'333);
        Call(66'667);
    }
    EXPECT_EQ(meter.Tenths(), 200);
}

TEST_F(RateMeterTest, ForgetsTheWindowsBeforeAPause) {
    EXPECT_EQ(After(59, 66'667), 300);
    Call(2'100'000);
    EXPECT_EQ(After(59, 66'667), 300);
    EXPECT_EQ(After(1, 66'667), 150);
}

TEST_F(RateMeterTest, StatesNoRateOfPicturesThatComeAtOnce) {
    EXPECT_EQ(After(100'000, 100), 300);
    EXPECT_EQ(After(10'000, 0), 300);
    EXPECT_EQ(After(2'000, 5'000), 2000);
}

TEST_F(RateMeterTest, StatesNoRateOfSinglePictures) {
    EXPECT_EQ(After(100, 2'100'000), 300);
}

}  // namespace
}  // namespace zumod
