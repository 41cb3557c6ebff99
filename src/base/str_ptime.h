// A parser of times in strftime's formats that does not depend on the locale.
//
// Thread rule: [any thread]; a free function without state.
#pragma once

#include <ctime>

namespace zumod {

// Matches `text` with `format`: white space matches any white space, also none; a conversion reads into
// `fields`; any other character must match exactly. Returns the position after the last character matched, or
// null on a mismatch; `fields` then holds what was read before it. Fields without a conversion are unchanged;
// none is computed from others.
//
//   %a %A        day of the week, in full or its first three letters, in any case
//   %b %B %h     month, the same
//   %d %e        day of the month, 1 to 31
//   %H %k        hour, 0 to 23
//   %I %l        hour, 1 to 12
//   %j           day of the year, 1 to 366
//   %m           month, 1 to 12
//   %M           minute, 0 to 59
//   %p           AM or PM in any case; changes the hour read so far, and fails if that is above 12
//   %S           second, 0 to 60
//   %y           year in the century, 0 to 68 after 2000, 69 to 99 after 1900
//   %Y           year, 1900 to 9999
//   %%           a percent sign
//   %c  %x %X      %C  %A, %B, %e, %Y      %D %x  %m/%d/%y
//   %R  %H:%M      %T %X  %H:%M:%S         %r  %I:%M:%S %p
//
// A number has at most as many digits as its largest value (%y: two); fewer are accepted, and white space may
// precede it. Any other conversion fails.
const char* StrPTime(const char* text, const char* format, std::tm& fields);

}  // namespace zumod
