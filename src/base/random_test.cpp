#include "src/base/random.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <set>

#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::CallWatch;

// Tests with random results repeat so often that a false failure is less likely than 1 in 10^9.

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsLower(char c) {
    return c >= 'a' && c <= 'z';
}

bool IsUpper(char c) {
    return c >= 'A' && c <= 'Z';
}

// Whether `first` is the first result of rand() after a seed that is one of these seconds plus `noise`.
bool IsSeededByTime(int first, std::time_t from, std::time_t to, unsigned noise = 0) {
    for (std::time_t second = from; second <= to; ++second) {
        std::srand(static_cast<unsigned>(second) + noise);
        if (std::rand() == first) {
            return true;
        }
    }
    return false;
}

TEST(SeedRandom, ReseedsTheGeneratorOfTheProcess) {
    std::set<int> firsts;
    for (int i = 0; i < 4; ++i) {
        std::srand(1);
        SeedRandom();
        firsts.insert(std::rand());
    }
    // With the time only there would be one or two of them.
    EXPECT_GE(firsts.size(), 3U);
}

TEST(SeedRandom, AddsFourBytesOfTheDeviceToTheTime) {
    // Each byte counts, and the addition carries: another width or another operation has another sum.
    constexpr unsigned kNoise = 0xC1B2A3F4;
    CallWatch watch;
    watch.SetRandom(kNoise);
    const std::time_t from = std::time(nullptr);
    SeedRandom();
    const std::time_t to = std::time(nullptr);
    EXPECT_TRUE(IsSeededByTime(std::rand(), from, to, kNoise));
    EXPECT_EQ(watch.Count(CallWatch::read), 1);
    EXPECT_EQ(watch.Count(CallWatch::read, 4), 1);
}

TEST(SeedRandom, LeavesNoDescriptorOpen) {
    const int before = open("/dev/null", O_RDONLY);
    close(before);
    SeedRandom();
    const int after = open("/dev/null", O_RDONLY);
    close(after);
    EXPECT_EQ(after, before);
}

TEST(SeedRandom, UsesOnlyTheTimeAndKeepsTheDeviceOpenIfItIsDescriptor0) {
    const int standard_input = dup(0);
    close(0);
    const std::time_t from = std::time(nullptr);
    SeedRandom();
    const std::time_t to = std::time(nullptr);
    const int first = std::rand();
    const bool still_open = fcntl(0, F_GETFD) != -1;
    close(0);
    if (standard_input != -1) {
        dup2(standard_input, 0);
        close(standard_input);
    }
    EXPECT_TRUE(IsSeededByTime(first, from, to));
    EXPECT_TRUE(still_open);
}

TEST(RandomInt, DrawsEveryNumberOfTheRangeAndNoOther) {
    std::set<int> drawn;
    for (int i = 0; i < 400; ++i) {
        drawn.insert(RandomInt(-2, 2));
    }
    EXPECT_EQ(drawn, (std::set<int>{-2, -1, 0, 1, 2}));
}

TEST(RandomInt, ReturnsTheOnlyNumberOfARangeOfOne) {
    EXPECT_EQ(RandomInt(0, 0), 0);
    EXPECT_EQ(RandomInt(-5, -5), -5);
    EXPECT_EQ(RandomInt(INT_MAX, INT_MAX), INT_MAX);
    EXPECT_EQ(RandomInt(INT_MIN, INT_MIN), INT_MIN);
}

TEST(RandomInt, CoversTheWholeWidthOfItsType) {
    bool negative = false;
    bool positive = false;
    for (int i = 0; i < 64; ++i) {
        const int drawn = RandomInt(INT_MIN, INT_MAX);
        negative |= drawn < 0;
        positive |= drawn > 0;
    }
    EXPECT_TRUE(negative);
    EXPECT_TRUE(positive);
}

TEST(RandomInt, IsTheFirstNumberOfAMersenneTwisterSeededFromTheDefaultDeviceAtEachCall) {
    CallWatch watch;
    // The published first number of MT19937 with the seed 5489 is 3499211612. The range is as wide as its
    // numbers, so that the draw only moves it.
    watch.SetRandom(5489);
    EXPECT_EQ(RandomInt(INT_MIN, INT_MAX), 3499211612 - 2147483648);
    EXPECT_EQ(RandomInt(INT_MIN, INT_MAX), 3499211612 - 2147483648) << "not the second number";
    EXPECT_EQ(watch.Count(CallWatch::kOpenRandomDevice, 1), 2);
    EXPECT_EQ(watch.Count(CallWatch::kReadRandomDevice), 2);
}

