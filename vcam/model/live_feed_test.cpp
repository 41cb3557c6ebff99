#include "vcam/model/live_feed.h"

#include <gtest/gtest.h>

namespace zumod::vcam {
namespace {

using std::chrono::milliseconds;

const LiveFeed::Time kStart{std::chrono::seconds(100)};

LiveFeed::Picture SomePicture() {
    return std::make_shared<PlanarImage>(16, 16);
}

// 10 frames per second; times are milliseconds after the start of the stream.
class LiveFeedTest : public ::testing::Test {
protected:
    LiveFeedTest() { m_feed.BeginStream(kStart, {10, 1}); }

    static LiveFeed::Time At(int ms) { return kStart + milliseconds(ms); }
    void Put(int ms) { m_feed.Put(SomePicture(), At(ms)); }
    int64_t Due() const { return (m_feed.Due() - kStart) / milliseconds(1); }
    // Takes what is due, on time.
    LiveFeed::Frame Take() { return m_feed.Take(m_feed.Due()); }

    LiveFeed m_feed;
};

TEST_F(LiveFeedTest, DeliversAPictureWhenItArrives) {
    Put(3);
    EXPECT_EQ(Due(), 3);
    EXPECT_TRUE(Take().picture);
    EXPECT_EQ(m_feed.TakenTime(), At(3));
    Put(91);
    EXPECT_EQ(Due(), 91);
}

TEST_F(LiveFeedTest, DeliversBlackOneFrameTimeAfterTheStartWithoutAPicture) {
    EXPECT_EQ(Due(), 100);
    EXPECT_FALSE(Take().picture);
    EXPECT_EQ(Due(), 500);
}

TEST_F(LiveFeedTest, RepeatsTheLastPictureAfterFourFrameTimes) {
    Put(10);
    const LiveFeed::Picture shown = Take().picture;
    EXPECT_EQ(Due(), 410);
    EXPECT_EQ(Take().picture, shown);
    EXPECT_EQ(m_feed.TakenTime(), At(410));
    EXPECT_EQ(Due(), 810);
    Put(411);
    EXPECT_EQ(Due(), 411) << "a repeated picture does not delay a new one";
}

TEST_F(LiveFeedTest, LetsAPictureThatComesTooSoonWaitUntilAFrameTimeIsOver) {
    Put(0);
    Take();
    Put(74);
    EXPECT_EQ(Due(), 100);
    EXPECT_EQ(Take().missed, 0U);
    EXPECT_EQ(m_feed.TakenTime(), At(100));
}

TEST_F(LiveFeedTest, ReplacesAPictureThatWaits) {
    Put(0);
    Take();
    Put(50);
    Put(80);
    const LiveFeed::Picture newest = SomePicture();
    m_feed.Put(newest, At(90));
    EXPECT_EQ(Due(), 90);
    const LiveFeed::Frame frame = Take();
    EXPECT_EQ(frame.picture, newest);
    EXPECT_EQ(frame.missed, 2U);
}

TEST_F(LiveFeedTest, DeliversAtMostOnePictureInThirtyMoreThanAgreedOn) {
    int taken = 0;
    for (int ms = 0; ms < 10000; ms += 75) {
        while (m_feed.Due() < At(ms)) {
            Take();
            ++taken;
        }
        Put(ms);
    }
    EXPECT_GE(taken, 99);
    EXPECT_LE(taken, 105) << "of 134 pictures in 100 frame times";
}

TEST_F(LiveFeedTest, DelaysNoPictureOfASourceThatIsALittleFast) {
    for (int picture = 0; picture < 200; ++picture) {
        const int ms = 98 * picture + (picture % 2 == 0 ? 0 : 20);
        Put(ms);
        ASSERT_EQ(Due(), ms);
        Take();
    }
}

TEST_F(LiveFeedTest, DoesNotCatchUpOnRepeatsAfterASuspend) {
    m_feed.Take(At(3600000));
    EXPECT_EQ(m_feed.TakenTime(), At(3600000));
    EXPECT_EQ(Due(), 3600400);
}

TEST_F(LiveFeedTest, BeginsAnotherStreamWithThePictureThatIsThere) {
    Put(10);
    const LiveFeed::Picture shown = Take().picture;
    Put(20);
    m_feed.BeginStream(At(5000), {20, 1});
    EXPECT_EQ(Due(), 5050);
    const LiveFeed::Frame frame = Take();
    EXPECT_TRUE(frame.picture);
    EXPECT_NE(frame.picture, shown);
    EXPECT_EQ(frame.missed, 0U);
}

}  // namespace
}  // namespace zumod::vcam
