// Times as text and back.
//
// Thread rule: FormatTimeUtc, FormatNowUtc and FormatLocalDateTime are for one thread at a time: they use the
// C library's shared broken-down time. FormatHttpDate changes the process locale. The others are [any
// thread].
#pragma once

#include <ctime>
#include <string>

namespace zumod {

// Uses strftime with 100 bytes: empty if the result does not fit or the time has no calendar date.
std::string FormatTimeUtc(std::time_t seconds, const std::string& format);
std::string FormatNowUtc(const std::string& format);

// "2020-05-06 07:08:09" in local time. Returns 0; `out` is unchanged if the time has no calendar date.
int FormatLocalDateTime(std::string& out, std::time_t seconds);

// Parses "2020-05-06 07:08:09" as local standard time, loosely: each number is what strtol reads after the
// separator; the time of day, or its end, may be missing and counts as 0. Returns 0. If there are no two
// dashes, prints a line on standard output, leaves `seconds` unchanged and returns -1.
int ParseLocalDateTime(const std::string& text, std::time_t& seconds);

// Both use StrPTime and do not report whether the text matched: `fields` holds what was read.
// ParseIsoDateTime returns 1, ParseTime 0.
int ParseIsoDateTime(const std::string& text, std::tm& fields);
int ParseTime(const std::string& format, const std::string& text, std::tm& fields);

// Local standard time from the fields that ParseTime reads; all others are 0. Returns 0.
int ParseTimeToSeconds(const std::string& format, const std::string& text, std::time_t& seconds);

// "Wed, 06 May 2020 07:08:09 GMT+00:00": the time that std::stoll reads from the text (its exceptions
// propagate), or the present time for an empty text. Required by the contract: sets the LC_TIME of the
// process to en_US.UTF-8, if that is installed, and does not restore it. `out` is unchanged if the time has
// no calendar date.
void FormatHttpDate(std::string& out, const std::string& secondsText);

// The number of whole units ("hours" to "nanoseconds") since the epoch; empty for any other unit.
std::string NowInUnit(const std::string& unit);

}  // namespace zumod
