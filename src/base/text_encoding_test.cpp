#include "src/base/text_encoding.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/support/process/latin1_locale.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod {
namespace {

using testing::Latin1Locale;
using testing::ScopedLocale;

struct CodePoint {
    std::uint32_t value;
    std::string bytes;
};

// The code points on both sides of each change in length.
const CodePoint kCodePoints[] = {
    {0x01, "\x01"},
    {0x41, "A"},
    {0x7F, "\x7F"},
    {0x80, "\xC2\x80"},
    {0x7FF, "\xDF\xBF"},
    {0x800, "\xE0\xA0\x80"},
    {0x20AC, "\xE2\x82\xAC"},
    {0xD800, "\xED\xA0\x80"},
    {0xDFFF, "\xED\xBF\xBF"},
    {0xFFFF, "\xEF\xBF\xBF"},
    {0x10000, "\xF0\x90\x80\x80"},
    {0x10FFFF, "\xF4\x8F\xBF\xBF"},
    {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
    {0x200000, "\xF8\x88\x80\x80\x80"},
    {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"},
    {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
    {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"},
};

std::wstring Wide(std::uint32_t code_point) {
    return {static_cast<wchar_t>(code_point)};
}

// Copies the text to memory of exactly its size, so that a sanitizer detects a read past the terminating
// zero.
std::vector<std::uint32_t> Decoded(const std::string& text) {
    const auto exact = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(exact.get(), text.c_str(), text.size() + 1);
    std::unique_ptr<wchar_t[]> wide;
    std::size_t length = 0;
    EXPECT_EQ(DecodeUtf8(exact.get(), wide, length), 1);
    EXPECT_EQ(wide[length], L'\0');
    std::vector<std::uint32_t> code_points;
    for (std::size_t i = 0; i < length; ++i) {
        code_points.push_back(static_cast<std::uint32_t>(wide[i]));
    }
    return code_points;
}

using CodePoints = std::vector<std::uint32_t>;

TEST(EncodeUtf8, UsesOneToSixBytesDependingOnTheCodePoint) {
    for (const CodePoint& code_point : kCodePoints) {
        SCOPED_TRACE(code_point.value);
        std::unique_ptr<char[]> bytes;
        std::size_t length = 0;
        EXPECT_EQ(EncodeUtf8(Wide(code_point.value).c_str(), bytes, length), 1);
        EXPECT_EQ(std::string(bytes.get(), length), code_point.bytes);
    }
}

TEST(EncodeUtf8, UsesFourBytesForTheLastUnicodeCodePointAndSixForTheLargestNumber) {
    std::unique_ptr<char[]> bytes;
    std::size_t length = 0;
    EncodeUtf8(Wide(0x10FFFF).c_str(), bytes, length);
    EXPECT_EQ(length, 4U);
    EncodeUtf8(Wide(0x7FFFFFFF).c_str(), bytes, length);
    EXPECT_EQ(length, 6U);
}

TEST(EncodeUtf8, TerminatesTheBytesAndCountsThemWithoutTheZero) {
    std::unique_ptr<char[]> bytes;
    std::size_t length = 99;
    EXPECT_EQ(EncodeUtf8(L"a\u00E9\u20AC", bytes, length), 1);
    EXPECT_EQ(length, 6U);
    EXPECT_STREQ(bytes.get(), "a\xC3\xA9\xE2\x82\xAC");
}

TEST(EncodeUtf8, ReturnsAnEmptyArrayForAnEmptyText) {
    std::unique_ptr<char[]> bytes;
    std::size_t length = 99;
    EXPECT_EQ(EncodeUtf8(L"", bytes, length), 1);
    EXPECT_EQ(length, 0U);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(bytes[0], '\0');
}

TEST(EncodeUtf8, DropsThe32ndBit) {
    std::unique_ptr<char[]> bytes;
    std::size_t length = 0;
    EncodeUtf8(Wide(0xFFFFFFFF).c_str(), bytes, length);
    EXPECT_EQ(std::string(bytes.get(), length), "\xFD\xBF\xBF\xBF\xBF\xBF");
    EncodeUtf8(Wide(0x80000041).c_str(), bytes, length);
    EXPECT_EQ(std::string(bytes.get(), length), "\xFC\x80\x80\x80\x81\x81");
}

TEST(EncodeUtf8, RejectsNullAndLeavesTheOutputUnchanged) {
    auto bytes = std::make_unique<char[]>(1);
    const char* const before = bytes.get();
    std::size_t length = 99;
    EXPECT_EQ(EncodeUtf8(nullptr, bytes, length), 0);
    EXPECT_EQ(bytes.get(), before);
    EXPECT_EQ(length, 99U);
}

TEST(DecodeUtf8, IsTheInverseForEveryLength) {
    for (const CodePoint& code_point : kCodePoints) {
        SCOPED_TRACE(code_point.value);
        EXPECT_EQ(Decoded(code_point.bytes), CodePoints{code_point.value});
    }
}

TEST(DecodeUtf8, CountsCodePointsWithoutTheZero) {
    EXPECT_EQ(Decoded("a\xC3\xA9\xE2\x82\xAC"), (CodePoints{'a', 0xE9, 0x20AC}));
    EXPECT_EQ(Decoded(""), CodePoints{});
}

TEST(DecodeUtf8, TakesTheLowSixBitsOfAnyByteThatFollowsALeadByte) {
    EXPECT_EQ(Decoded("\xC3"
                      "Ab"),
              (CodePoints{0xC1, 'b'}));
    EXPECT_EQ(Decoded("\xE2\xC3\xFF"), CodePoints{0x20FF});
    EXPECT_EQ(Decoded("\xC0\x81"), CodePoints{0x01});
}

TEST(DecodeUtf8, ReadsSixBytesForAByteThatIsNotALeadByte) {
    EXPECT_EQ(Decoded("\x80\x81\x82\x83\x84\x85z"), (CodePoints{0x1083105, 'z'}));
    EXPECT_EQ(Decoded("\xBF\x80\x80\x80\x80\x80z"), (CodePoints{0x40000000, 'z'}));
    EXPECT_EQ(Decoded("\xFE\xBF\xBF\xBF\xBF\xBFz"), (CodePoints{0x3FFFFFFF, 'z'}));
    EXPECT_EQ(Decoded("\xFF\xBF\xBF\xBF\xBF\xBFz"), (CodePoints{0x7FFFFFFF, 'z'}));
}

TEST(DecodeUtf8, EndsATruncatedSequenceAtTheZeroWithTheMissingBitsZero) {
    const struct {
        std::string bytes;
        CodePoints expected;
    } cases[] = {
        {"A\xC3", {'A', 0xC0}},
        {"\xE2\x82", {0x2080}},
        {"\xE2", {0x2000}},
        {"\xF0", {0}},
        {"\xF4\x8F\xBF", {0x10FFC0}},
        {"\xF8\x88\x80\x80", {0x200000}},
        {"\xFD", {0x40000000}},
        {"\xFD\xBF\xBF\xBF\xBF", {0x7FFFFFC0}},
        {"\x80", {0}},
        {"\xFF", {0x40000000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.bytes));
        EXPECT_EQ(Decoded(c.bytes), c.expected);
    }
}

TEST(DecodeUtf8, RejectsNullAndLeavesTheOutputUnchanged) {
    auto wide = std::make_unique<wchar_t[]>(1);
    const wchar_t* const before = wide.get();
    std::size_t length = 99;
    EXPECT_EQ(DecodeUtf8(nullptr, wide, length), 0);
    EXPECT_EQ(wide.get(), before);
    EXPECT_EQ(length, 99U);
}

TEST(IsUtf8, HoldsForWhatEncodeUtf8Writes) {
    std::string all;
    for (const CodePoint& code_point : kCodePoints) {
        SCOPED_TRACE(code_point.value);
        EXPECT_TRUE(IsUtf8(code_point.bytes.c_str()));
        all += code_point.bytes;
    }
    EXPECT_TRUE(IsUtf8(all.c_str()));
}

TEST(IsUtf8, HoldsForAnEmptyTextAndNotForNull) {
    EXPECT_TRUE(IsUtf8(""));
    EXPECT_FALSE(IsUtf8(nullptr));
}

TEST(IsUtf8, RequiresAValidLeadByteAndItsContinuationBytes) {
    const struct {
        const char* bytes;
        bool expected;
    } cases[] = {
        {"plain", true},
        {"\xC0\x80", true},  // overlong
        {"\x80", false},
        {"\xBF\x80\x80\x80\x80\x80", false},
        {"\xFE\x80\x80\x80\x80\x80", false},
        {"\xFF\x80\x80\x80\x80\x80", false},
        {"\xC3", false},
        {"\xC3z", false},
        {"\xC3\xC3\xA9", false},
        {"\xC3\xA9\xA9", false},
        {"\xE2\x82", false},
        {"\xE2\x82z", false},
        {"\xF4\x8F\xBF", false},
        {"\xF8\x88\x80\x80", false},
        {"\xFC\x84\x80\x80\x80", false},
        {"ok \xC3\xA9 ok", true},
        {"ok \xC3\xA9 \xE9", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.bytes));
        EXPECT_EQ(IsUtf8(c.bytes), c.expected);
    }
}

TEST(IsGbk, RequiresALeadByteFollowedByATrailByte) {
    const struct {
        const char* bytes;
        bool expected;
    } cases[] = {
        {"", true},
        {"plain\x7F", true},
        {"\x81\x40", true},
        {"\xFE\xFE", true},
        {"\xC4\xE3\xBA\xC3", true},
        {"a\xC4\xE3z", true},
        {"\x81\x7F", true},
        {"\x80\x40", false},
        {"\xFF\x40", false},
        {"\x81\x3F", false},
        {"\x81\xFF", false},
        {"\x81", false},
        {"\xC4\xE3\xBA", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.bytes));
        EXPECT_EQ(IsGbk(c.bytes), c.expected);
    }
    EXPECT_FALSE(IsGbk(nullptr));
}

TEST(WideToUtf8, EncodesInAnyLocale) {
    const ScopedLocale locale("C");
    EXPECT_EQ(WideToUtf8(L"a\u00E9\u20AC\U0001F600"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(WideToUtf8(L""), "");
}

TEST(WideToUtf8, EndsAtTheFirstZero) {
    EXPECT_EQ(WideToUtf8(std::wstring(L"ab\0cd", 5)), "ab");
}

TEST(WideToMultiByte, UsesTheLocale) {
    const Latin1Locale locale;
    ASSERT_TRUE(locale.IsInstalled());
    EXPECT_EQ(WideToMultiByte(L"caf\u00E9"), "caf\xE9");
}

TEST(WideToMultiByte, WritesNoMoreBytesThanTheTextHasWideCharacters) {
    const ScopedLocale locale("C.UTF-8");
    ASSERT_TRUE(locale.IsInstalled());
    EXPECT_EQ(WideToMultiByte(L"abc"), "abc");
    EXPECT_EQ(WideToMultiByte(L"\u00E9b"), "\xC3\xA9");
    EXPECT_EQ(WideToMultiByte(L"a\u00E9"), "a");
    EXPECT_EQ(WideToMultiByte(L"\u00E9"), "");
    EXPECT_EQ(WideToMultiByte(L"abc\u20AC"), "abc");
}

TEST(WideToMultiByte, IsEmptyIfTheLocaleHasNoSuchCharacter) {
    const ScopedLocale locale("C");
    EXPECT_EQ(WideToMultiByte(L"plain"), "plain");
    EXPECT_EQ(WideToMultiByte(L"plain \u20AC"), "");
    EXPECT_EQ(WideToMultiByte(L""), "");
}

TEST(MultiByteToWide, DecodesUtf8InAnyLocale) {
    const ScopedLocale locale("C");
    EXPECT_EQ(MultiByteToWide("a\xC3\xA9\xE2\x82\xAC"), L"a\u00E9\u20AC");
    EXPECT_EQ(MultiByteToWide(""), L"");
}

TEST(MultiByteToWide, ReadsUtf8AsSuchEvenInAnotherLocale) {
    const Latin1Locale locale;
    ASSERT_TRUE(locale.IsInstalled());
    EXPECT_EQ(MultiByteToWide("caf\xC3\xA9"), L"caf\u00E9");
}

TEST(MultiByteToWide, ReadsAnyOtherTextByTheLocale) {
    const Latin1Locale locale;
    ASSERT_TRUE(locale.IsInstalled());
    EXPECT_EQ(MultiByteToWide("caf\xE9"), L"caf\u00E9");
}

TEST(MultiByteToWide, IsEmptyIfTheLocaleCannotReadIt) {
    const ScopedLocale locale("C.UTF-8");
    ASSERT_TRUE(locale.IsInstalled());
    EXPECT_EQ(MultiByteToWide("caf\xE9"), L"");
}

}  // namespace
}  // namespace zumod
