// Text from another machine or a device, made safe for a terminal and a log.
//
// Thread rule: pure functions; any thread.
#pragma once

#include <string>
#include <string_view>

namespace zumod {

// The text as UTF-8 without anything that could end a line, control a terminal, reorder the text around it or
// hide in it. Control characters, marks that change the writing direction, invisible characters, backslashes
// and bytes that are not UTF-8 become "\x1b" for a byte, "\u202e" or "\U000e0020" for a character. The result
// can be turned back into the input.
std::string SafeText(std::string_view text);

}  // namespace zumod
