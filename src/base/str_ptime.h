// The module's own parser of times written in strftime's formats. A free function without state, safe from
// any thread; no locale counts.
#pragma once

#include <ctime>

namespace zumod {

// Walks `format` along `text`: white space skips any white space there (also none), a conversion reads into
// `fields`, anything else must be there as it stands. Gives the position after the last character used, or
// null when something does not match, with `fields` holding what was read until then. Fields without a
// conversion stay as they were; none is worked out from others.
//
//   %a %A        day of the week, in full or its first three letters, in any case
//   %b %B %h     month, the same
//   %d %e        day of the month, 1 to 31
//   %H %k        hour, 0 to 23
//   %I %l        hour, 1 to 12
//   %j           day of the year, 1 to 366
//   %m           month, 1 to 12
//   %M           minute, 0 to 59
//   %p           AM or PM in any case; changes the hour read so far, and fails when that is above 12
//   %S           second, 0 to 60
//   %y           year in the century, 0 to 68 after 2000, 69 to 99 after 1900
//   %Y           year, 1900 to 9999
//   %%           a percent sign
//   %c  %x %X      %C  %A, %B, %e, %Y      %D %x  %m/%d/%y
//   %R  %H:%M      %T %X  %H:%M:%S         %r  %I:%M:%S %p
//
// A number takes up to as many digits as its largest value has (%y two); fewer do, and white space may stand
// before it. Any other conversion fails.
const char* StrPTime(const char* text, const char* format, std::tm& fields);

}  // namespace zumod
