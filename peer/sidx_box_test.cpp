#include "peer/sidx_box.h"

#include <gtest/gtest.h>

namespace zumod::peer {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes First(const Bytes& bytes, size_t size) {
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)};
}

uint64_t NumberAt(const Bytes& bytes, size_t at) {
    uint64_t number = 0;
    for (size_t i = 0; i < 4; ++i) {
        number = number << 8 | bytes.at(at + i);
    }
    return number;
}

TEST(SidxBox, HasAPlaceholderThatPlayersSkip) {
    const Bytes bytes = SidxBox::Placeholder();
    EXPECT_EQ(bytes.size(), 7248U);
    EXPECT_EQ(First(bytes, 8), (Bytes{0, 0, 0x1C, 0x50, 'f', 'r', 'e', 'e'}));
}

TEST(SidxBox, ListsPartsThatStartWithAKeyFrame) {
    SidxBox box;
    box.Add(0x1000, 90000, true);
    box.Add(0x200, 80000, false);
    box.Add(0x3000, 45000, true);
    const Bytes bytes = box.Bytes(90000);
    EXPECT_EQ(bytes.size(), 7248U);
    const Bytes expected = {0, 0, 0,    64,   's', 'i', 'd',  'x',                                          //
                            1, 0, 0,    0,    0,   0,   0,    1,    0,    1, 0x5F, 0x90,                    //
                            0, 0, 0,    0,    0,   0,   0,    0,    0,    0, 0,    0,    0, 0, 0x1C, 0x10,  //
                            0, 0, 0,    2,                                                                  //
                            0, 0, 0x12, 0x00, 0,   2,   0x98, 0x10, 0x90, 0, 0,    0,                       //
                            0, 0, 0x30, 0x00, 0,   0,   0xAF, 0xC8, 0x90, 0, 0,    0,                       //
                            0, 0, 0x1C, 0x10, 'f', 'r', 'e',  'e'};
    EXPECT_EQ(First(bytes, expected.size()), expected);
}

TEST(SidxBox, GetsCoarserWhenItIsFull) {
    SidxBox box;
    for (int i = 0; i < 601; ++i) {
        box.Add(10, 100, true);
    }
    Bytes bytes = box.Bytes(90000);
    EXPECT_EQ(bytes.size(), 7248U);
    EXPECT_EQ(NumberAt(bytes, 36), 301U);
    EXPECT_EQ(NumberAt(bytes, 40), 20U);
    EXPECT_EQ(NumberAt(bytes, 40 + 300 * 12), 10U);
    box.Add(10, 100, true);
    box.Add(10, 100, true);
    bytes = box.Bytes(90000);
    EXPECT_EQ(NumberAt(bytes, 36), 302U);
    EXPECT_EQ(NumberAt(bytes, 40 + 300 * 12), 20U);
    for (int i = 0; i < 100'000; ++i) {
        box.Add(10, 100, true);
    }
    bytes = box.Bytes(90000);
    EXPECT_EQ(bytes.size(), 7248U);
    uint64_t sum = 0;
    for (size_t i = 0; i < NumberAt(bytes, 36); ++i) {
        sum += NumberAt(bytes, 40 + i * 12);
    }
    EXPECT_EQ(sum, 1'006'030U);
}

TEST(SidxBox, IsLeftOutIfThereIsNothingToListOrAPartIsTooLarge) {
    SidxBox box;
    EXPECT_EQ(box.Bytes(90000), Bytes());
    box.Add(0x80000000, 1, true);
    EXPECT_EQ(box.Bytes(90000), Bytes());
    SidxBox long_part;
    long_part.Add(1, 0x100000000, true);
    EXPECT_EQ(long_part.Bytes(90000), Bytes());
}

}  // namespace
}  // namespace zumod::peer
