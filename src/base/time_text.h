// Times as text and back. Not reentrant: FormatTimeUtc, FormatNowUtc and FormatLocalDateTime use the C
// library's shared broken-down time, FormatHttpDate changes the process locale; the others are safe from any
// thread.
#pragma once

#include <ctime>
#include <string>

namespace zumod {

// By strftime into 100 bytes: empty when the result does not fit, and when the time has no calendar date.
std::string FormatTimeUtc(std::time_t seconds, const std::string& format);
std::string FormatNowUtc(const std::string& format);

// "2020-05-06 07:08:09" of local time. Always 0; `out` stays as it was when the time has no calendar date.
int FormatLocalDateTime(std::string& out, std::time_t seconds);

// Reads "2020-05-06 07:08:09" as local standard time, loosely: each number is whatever strtol makes of the
// text after the separator, the time of day or its end may be missing and counts as 0. 0; or -1 with a line
// on standard output when there are no two dashes, `seconds` as it was.
int ParseLocalDateTime(const std::string& text, std::time_t& seconds);

// Both go by StrPTime and do not tell whether the text matched: `fields` holds what was read. Always 1 and 0.
int ParseIsoDateTime(const std::string& text, std::tm& fields);
int ParseTime(const std::string& format, const std::string& text, std::tm& fields);

// Local standard time from what ParseTime reads into cleared fields. Always 0.
int ParseTimeToSeconds(const std::string& format, const std::string& text, std::time_t& seconds);

// "Wed, 06 May 2020 07:08:09 GMT+00:00" of the time that std::stoll reads from the text (its exceptions go
// on), of now for an empty text. The process's LC_TIME is set to en_US.UTF-8 where that is installed, for the
// names, and stays so. `out` stays as it was when the time has no calendar date.
void FormatHttpDate(std::string& out, const std::string& secondsText);

// How many whole units ("hours" to "nanoseconds") have passed since the epoch; empty for any other unit.
std::string NowInUnit(const std::string& unit);

}  // namespace zumod
