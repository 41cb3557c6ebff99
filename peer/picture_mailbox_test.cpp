#include "peer/picture_mailbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

void Post(PictureMailbox& mailbox, uint64_t sequence) {
    mailbox.Writing().sequence = sequence;
    mailbox.Post();
}

TEST(PictureMailbox, IsEmptyBeforeTheFirstPicture) {
    PictureMailbox mailbox;
    EXPECT_EQ(mailbox.Take(), nullptr);
}

TEST(PictureMailbox, GivesEachPictureOnce) {
    PictureMailbox mailbox;
    Post(mailbox, 1);
    const Picture* const first = mailbox.Take();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->sequence, 1U);
    EXPECT_EQ(mailbox.Take(), nullptr);
    EXPECT_EQ(first->sequence, 1U);
    Post(mailbox, 2);
    const Picture* const second = mailbox.Take();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->sequence, 2U);
}

TEST(PictureMailbox, TheNewestPictureWins) {
    PictureMailbox mailbox;
    for (uint64_t sequence = 1; sequence <= 7; ++sequence) {
        Post(mailbox, sequence);
    }
    const Picture* const newest = mailbox.Take();
    ASSERT_NE(newest, nullptr);
    EXPECT_EQ(newest->sequence, 7U);
    EXPECT_EQ(mailbox.Take(), nullptr);
}

TEST(PictureMailbox, TheReadersPictureIsNotWritten) {
    PictureMailbox mailbox;
    Post(mailbox, 1);
    const Picture* const taken = mailbox.Take();
    ASSERT_NE(taken, nullptr);
    for (uint64_t sequence = 2; sequence <= 7; ++sequence) {
        EXPECT_NE(&mailbox.Writing(), taken);
        Post(mailbox, sequence);
    }
    EXPECT_EQ(taken->sequence, 1U);
}

// Every byte of a picture has the value of its sequence number, so that a picture that both sides use at once
// has different bytes.
TEST(PictureMailbox, TwoThreadsNeverUseOnePicture) {
    constexpr uint64_t kPictures = 2000;
    PictureMailbox mailbox;
    std::thread writer([&] {
        for (uint64_t sequence = 1; sequence <= kPictures; ++sequence) {
            mailbox.Writing().bytes.assign(512, static_cast<uint8_t>(sequence));
            Post(mailbox, sequence);
        }
    });
    uint64_t last = 0;
    while (last < kPictures) {
        const Picture* const picture = mailbox.Take();
        if (picture == nullptr) {
            std::this_thread::yield();
            continue;
        }
        EXPECT_GT(picture->sequence, last);
        last = picture->sequence;
        EXPECT_EQ(picture->bytes, Bytes(512, static_cast<uint8_t>(last)));
    }
    writer.join();
}

TEST(PicturePlanes, RoundChromaUp) {
    const auto i420 = PlanesOf({5, 3}, kVideoTargetI420);
    ASSERT_EQ(i420.size(), 3U);
    EXPECT_EQ(i420[1].offset, 15U);
    EXPECT_EQ(i420[1].row_bytes, 3U);
    EXPECT_EQ(i420[1].rows, 2U);
    EXPECT_EQ(i420[2].offset, 21U);
    const auto nv12 = PlanesOf({5, 3}, kVideoTargetNv12);
    ASSERT_EQ(nv12.size(), 2U);
    EXPECT_EQ(nv12[1].offset, 15U);
    EXPECT_EQ(nv12[1].row_bytes, 6U);
    EXPECT_EQ(nv12[1].rows, 2U);
    EXPECT_TRUE(PlanesOf({5, 3}, kVideoTargetBgr32).empty());
}

TEST(CopyPicture, LeavesOutTheGapsBetweenRows) {
    const Bytes luma = {1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0};
    const Bytes chroma = {11, 12, 13, 14, 0, 0, 15, 16, 17, 18, 0, 0};
    VideoDecodedPicture decoded{};
    decoded.width = 3;
    decoded.height = 3;
    decoded.plane_count = 2;
    decoded.planes[0] = luma.data();
    decoded.planes[1] = chroma.data();
    decoded.strides[0] = 4;
    decoded.strides[1] = 6;
    Picture picture;
    EXPECT_TRUE(CopyPicture(decoded, kVideoTargetNv12, picture));
    EXPECT_EQ(picture.size, (PictureSize{3, 3}));
    EXPECT_EQ(picture.bytes, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14, 15, 16, 17, 18}));
}

TEST(CopyPicture, RefusesAnotherNumberOfPlanes) {
    VideoDecodedPicture decoded{};
    decoded.width = 3;
    decoded.height = 3;
    decoded.plane_count = 2;
    Picture picture;
    picture.bytes = {1};
    EXPECT_FALSE(CopyPicture(decoded, kVideoTargetI420, picture));
    EXPECT_TRUE(picture.bytes.empty());
}

TEST(DrawNoCamera, ShowsASignOnADarkPicture) {
    Picture picture;
    DrawNoCamera({160, 120}, kVideoTargetI420, picture);
    ASSERT_EQ(picture.bytes.size(), 160U * 120U * 3U / 2U);
    const auto luma = [&](size_t x, size_t y) { return picture.bytes[y * 160 + x]; };
    EXPECT_EQ(luma(0, 0), 32);
    EXPECT_EQ(luma(80, 60), 140);  // the bar
    EXPECT_EQ(luma(80, 33), 140);  // the ring
    EXPECT_EQ(luma(80, 45), 32);   // between them
    EXPECT_TRUE(std::all_of(picture.bytes.begin() + 160 * 120, picture.bytes.end(),
                            [](uint8_t byte) { return byte == 128; }));
}

TEST(DrawNoCamera, HasNoPictureInAFormatWithoutPlanes) {
    Picture picture;
    DrawNoCamera({160, 120}, kVideoTargetBgr32, picture);
    EXPECT_TRUE(picture.bytes.empty());
}

}  // namespace
}  // namespace zumod::peer
