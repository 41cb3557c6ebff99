#include "src/base/str_ptime.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>

#include "tests/support/process/scoped_environment.h"

namespace zumod {
namespace {

constexpr int kUntouched = -7777;

std::tm Untouched() {
    std::tm fields{};
    fields.tm_sec = fields.tm_min = fields.tm_hour = fields.tm_mday = kUntouched;
    fields.tm_mon = fields.tm_year = fields.tm_wday = fields.tm_yday = kUntouched;
    return fields;
}

// The unmatched rest of the text, or "no match". The text is in memory of exactly its size.
std::string Rest(const std::string& text, const char* format, std::tm& fields) {
    const auto exact = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(exact.get(), text.c_str(), text.size() + 1);
    const char* const end = StrPTime(exact.get(), format, fields);
    return end == nullptr ? "no match" : end;
}

std::string Rest(const std::string& text, const char* format) {
    std::tm fields = Untouched();
    return Rest(text, format, fields);
}

// One conversion that stores one number.
struct Single {
    const char* format;
    const char* text;
    int std::tm::*field;
    int expected;
    const char* rest;
};

void ExpectSingle(const Single& c) {
    SCOPED_TRACE(std::string(c.format) + " of \"" + c.text + "\"");
    std::tm fields = Untouched();
    EXPECT_EQ(Rest(c.text, c.format, fields), c.rest);
    for (int std::tm::*const field :
         {&std::tm::tm_sec, &std::tm::tm_min, &std::tm::tm_hour, &std::tm::tm_mday, &std::tm::tm_mon,
          &std::tm::tm_year, &std::tm::tm_wday, &std::tm::tm_yday}) {
        EXPECT_EQ(fields.*field, field == c.field ? c.expected : kUntouched);
    }
}

TEST(StrPTime, ReadsEachNumberIntoItsFieldAndNoOther) {
    const Single cases[] = {
        {"%H", "00", &std::tm::tm_hour, 0, ""},      {"%H", "23", &std::tm::tm_hour, 23, ""},
        {"%k", "23", &std::tm::tm_hour, 23, ""},     {"%k", " 7", &std::tm::tm_hour, 7, ""},
        {"%I", "01", &std::tm::tm_hour, 1, ""},      {"%I", "12", &std::tm::tm_hour, 12, ""},
        {"%l", "12", &std::tm::tm_hour, 12, ""},     {"%l", " 1", &std::tm::tm_hour, 1, ""},
        {"%M", "00", &std::tm::tm_min, 0, ""},       {"%M", "59", &std::tm::tm_min, 59, ""},
        {"%S", "00", &std::tm::tm_sec, 0, ""},       {"%S", "60", &std::tm::tm_sec, 60, ""},
        {"%d", "01", &std::tm::tm_mday, 1, ""},      {"%d", "31", &std::tm::tm_mday, 31, ""},
        {"%e", " 6", &std::tm::tm_mday, 6, ""},      {"%e", "31", &std::tm::tm_mday, 31, ""},
        {"%j", "001", &std::tm::tm_yday, 0, ""},     {"%j", "366", &std::tm::tm_yday, 365, ""},
        {"%m", "01", &std::tm::tm_mon, 0, ""},       {"%m", "12", &std::tm::tm_mon, 11, ""},
        {"%Y", "1900", &std::tm::tm_year, 0, ""},    {"%Y", "2020", &std::tm::tm_year, 120, ""},
        {"%Y", "9999", &std::tm::tm_year, 8099, ""}, {"%y", "00", &std::tm::tm_year, 100, ""},
        {"%y", "68", &std::tm::tm_year, 168, ""},    {"%y", "69", &std::tm::tm_year, 69, ""},
        {"%y", "99", &std::tm::tm_year, 99, ""},
    };
    for (const Single& c : cases) {
        ExpectSingle(c);
    }
}

TEST(StrPTime, AcceptsFewerDigitsAndStopsAtTheMaximum) {
    const Single cases[] = {
        {"%H", "7", &std::tm::tm_hour, 7, ""},      {"%H", "7:", &std::tm::tm_hour, 7, ":"},
        {"%H", "123", &std::tm::tm_hour, 12, "3"},  {"%M", "5999", &std::tm::tm_min, 59, "99"},
        {"%d", "010", &std::tm::tm_mday, 1, "0"},   {"%j", "3", &std::tm::tm_yday, 2, ""},
        {"%j", "0365", &std::tm::tm_yday, 35, "5"}, {"%Y", "20201", &std::tm::tm_year, 120, "1"},
        {"%y", "7", &std::tm::tm_year, 107, ""},    {"%y", "2020", &std::tm::tm_year, 120, "20"},
        {"%S", " \t\n9", &std::tm::tm_sec, 9, ""},
    };
    for (const Single& c : cases) {
        ExpectSingle(c);
    }
}

TEST(StrPTime, RejectsNumbersOutOfRangeAndLeavesTheFieldUnchanged) {
    const struct {
        const char* format;
        const char* text;
    } cases[] = {
        {"%H", "24"},  {"%k", "24"},   {"%I", "00"}, {"%I", "13"},   {"%l", "0"},  {"%l", "13"},
        {"%M", "60"},  {"%S", "61"},   {"%d", "00"}, {"%d", "32"},   {"%e", "0"},  {"%e", "32"},
        {"%j", "000"}, {"%j", "367"},  {"%m", "00"}, {"%m", "13"},   {"%H", "x"},  {"%H", ""},
        {"%H", "-1"},  {"%H", "+1"},   {"%Y", "x"},  {"%Y", "-999"}, {"%y", "-1"}, {"%y", ""},
        {"%S", "   "}, {"%d", "\xB2"},
    };
    for (const auto& c : cases) {
        ExpectSingle({c.format, c.text, nullptr, 0, "no match"});
    }
}

TEST(StrPTime, RejectsAYearThatWouldBeStoredAsANegativeNumber) {
    for (const char* const text : {"1899", "0000", "999", "20"}) {
        ExpectSingle({"%Y", text, nullptr, 0, "no match"});
    }
}

TEST(StrPTime, ReadsWeekdaysInFullOrShortInAnyCase) {
    const struct {
        const char* text;
        int expected;
        const char* rest;
    } cases[] = {
        {"Sunday", 0, ""},    {"Monday", 1, ""},   {"Tuesday", 2, ""},  {"Wednesday", 3, ""},
        {"Thursday", 4, ""},  {"Friday", 5, ""},   {"Saturday", 6, ""}, {"Sun", 0, ""},
        {"Mon", 1, ""},       {"Tue", 2, ""},      {"Wed", 3, ""},      {"Thu", 4, ""},
        {"Fri", 5, ""},       {"Sat", 6, ""},      {"sUNDAY", 0, ""},   {"WED", 3, ""},
        {"Wednes", 3, "nes"}, {"Sundays", 0, "s"}, {"Thur", 4, "r"},
    };
    for (const auto& c : cases) {
        ExpectSingle({"%a", c.text, &std::tm::tm_wday, c.expected, c.rest});
        ExpectSingle({"%A", c.text, &std::tm::tm_wday, c.expected, c.rest});
    }
    for (const char* const text : {"", "Su", "S", "xSun", " Sun", "\xFFun", "0"}) {
        ExpectSingle({"%a", text, nullptr, 0, "no match"});
    }
}

TEST(StrPTime, ReadsMonthsInFullOrShortInAnyCase) {
    const struct {
        const char* text;
        int expected;
        const char* rest;
    } cases[] = {
        {"January", 0, ""},   {"February", 1, ""}, {"March", 2, ""},     {"April", 3, ""},
        {"May", 4, ""},       {"June", 5, ""},     {"July", 6, ""},      {"August", 7, ""},
        {"September", 8, ""}, {"October", 9, ""},  {"November", 10, ""}, {"December", 11, ""},
        {"Jan", 0, ""},       {"Feb", 1, ""},      {"Mar", 2, ""},       {"Apr", 3, ""},
        {"Jun", 5, ""},       {"Jul", 6, ""},      {"Aug", 7, ""},       {"Sep", 8, ""},
        {"Oct", 9, ""},       {"Nov", 10, ""},     {"Dec", 11, ""},      {"dEcEmBeR", 11, ""},
        {"may", 4, ""},       {"Sept", 8, "t"},    {"Mayor", 4, "or"},   {"Januar", 0, "uar"},
    };
    for (const auto& c : cases) {
        for (const char* const format : {"%b", "%B", "%h"}) {
            ExpectSingle({format, c.text, &std::tm::tm_mon, c.expected, c.rest});
        }
    }
    for (const char* const text : {"", "Ja", "Mai", "13", "\x8D"}) {
        ExpectSingle({"%b", text, nullptr, 0, "no match"});
    }
}

TEST(StrPTime, ChangesTheHourReadSoFarForAmAndPm) {
    const struct {
        int hour;
        const char* text;
        int expected;
    } cases[] = {
        {0, "AM", 0},   {1, "AM", 1},   {11, "AM", 11}, {12, "AM", 0}, {0, "PM", 12}, {1, "PM", 13},
        {11, "PM", 23}, {12, "PM", 12}, {1, "pm", 13},  {12, "aM", 0}, {1, "Pm", 13},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.hour) + c.text);
        std::tm fields{};
        fields.tm_hour = c.hour;
        EXPECT_EQ(Rest(c.text, "%p", fields), "");
        EXPECT_EQ(fields.tm_hour, c.expected);
    }
}

