#include "peer/view_queue.h"

#include <gtest/gtest.h>

#include "peer/view_camera.h"

namespace zumod::peer {
namespace {

using std::chrono::milliseconds;

SharedPicture PictureOf(bool is_key, size_t size = 1) {
    ViewPicture picture;
    picture.bytes.resize(size);
    picture.is_key = is_key;
    return std::make_shared<const ViewPicture>(std::move(picture));
}

class ViewQueueTest : public ::testing::Test {
protected:
    SharedPicture Push(bool is_key, size_t size = 1) {
        const SharedPicture picture = PictureOf(is_key, size);
        m_queue.Push(picture, m_now);
        return picture;
    }

    Clock::time_point m_now{};
    ViewQueue m_queue;
};

TEST_F(ViewQueueTest, BeginsWithAKeyPicture) {
    Push(false);
    EXPECT_EQ(m_queue.Pop(), nullptr);
    const auto key = Push(true);
    const auto next = Push(false);
    EXPECT_EQ(m_queue.Pop(), key);
    EXPECT_EQ(m_queue.Pop(), next);
    EXPECT_EQ(m_queue.Pop(), nullptr);
    EXPECT_EQ(m_queue.Lost(), 0U) << "nothing is lost before the first picture";
}

TEST_F(ViewQueueTest, IsLimitedInBytes) {
    const auto key = Push(true, ViewQueue::kQueueBytes - 1);
    Push(false, 1);
    EXPECT_EQ(m_queue.Lost(), 0U);
    Push(false, 1);
    EXPECT_EQ(m_queue.Lost(), 1U);
    EXPECT_EQ(m_queue.Bytes(), ViewQueue::kQueueBytes);
    EXPECT_EQ(m_queue.Pop(), key);
    Push(false, 1);
    EXPECT_EQ(m_queue.Lost(), 2U) << "it refers to a picture that is lost";
}

TEST_F(ViewQueueTest, IsLimitedInTime) {
    Push(true);
    m_now += ViewQueue::kQueueTime;
    Push(false);
    EXPECT_EQ(m_queue.Lost(), 0U);
    EXPECT_EQ(m_queue.Delay(m_now), ViewQueue::kQueueTime);
    m_now += milliseconds(1);
    Push(false);
    EXPECT_EQ(m_queue.Lost(), 1U);
}

TEST_F(ViewQueueTest, GoesOnWithTheNextKeyPictureAndDropsWhatIsOlder) {
    Push(true);
    Push(false);
    m_now += ViewQueue::kQueueTime + milliseconds(1);
    Push(false);
    const auto key = Push(true);
    EXPECT_EQ(m_queue.Lost(), 3U);
    EXPECT_EQ(m_queue.Pop(), key);
    EXPECT_EQ(m_queue.Bytes(), 0U);
    EXPECT_EQ(m_queue.Delay(m_now), Clock::duration::zero());
}

TEST_F(ViewQueueTest, APictureLargerThanTheLimitIsLost) {
    Push(true, ViewQueue::kQueueBytes + 1);
    EXPECT_EQ(m_queue.Lost(), 1U);
    EXPECT_EQ(m_queue.Bytes(), 0U);
    const auto key = Push(true);
    EXPECT_EQ(m_queue.Pop(), key);
}

TEST_F(ViewQueueTest, DoesNotGrowForAViewerThatDoesNotRead) {
    for (int i = 0; i < 10000; ++i) {
        Push(i % 60 == 0, 100'000);
        m_now += milliseconds(33);
        EXPECT_LE(m_queue.Bytes(), ViewQueue::kQueueBytes);
    }
    EXPECT_GT(m_queue.Lost(), 9000U);
}

TEST(ViewGroup, HoldsThePicturesSinceTheLastKeyPicture) {
    ViewGroup group;
    group.Add(PictureOf(false));
    EXPECT_TRUE(group.Pictures().empty());
    group.Add(PictureOf(true));
    group.Add(PictureOf(false));
    EXPECT_EQ(group.Pictures().size(), 2U);
    group.Add(PictureOf(true));
    EXPECT_EQ(group.Pictures().size(), 1U);
}

TEST(ViewGroup, IsEmptyOnceItExceedsALimit) {
    ViewGroup group;
    group.Add(PictureOf(true));
    group.Add(PictureOf(false, ViewGroup::kGroupBytes));
    EXPECT_TRUE(group.Pictures().empty());
    group.Add(PictureOf(true));
    for (size_t i = 1; i < ViewGroup::kGroupPictures; ++i) {
        group.Add(PictureOf(false));
    }
    EXPECT_EQ(group.Pictures().size(), ViewGroup::kGroupPictures);
    group.Add(PictureOf(false));
    EXPECT_TRUE(group.Pictures().empty());
    group.Add(PictureOf(false));
    EXPECT_TRUE(group.Pictures().empty());
}

TEST(ViewRecords, AreInLittleEndian) {
    ViewPicture picture;
    picture.bytes = {1, 2, 3};
    picture.is_key = true;
    picture.arrived_us = 0x0102030405060708;
    using namespace std::string_literals;
    EXPECT_EQ(PictureRecord(picture, 0x0a0b, 0x0c0d0e0f),
              "\x1b\0\0\0\x01\x01\x0b\x0a\0\0\0\0\0\0\0\0\x08\x07\x06\x05\x04\x03\x02\x01\x0f\x0e\x0d\x0c"s);
    picture.is_key = false;
    EXPECT_EQ(PictureRecord(picture, 0, 0).substr(4, 2), "\x01\0"s);
    EXPECT_EQ(StateRecord("{}"), "\x03\0\0\0\x02{}"s);
}

TEST(ViewFileNames, NeedNoEscapes) {
    EXPECT_EQ(FileNamePart("Front Camera (2)"), "front-camera-2");
    EXPECT_EQ(FileNamePart("../../etc/passwd"), "etc-passwd");
    EXPECT_EQ(FileNamePart("\x1b[31m\"\\%H\xc3\xa4"), "31m-h");
    EXPECT_EQ(FileNamePart(""), "camera");
    EXPECT_EQ(FileNamePart("..."), "camera");
    EXPECT_EQ(FileNamePart(std::string(300, 'a')), std::string(40, 'a'));
}

}  // namespace
}  // namespace zumod::peer
