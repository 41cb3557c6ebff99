#include "src/base/time_text.h"

#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include "tests/support/process/scoped_environment.h"
#include "tests/support/watch/call_watch.h"

namespace zumod {
namespace {

using testing::ScopedLocale;
using testing::ScopedTimeZone;
using testing::ScopedVariable;

constexpr std::time_t kMorning = 1588748889;  // 2020-05-06 07:08:09 UTC, a Wednesday
constexpr std::time_t kMidnight = 1588723200;
constexpr std::time_t kNoDate = std::numeric_limits<std::time_t>::max();
constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

TEST(FormatTimeUtc, WritesUtcInTheGivenFormatInAnyTimeZone) {
    const ScopedLocale locale("C");
    const ScopedTimeZone zone(kCentralEurope);
    const struct {
        std::time_t seconds;
        const char* format;
        const char* expected;
    } cases[] = {
        {0, "%Y-%m-%d %H:%M:%S", "1970-01-01 00:00:00"},
        {-1, "%Y-%m-%d %H:%M:%S", "1969-12-31 23:59:59"},
        {kMorning, "%Y-%m-%dT%H:%M:%SZ", "2020-05-06T07:08:09Z"},
        {kMorning, "%a %A %b %B %j %p", "Wed Wednesday May May 127 AM"},
        {kMorning, "plain", "plain"},
        {kMorning, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.format);
        EXPECT_EQ(FormatTimeUtc(c.seconds, c.format), c.expected);
    }
}

TEST(FormatTimeUtc, IsEmptyForATimeWithoutADate) {
    EXPECT_EQ(FormatTimeUtc(kNoDate, "%Y"), "");
}

TEST(FormatTimeUtc, HoldsUpTo99Characters) {
    EXPECT_EQ(FormatTimeUtc(0, std::string(99, 'x')), std::string(99, 'x'));
    EXPECT_EQ(FormatTimeUtc(0, std::string(100, 'x')), "");
    EXPECT_EQ(FormatTimeUtc(0, std::string(95, 'x') + "%Y"), std::string(95, 'x') + "1970");
    EXPECT_EQ(FormatTimeUtc(0, std::string(96, 'x') + "%Y"), "");
}

TEST(FormatNowUtc, WritesThePresentTime) {
    const std::string format = "%Y-%m-%d %H:%M:%S";
    const std::time_t from = std::time(nullptr);
    const std::string text = FormatNowUtc(format);
    const std::time_t to = std::time(nullptr);
    // Texts of this form sort in the order of the times.
    EXPECT_GE(text, FormatTimeUtc(from, format));
    EXPECT_LE(text, FormatTimeUtc(to, format));
    EXPECT_EQ(text.size(), 19U);
}

TEST(FormatLocalDateTime, WritesLocalTimeAndReturns0) {
    const struct {
        const char* zone;
        std::time_t seconds;
        const char* expected;
    } cases[] = {
        {"UTC0", kMorning, "2020-05-06 07:08:09"},
        {"UTC0", kMidnight, "2020-05-06 00:00:00"},
        {"UTC0", -62135596800, "0001-01-01 00:00:00"},
        {"UTC0", -62198755200, "-001-01-01 00:00:00"},
        {"UTC0", 67768036191676799, "2147485547-12-31 23:59:59"},
        {"EST5", kMorning, "2020-05-06 02:08:09"},
        {kCentralEurope, kMorning, "2020-05-06 09:08:09"},
        {kCentralEurope, 1577880000, "2020-01-01 13:00:00"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        const ScopedTimeZone zone(c.zone);
        std::string out = "before";
        EXPECT_EQ(FormatLocalDateTime(out, c.seconds), 0);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(FormatLocalDateTime, LeavesTheTextUnchangedForATimeWithoutADate) {
    std::string out = "before";
    EXPECT_EQ(FormatLocalDateTime(out, kNoDate), 0);
    EXPECT_EQ(out, "before");
}

TEST(ParseLocalDateTime, ReadsAsMuchOfTheTimeOfDayAsThereIs) {
    const ScopedTimeZone zone("UTC0");
    const struct {
        const char* text;
        std::time_t expected;
    } cases[] = {
        {"2020-05-06 07:08:09", kMorning},
        {"2020-05-06 07:08", kMorning - 9},
        {"2020-05-06 07", kMidnight + 7 * 3600},
        {"2020-05-06 ", kMidnight},
        {"2020-05-06", kMidnight},
        {"2020-5-6 7:8:9", kMorning},
        {" 2020- 5-6 7: 8: 9 and more", kMorning},
        // Anything else between the separators is ignored.
        {"2020y-05m-06d 07h:08m:09s", kMorning},
        {"2020-05-06T23:59:59", kMidnight},
        {"2020-05-06x 07:08:09", kMorning},
        // Numbers out of range carry into the next field.
        {"2020-04-36 07:08:09", kMorning},
        {"2020-05-05 31:08:09", kMorning},
        {"2019-17-06 07:07:69", kMorning},
        {"2020-05-", kMidnight - 6 * 86400},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::time_t seconds = 7;
        EXPECT_EQ(ParseLocalDateTime(c.text, seconds), 0);
        EXPECT_EQ(seconds, c.expected);
    }
}

TEST(ParseLocalDateTime, ReturnsMidnightLocalTimeForADateOnly) {
    const ScopedTimeZone zone("EST5");
    std::time_t seconds = 0;
    EXPECT_EQ(ParseLocalDateTime("2020-05-06", seconds), 0);
    EXPECT_EQ(seconds, kMidnight + 5 * 3600);
}

TEST(ParseLocalDateTime, ReadsStandardTimeEvenInSummer) {
    const ScopedTimeZone zone(kCentralEurope);
    std::time_t seconds = 0;
    EXPECT_EQ(ParseLocalDateTime("2020-01-01 13:00:00", seconds), 0);
    EXPECT_EQ(seconds, 1577880000);
    EXPECT_EQ(ParseLocalDateTime("2020-07-01 13:00:00", seconds), 0);
    EXPECT_EQ(seconds, 1593604800);
}

TEST(ParseLocalDateTime, PrintsATextWithoutTwoDashesAndReturnsMinus1) {
    const struct {
        const char* text;
        const char* printed;
    } cases[] = {
        {"2020-05", "strDateStr[2020-05] err \n"},
        {"20200506 07:08:09", "strDateStr[20200506 07:08:09] err \n"},
        {"", "strDateStr[] err \n"},
        {"%s%n", "strDateStr[%s%n] err \n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::time_t seconds = 7;
        ::testing::internal::CaptureStdout();
        const int result = ParseLocalDateTime(c.text, seconds);
        std::fflush(stdout);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.printed);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(seconds, 7);
    }
}

TEST(ParseLocalDateTime, PrintsNothingWhenItReadsTheText) {
    std::time_t seconds = 0;
    ::testing::internal::CaptureStdout();
    ParseLocalDateTime("2020-05-06", seconds);
    std::fflush(stdout);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(ParseLocalDateTime, AcceptsNumbersOfAnySize) {
    const ScopedTimeZone zone("UTC0");
    const char* const texts[] = {
        "9223372036854775807-9223372036854775807-9223372036854775807 9223372036854775807:1:1",
        "-9223372036854775808--9223372036854775808--9223372036854775808 -1:-9223372036854775808:-1",
        "-2147483648--2147483648--2147483648",
        "99999999999999999999-1-1",
    };
    for (const char* const text : texts) {
        SCOPED_TRACE(text);
        std::time_t seconds = 0;
        EXPECT_EQ(ParseLocalDateTime(text, seconds), 0);
    }
    // 2^32 + 2020 is truncated to 2020.
    std::time_t seconds = 0;
    EXPECT_EQ(ParseLocalDateTime("4294969316-05-06", seconds), 0);
    EXPECT_EQ(seconds, kMidnight);
}

TEST(ParseIsoDateTime, ReadsTheFieldsAndReturns1) {
    std::tm fields{};
    EXPECT_EQ(ParseIsoDateTime("2020-05-06T07:08:09", fields), 1);
    EXPECT_EQ(fields.tm_year, 120);
    EXPECT_EQ(fields.tm_mon, 4);
    EXPECT_EQ(fields.tm_mday, 6);
    EXPECT_EQ(fields.tm_hour, 7);
    EXPECT_EQ(fields.tm_min, 8);
    EXPECT_EQ(fields.tm_sec, 9);
}

TEST(ParseIsoDateTime, Returns1EvenIfTheTextDoesNotMatch) {
    std::tm fields{};
    fields.tm_hour = 55;
    EXPECT_EQ(ParseIsoDateTime("2020-05-06 07:08:09", fields), 1);
    EXPECT_EQ(fields.tm_mday, 6);
    EXPECT_EQ(fields.tm_hour, 55);
    EXPECT_EQ(ParseIsoDateTime("", fields), 1);
}

TEST(ParseTime, UsesTheFormatAndAlwaysReturns0) {
    std::tm fields{};
    EXPECT_EQ(ParseTime("%d %b %Y", "6 May 2020", fields), 0);
    EXPECT_EQ(fields.tm_year, 120);
    EXPECT_EQ(fields.tm_mon, 4);
    EXPECT_EQ(fields.tm_mday, 6);
    EXPECT_EQ(ParseTime("%d", "none", fields), 0);
    EXPECT_EQ(fields.tm_mday, 6);
}

TEST(ParseTimeToSeconds, ReadsTheFieldsAsLocalStandardTime) {
    const struct {
        const char* zone;
        const char* format;
        const char* text;
        std::time_t expected;
    } cases[] = {
        {"UTC0", "%Y-%m-%d %H:%M:%S", "2020-05-06 07:08:09", kMorning},
        {"EST5", "%Y-%m-%d %H:%M:%S", "2020-05-06 02:08:09", kMorning},
        {kCentralEurope, "%Y-%m-%d %H:%M:%S", "2020-05-06 08:08:09", kMorning},
        {"UTC0", "%d/%m/%y", "06/05/20", kMidnight},
        // Day 0 is the day before the first.
        {"UTC0", "%Y-%m", "2020-05", kMidnight - 6 * 86400},
        // Fields after the part that does not match are 0.
        {"UTC0", "%Y-%m-%d %H:%M:%S", "2020-05-06 07:xx:09", kMidnight + 7 * 3600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const ScopedTimeZone zone(c.zone);
        std::time_t seconds = 7;
        EXPECT_EQ(ParseTimeToSeconds(c.format, c.text, seconds), 0);
        EXPECT_EQ(seconds, c.expected);
    }
}

TEST(FormatHttpDate, WritesTheGivenSecondsAsUtc) {
    const ScopedLocale locale("C");
    const ScopedTimeZone zone("EST5");
    const struct {
        const char* seconds;
        const char* expected;
    } cases[] = {
        {"0", "Thu, 01 Jan 1970 00:00:00 GMT+00:00"},
        {"1588748889", "Wed, 06 May 2020 07:08:09 GMT+00:00"},
        {"951782400", "Tue, 29 Feb 2000 00:00:00 GMT+00:00"},
        {"-1", "Wed, 31 Dec 1969 23:59:59 GMT+00:00"},
        {" 1588748889 and more", "Wed, 06 May 2020 07:08:09 GMT+00:00"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.seconds);
        std::string out = "before";
        FormatHttpDate(out, c.seconds);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(FormatHttpDate, IsWrittenIntoABufferOf128Bytes) {
    const ScopedLocale locale("C");
    const testing::CallWatch watch;
    std::string out;
    FormatHttpDate(out, "0");
    EXPECT_EQ(watch.Count(testing::CallWatch::strftime), 1);
    EXPECT_EQ(watch.LastValue(testing::CallWatch::strftime), 128U);
}

TEST(FormatHttpDate, UsesThePresentTimeForAnEmptyText) {
    const ScopedLocale locale("C");
    const std::time_t from = std::time(nullptr);
    std::string out;
    FormatHttpDate(out, "");
    const std::time_t to = std::time(nullptr);
    bool found = false;
    for (std::time_t second = from; second <= to; ++second) {
        found |= out == FormatTimeUtc(second, "%a, %d %b %Y %H:%M:%S GMT+00:00");
    }
    EXPECT_TRUE(found) << out;
}

template <class Exception>
void ExpectRaised(const std::string& seconds) {
    SCOPED_TRACE(seconds);
    std::string out = "before";
    try {
        FormatHttpDate(out, seconds);
        ADD_FAILURE() << "nothing raised";
    } catch (const Exception& raised) {
        EXPECT_STREQ(raised.what(), "stoll");
    }
    EXPECT_EQ(out, "before");
}

TEST(FormatHttpDate, PropagatesTheExceptionsOfTheNumber) {
    ExpectRaised<std::invalid_argument>("soon");
    ExpectRaised<std::invalid_argument>(" ");
    ExpectRaised<std::out_of_range>("9223372036854775808");
    ExpectRaised<std::out_of_range>("-9223372036854775809");
}

TEST(FormatHttpDate, LeavesTheTextUnchangedForATimeWithoutADate) {
    std::string out = "before";
    FormatHttpDate(out, "9223372036854775807");
    EXPECT_EQ(out, "before");
}

// A directory in which the C.UTF-8 locale, which every system has, has the name of the English one.
class FakeEnglishLocale {
public:
    FakeEnglishLocale() {
        std::string pattern = ::testing::TempDir() + "english_locale_XXXXXX";
        m_directory = mkdtemp(pattern.data());
        std::filesystem::create_directory_symlink("/usr/lib/locale/C.utf8", m_directory / "en_US.UTF-8");
    }
    ~FakeEnglishLocale() { std::filesystem::remove_all(m_directory); }
    FakeEnglishLocale(const FakeEnglishLocale&) = delete;
    FakeEnglishLocale& operator=(const FakeEnglishLocale&) = delete;

    std::string Directory() const { return m_directory.string(); }

private:
    std::filesystem::path m_directory;
};

TEST(FormatHttpDate, SetsTheTimeLocaleOfTheProcessAndDoesNotRestoreIt) {
    const FakeEnglishLocale english;
    const ScopedLocale locale("C");
    const ScopedVariable path("LOCPATH", english.Directory());
    std::string out;
    FormatHttpDate(out, "0");
    EXPECT_EQ(out, "Thu, 01 Jan 1970 00:00:00 GMT+00:00");
    EXPECT_STREQ(std::setlocale(LC_TIME, nullptr), "en_US.UTF-8");
    EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
}

TEST(FormatHttpDate, UsesThePresentLocaleIfTheEnglishOneIsMissing) {
    const ScopedLocale locale("C");
    const ScopedVariable path("LOCPATH", "/nonexistent");
    std::string out;
    FormatHttpDate(out, "0");
    EXPECT_EQ(out, "Thu, 01 Jan 1970 00:00:00 GMT+00:00");
    EXPECT_STREQ(std::setlocale(LC_TIME, nullptr), "C");
}

std::int64_t Nanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

TEST(NowInUnit, CountsWholeUnitsSinceTheEpoch) {
    const struct {
        const char* unit;
        std::int64_t nanoseconds;
    } cases[] = {
        {"hours", 3'600'000'000'000}, {"minutes", 60'000'000'000}, {"seconds", 1'000'000'000},
        {"milliseconds", 1'000'000},  {"microseconds", 1'000},     {"nanoseconds", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.unit);
        const std::int64_t from = Nanoseconds() / c.nanoseconds;
        const std::string text = NowInUnit(c.unit);
        const std::int64_t to = Nanoseconds() / c.nanoseconds;
        EXPECT_GE(std::stoll(text), from);
        EXPECT_LE(std::stoll(text), to);
        EXPECT_EQ(text, std::to_string(std::stoll(text)));
    }
}

TEST(NowInUnit, IsEmptyForAnyOtherUnit) {
    for (const char* const unit : {"Seconds", "SECONDS", "second", "seconds ", "days", "s", ""}) {
        SCOPED_TRACE(unit);
        EXPECT_EQ(NowInUnit(unit), "");
    }
}

}  // namespace
}  // namespace zumod