TEST(StrPTime, RejectsAmAndPmAfterAnHourAbove12AndOtherWords) {
    const struct {
        int hour;
        const char* text;
    } cases[] = {{13, "AM"}, {13, "PM"},  {INT_MAX, "PM"}, {1, "A"},  {1, "P"},
                 {1, ""},    {1, "a.m."}, {1, "XM"},       {1, " AM"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.hour) + c.text);
        std::tm fields{};
        fields.tm_hour = c.hour;
        EXPECT_EQ(Rest(c.text, "%p", fields), "no match");
        EXPECT_EQ(fields.tm_hour, c.hour);
    }
    EXPECT_EQ(Rest("13:00 PM", "%H:%M %p"), "no match");
}

TEST(StrPTime, ALaterHourReplacesTheResultOfAmOrPm) {
    std::tm fields{};
    EXPECT_EQ(Rest("PM 3", "%p %I", fields), "");
    EXPECT_EQ(fields.tm_hour, 3);
}

TEST(StrPTime, ExpandsTheConversionsThatStandForOthers) {
    struct Case {
        const char* format;
        const char* text;
        int year, month, day, hour, minute, second, weekday;
    };
    constexpr int kNone = kUntouched;
    const Case cases[] = {
        {"%C", "Wednesday, May, 6, 2020", 120, 4, 6, kNone, kNone, kNone, 3},
        {"%C", "wed,MAY,06,2020", 120, 4, 6, kNone, kNone, kNone, 3},
        {"%c", "05/06/20 07:08:09", 120, 4, 6, 7, 8, 9, kNone},
        {"%D", "05/06/20", 120, 4, 6, kNone, kNone, kNone, kNone},
        {"%x", "05/06/70", 70, 4, 6, kNone, kNone, kNone, kNone},
        {"%R", "07:08", kNone, kNone, kNone, 7, 8, kNone, kNone},
        {"%T", "07:08:09", kNone, kNone, kNone, 7, 8, 9, kNone},
        {"%X", "23:59:60", kNone, kNone, kNone, 23, 59, 60, kNone},
        {"%r", "07:08:09 PM", kNone, kNone, kNone, 19, 8, 9, kNone},
        {"%r", "12:00:00am", kNone, kNone, kNone, 0, 0, 0, kNone},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::tm fields = Untouched();
        EXPECT_EQ(Rest(c.text, c.format, fields), "");
        EXPECT_EQ(fields.tm_year, c.year);
        EXPECT_EQ(fields.tm_mon, c.month);
        EXPECT_EQ(fields.tm_mday, c.day);
        EXPECT_EQ(fields.tm_hour, c.hour);
        EXPECT_EQ(fields.tm_min, c.minute);
        EXPECT_EQ(fields.tm_sec, c.second);
        EXPECT_EQ(fields.tm_wday, c.weekday);
        EXPECT_EQ(fields.tm_yday, kNone);
    }
    EXPECT_EQ(Rest("20", "%C"), "no match");
    EXPECT_EQ(Rest("Wednesday, May 6, 2020", "%C"), "no match");
    EXPECT_EQ(Rest("05/06/2020 07:08:09", "%c"), "no match");
    EXPECT_EQ(Rest("13:00:00 PM", "%r"), "no match");
}