TEST(RandomInt, DoesNotTouchTheGeneratorOfTheProcess) {
    std::srand(1);
    const int expected = std::rand();
    std::srand(1);
    RandomInt(0, 9);
    EXPECT_EQ(std::rand(), expected);
}

TEST(RandomString, IsEmptyForLength0AndAnyKinds) {
    for (std::uint32_t kinds = 0; kinds <= 15; ++kinds) {
        EXPECT_EQ(RandomString(0, kinds), "");
    }
}

TEST(RandomString, HasTheRequestedKindsAndNoOther) {
    for (std::uint32_t kinds = 1; kinds <= 7; ++kinds) {
        SCOPED_TRACE(kinds);
        // Each kind is drawn with a probability of at least one third.
        const std::string text = RandomString(100, kinds);
        EXPECT_EQ(text.size(), 100U);
        EXPECT_EQ(std::any_of(text.begin(), text.end(), IsDigit), (kinds & kRandomDigits) != 0);
        EXPECT_EQ(std::any_of(text.begin(), text.end(), IsLower), (kinds & kRandomLowerCase) != 0);
        EXPECT_EQ(std::any_of(text.begin(), text.end(), IsUpper), (kinds & kRandomUpperCase) != 0);
        EXPECT_TRUE(std::all_of(text.begin(), text.end(),
                                [](char c) { return IsDigit(c) || IsLower(c) || IsUpper(c); }));
    }
}

TEST(RandomString, DrawsEveryCharacterOfAKind) {
    const struct {
        std::uint32_t kind;
        std::string characters;
    } cases[] = {{kRandomDigits, "0123456789"},
                 {kRandomLowerCase, "abcdefghijklmnopqrstuvwxyz"},
                 {kRandomUpperCase, "ABCDEFGHIJKLMNOPQRSTUVWXYZ"}};
    for (const auto& c : cases) {
        const std::string text = RandomString(700, c.kind);
        const std::set<char> drawn(text.begin(), text.end());
        EXPECT_EQ(std::string(drawn.begin(), drawn.end()), c.characters);
    }
}

TEST(RandomString, IgnoresUnknownKinds) {
    const std::string text = RandomString(20, 8 | kRandomDigits);
    EXPECT_EQ(text.size(), 20U);
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), IsDigit));
}

TEST(RandomString, HoldsADigitAndALetterFromTwoCharactersOn) {
    for (const std::uint32_t kinds : {kRandomDigits | kRandomLowerCase, kRandomDigits | kRandomUpperCase,
                                      kRandomDigits | kRandomLowerCase | kRandomUpperCase}) {
        for (const std::size_t length : {2U, 3U}) {
            for (int i = 0; i < 40; ++i) {
                const std::string text = RandomString(length, kinds);
                EXPECT_EQ(text.size(), length);
                EXPECT_TRUE(std::any_of(text.begin(), text.end(), IsDigit)) << text;
                EXPECT_FALSE(std::all_of(text.begin(), text.end(), IsDigit)) << text;
            }
        }
    }
}

TEST(RandomString, OfOneCharacterIsOfAnyKindAllowed) {
    std::string drawn;
    for (int i = 0; i < 60; ++i) {
        drawn += RandomString(1, kRandomDigits | kRandomUpperCase);
    }
    EXPECT_TRUE(std::any_of(drawn.begin(), drawn.end(), IsDigit));
    EXPECT_TRUE(std::any_of(drawn.begin(), drawn.end(), IsUpper));
}

TEST(RandomString, OfLettersOnlyNeedNotHaveBothCases) {
    bool all_lower = false;
    bool all_upper = false;
    for (int i = 0; i < 120; ++i) {
        const std::string text = RandomString(2, kRandomLowerCase | kRandomUpperCase);
        all_lower |= std::all_of(text.begin(), text.end(), IsLower);
        all_upper |= std::all_of(text.begin(), text.end(), IsUpper);
    }
    EXPECT_TRUE(all_lower);
    EXPECT_TRUE(all_upper);
}

}  // namespace
}  // namespace zumod
