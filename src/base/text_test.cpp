#include "src/base/text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "tests/support/process/latin1_locale.h"
#include "tests/support/process/scoped_environment.h"

namespace zumod {
namespace {

using ::testing::ElementsAre;
using testing::Latin1Locale;
using testing::ScopedLocale;

TEST(ReplaceAll, ReplacesUntilNoMatchIsLeft) {
    const struct {
        std::string text, from, to, expected;
    } cases[] = {
        {"a.b.c", ".", "::", "a::b::c"},
        {"abcabc", "bc", "", "aa"},
        {"aaaa", "aa", "b", "bb"},
        {"none", "x", "y", "none"},
        {"", "x", "y", ""},
        {"x", "x", "", ""},
        {"path/to//x", "//", "/", "path/to/x"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        ReplaceAll(text, c.from, c.to);
        EXPECT_EQ(text, c.expected);
    }
}

TEST(ReplaceAll, SearchesFromTheStartAgainSoThatANewOccurrenceIsReplacedToo) {
    std::string text = "aaab";
    ReplaceAll(text, "ab", "b");
    EXPECT_EQ(text, "b");
    text = "a////b";
    ReplaceAll(text, "//", "/");
    EXPECT_EQ(text, "a/b");
    text = "((()))";
    ReplaceAll(text, "()", "");
    EXPECT_EQ(text, "");
}

TEST(ReplaceAll, WorksOnWideTextTheSameWay) {
    std::wstring text = L"a\u20ACb\u20ACc";
    ReplaceAll(text, L"\u20AC", L"--");
    EXPECT_EQ(text, L"a--b--c");
    text = L"aaab";
    ReplaceAll(text, L"ab", L"b");
    EXPECT_EQ(text, L"b");
}

TEST(Trim, ErasesWhiteSpaceAtBothEnds) {
    const struct {
        std::string text, expected;
    } cases[] = {
        {" \t\n\v\f\r a b \t\n\v\f\r ", "a b"}, {"a", "a"}, {"", ""}, {" \t ", ""}, {"\x08 a", "\x08 a"},
        {"\xA0 a \xA0", "\xA0 a \xA0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        Trim(text);
        EXPECT_EQ(text, c.expected);
    }
}

TEST(Trim, UsesTheLocaleAndTheDefaultPredicateDoesNot) {
    const Latin1Locale locale;
    ASSERT_TRUE(locale.IsInstalled());
    std::string text = "\xA0 a \xA0";
    TrimLeft(text);
    TrimRight(text);
    EXPECT_EQ(text, "\xA0 a \xA0");
    Trim(text);
    EXPECT_EQ(text, "a");
}

TEST(IsCLocaleSpace, HoldsForCodes9To13And32) {
    for (int code = -1; code <= 256; ++code) {
        SCOPED_TRACE(code);
        EXPECT_EQ(IsCLocaleSpace(code) != 0, (code >= 9 && code <= 13) || code == 32);
    }
}

TEST(TrimLeftAndTrimRight, EraseWhiteSpaceAtTheirEndOnly) {
    const struct {
        std::string text, left, right;
    } cases[] = {
        {" \t\n\v\f\r a b \t\n\v\f\r ", "a b \t\n\v\f\r ", " \t\n\v\f\r a b"},
        {"a", "a", "a"},
        {"", "", ""},
        {"\t \n", "", ""},
        {"\x08 a \x0E", "\x08 a \x0E", "\x08 a \x0E"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string left = c.text;
        TrimLeft(left);
        EXPECT_EQ(left, c.left);
        std::string right = c.text;
        TrimRight(right);
        EXPECT_EQ(right, c.right);
    }
}

TEST(TrimLeftAndTrimRight, EraseWhatThePredicateHoldsFor) {
    const std::string unwanted = "x\xFF";
    const CharPredicate predicate = [&unwanted](int code) {
        return unwanted.find(static_cast<char>(code)) == std::string::npos ? 0 : 2;
    };
    std::string text = "x\xFFx a x\xFF";
    TrimLeft(text, predicate);
    EXPECT_EQ(text, " a x\xFF");
    TrimRight(text, predicate);
    EXPECT_EQ(text, " a ");
}

TEST(TrimLeftAndTrimRight, PassCodesFrom0To255ToThePredicate) {
    std::vector<int> codes;
    const CharPredicate predicate = [&codes](int code) {
        codes.push_back(code);
        return 1;
    };
    std::string text = "\x01\x80\xFF";
    TrimLeft(text, predicate);
    EXPECT_THAT(codes, ElementsAre(1, 0x80, 0xFF));
    codes.clear();
    text = "\x01\x80\xFF";
    TrimRight(text, predicate);
    EXPECT_THAT(codes, ElementsAre(0xFF, 0x80, 1));
}

TEST(TrimBlanks, ErasesBlanksAndNoOtherWhiteSpace) {
    const struct {
        std::string text, expected;
    } cases[] = {{"  a b  ", "a b"}, {"  \ta\n  ", "\ta\n"}, {"   ", ""}, {"", ""}, {"a", "a"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        TrimBlanks(text);
        EXPECT_EQ(text, c.expected);
    }
}

TEST(ToLowerAndToUpper, ChangeEachByteOfACopy) {
    const std::string text = "aZ09-_{[@`";
    EXPECT_EQ(ToLower(text), "az09-_{[@`");
    EXPECT_EQ(ToUpper(text), "AZ09-_{[@`");
    EXPECT_EQ(text, "aZ09-_{[@`");
    EXPECT_EQ(ToLower(""), "");
    EXPECT_EQ(ToUpper(""), "");
}

TEST(ToLowerAndToUpper, LeaveBytesWithoutCaseInTheLocaleUnchanged) {
    const ScopedLocale locale("C");
    EXPECT_EQ(ToLower("\xC3\x89\xFF"), "\xC3\x89\xFF");
    EXPECT_EQ(ToUpper("\xC3\xA9\xFF"), "\xC3\xA9\xFF");
}

TEST(ToLowerAndToUpper, UseTheLocale) {
    const Latin1Locale locale;
    ASSERT_TRUE(locale.IsInstalled());
    EXPECT_EQ(ToLower("\xC9"), "\xE9");
    EXPECT_EQ(ToUpper("\xE9"), "\xC9");
}

TEST(NumbersAsText, ArePlainDecimalDigits) {
    EXPECT_EQ(IntToString(0), "0");
    EXPECT_EQ(IntToString(-42), "-42");
    EXPECT_EQ(IntToString(INT_MAX), "2147483647");
    EXPECT_EQ(IntToString(INT_MIN), "-2147483648");
    EXPECT_EQ(LongToString(0), "0");
    EXPECT_EQ(LongToString(LONG_MAX), "9223372036854775807");
    EXPECT_EQ(LongToString(LONG_MIN), "-9223372036854775808");
    EXPECT_EQ(ULongToString(0), "0");
    EXPECT_EQ(ULongToString(ULONG_MAX), "18446744073709551615");
}

TEST(StrToLong, ReturnsTheFallbackForNullOnly) {
    EXPECT_EQ(StrToLong(nullptr, 7), 7);
    EXPECT_EQ(StrToLong("", 7), 0);
    EXPECT_EQ(StrToLong("abc", 7), 0);
}

TEST(StrToLong, ReadsTheNumberAtTheStartInBase10) {
    const struct {
        const char* text;
        long expected;
    } cases[] = {
        {"12abc", 12},
        {" \t-12", -12},
        {"+3", 3},
        {"0x10", 0},
        {"010", 10},
        {"9223372036854775807", LONG_MAX},
        {"9223372036854775808", LONG_MAX},
        {"-9999999999999999999", LONG_MIN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(StrToLong(c.text, 7), c.expected);
    }
}

using Pieces = std::vector<std::string>;

Pieces Cut(const std::string& text, const std::string& delimiters, std::size_t limit = 0) {
    Pieces parts;
    Split(text, delimiters, parts, limit);
    return parts;
}

TEST(Split, DividesAtEveryDelimiterAndKeepsEmptyPieces) {
    const struct {
        std::string text, delimiters;
        Pieces expected;
    } cases[] = {
        {"a,,b,", ",", {"a", "", "b", ""}},
        {"a", ",", {"a"}},
        {"", ",", {""}},
        {",", ",", {"", ""}},
        {",,", ",", {"", "", ""}},
        {",a", ",", {"", "a"}},
        {"a,b;c d", ";,", {"a", "b", "c d"}},
        {"a,;b", ",;", {"a", "", "b"}},
        {"a,b", "", {"a,b"}},
        {"\xC3\xA9,\xFF", ",", {"\xC3\xA9", "\xFF"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(Cut(c.text, c.delimiters), c.expected);
    }
}

TEST(Split, AppendsToTheList) {
    Pieces parts = {"first"};
    Split("a,b", ",", parts);
    EXPECT_EQ(parts, (Pieces{"first", "a", "b"}));
}

TEST(Split, AcceptsAZeroByteAsADelimiter) {
    EXPECT_EQ(Cut(std::string("a\0b", 3), std::string("\0", 1)), (Pieces{"a", "b"}));
}

TEST(Split, StopsAfterTheLimitOfPieces) {
    const struct {
        std::string text;
        std::size_t limit;
        Pieces expected;
    } cases[] = {
        {"a,b,c", 0, {"a", "b", "c"}},
        {"a,b,c", 1, {"a", "b,c"}},
        {"a,b,c", 2, {"a", "b", "c"}},
        {"a,b,c", 3, {"a", "b", "c"}},
        {"a,b,c,d", 2, {"a", "b", "c,d"}},
        {"a,b,", 1, {"a", "b,"}},
        {"a", 1, {"a"}},
        // An empty piece counts ...
        {",a,b", 1, {"", "a,b"}},
        {"a,,b,c", 2, {"a", "", "b,c"}},
        // ... and is accepted even at the limit, which takes the count past it.
        {"a,,b,c", 1, {"a", "", "b", "c"}},
        {",,a,b", 1, {"", "", "a", "b"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text + " / " + std::to_string(c.limit));
        EXPECT_EQ(Cut(c.text, ",", c.limit), c.expected);
    }
}

TEST(CompareVersion, ReturnsThePositionOfTheFirstDifferenceWithItsSign) {
    const struct {
        std::string a, b;
        int expected;
    } cases[] = {
        {"1.2", "1.3", -2}, {"1.3", "1.2", 2},    {"2", "1", 1},       {"1.2.3.4", "1.2.3.5", -4},
        {"1.10", "1.9", 2}, {"1.2", "1.2", 0},    {"", "", 0},         {"1.0.1", "1", 3},
        {"1.-1", "1", -2},  {"1.0", "1", 100},    {"1.0.0", "1", 100}, {"1", "1.0", -100},
        {"1", "1.5", -100}, {"01.2a", "1.2b", 0}, {"x", "y", 0},       {".1", "0.1", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.a + " / " + c.b);
        EXPECT_EQ(CompareVersion(c.a, c.b, "."), c.expected);
    }
}

TEST(CompareVersion, DividesAtAnyOfTheDelimiters) {
    EXPECT_EQ(CompareVersion("1.2-3", "1-2.4", ".-"), -3);
}

TEST(CompareVersion, ReadsPiecesAs32BitNumbers) {
    EXPECT_EQ(CompareVersion("4294967297", "1", "."), 0);
    EXPECT_EQ(CompareVersion("2147483648", "2147483647", "."), -1);
    EXPECT_EQ(CompareVersion("99999999999999999999", "0", "."), -1);
}

}  // namespace
}  // namespace zumod