TEST(StrPTime, ContinuesWithTheFormatAfterAnExpansion) {
    std::tm fields{};
    EXPECT_EQ(Rest("07:08 on the 6th", "%R on the %dth", fields), "");
    EXPECT_EQ(fields.tm_min, 8);
    EXPECT_EQ(fields.tm_mday, 6);
}

TEST(StrPTime, SkipsAnyWhiteSpaceWhereTheFormatHasSome) {
    const struct {
        const char* text;
        const char* format;
        const char* rest;
    } cases[] = {
        {"a \t\n\v\f\r b", "a b", ""},
        {"ab", "a b", ""},
        {"a b", "a\tb", ""},
        {"a  b", "a \n b", ""},
        {"a", "a ", ""},
        {"a  ", "a", "  "},
        {"  ", " ", ""},
        {"", " ", ""},
        {"a b", "ab", "no match"},
        {" a", "a", "no match"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(Rest(c.text, c.format), c.rest);
    }
}

TEST(StrPTime, MatchesLiteralsExactly) {
    const struct {
        const char* text;
        const char* format;
        const char* rest;
    } cases[] = {
        {"T", "T", ""},
        {"t", "T", "no match"},
        {"", "T", "no match"},
        {"", "", ""},
        {"abc", "", "abc"},
        {"abcd", "abc", "d"},
        {"%", "%%", ""},
        {"%%", "%%", "%"},
        {"x", "%%", "no match"},
        {"", "%%", "no match"},
        {"50%", "%M%%", ""},
        {"\xFF", "\xFF", ""},
        {"\xFE", "\xFF", "no match"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " / " + c.format);
        EXPECT_EQ(Rest(c.text, c.format), c.rest);
    }
}

TEST(StrPTime, RejectsUnknownConversions) {
    for (const char* const format :
         {"%E", "%F", "%G", "%L", "%N", "%O", "%P", "%Q", "%U", "%V", "%W", "%Z",    "%f",  "%g", "%i",
          "%n", "%o", "%q", "%s", "%t", "%u", "%v", "%w", "%z", "%1", "% ", "%\xFF", "%Ey", "%-d"}) {
        SCOPED_TRACE(format);
        EXPECT_EQ(Rest("1", format), "no match");
    }
}

TEST(StrPTime, RejectsAFormatThatEndsInAPercentSign) {
    EXPECT_EQ(Rest("%", "%"), "no match");
    EXPECT_EQ(Rest("7", "%H%"), "no match");
}

TEST(StrPTime, KeepsWhatItReadBeforeTheTextStoppedMatching) {
    std::tm fields = Untouched();
    EXPECT_EQ(Rest("2020-05-xx", "%Y-%m-%d", fields), "no match");
    EXPECT_EQ(fields.tm_year, 120);
    EXPECT_EQ(fields.tm_mon, 4);
    EXPECT_EQ(fields.tm_mday, kUntouched);
}

TEST(StrPTime, ReadsAdjacentNumbersByTheirMaximumDigits) {
    std::tm fields{};
    EXPECT_EQ(Rest("20200506070809", "%Y%m%d%H%M%S", fields), "");
    EXPECT_EQ(fields.tm_year, 120);
    EXPECT_EQ(fields.tm_mon, 4);
    EXPECT_EQ(fields.tm_mday, 6);
    EXPECT_EQ(fields.tm_hour, 7);
    EXPECT_EQ(fields.tm_min, 8);
    EXPECT_EQ(fields.tm_sec, 9);
}

TEST(StrPTime, ReadsBackWhatStrftimeWrites) {
    const testing::ScopedLocale locale("C");
    std::tm written{};
    written.tm_year = 99;
    written.tm_mon = 1;
    written.tm_mday = 3;
    written.tm_hour = 16;
    written.tm_min = 5;
    written.tm_sec = 6;
    written.tm_wday = 3;
    written.tm_yday = 33;
    char text[128];
    std::strftime(text, sizeof text, "%a %B %e %I:%M:%S %p %Y %j", &written);
    std::tm read{};
    EXPECT_EQ(Rest(text, "%a %B %e %I:%M:%S %p %Y %j", read), "");
    EXPECT_EQ(read.tm_year, written.tm_year);
    EXPECT_EQ(read.tm_mon, written.tm_mon);
    EXPECT_EQ(read.tm_mday, written.tm_mday);
    EXPECT_EQ(read.tm_hour, written.tm_hour);
    EXPECT_EQ(read.tm_min, written.tm_min);
    EXPECT_EQ(read.tm_sec, written.tm_sec);
    EXPECT_EQ(read.tm_wday, written.tm_wday);
    EXPECT_EQ(read.tm_yday, written.tm_yday);
}

}  // namespace
}  // namespace zumod
